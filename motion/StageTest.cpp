#include "motion/StageTest.h"

#include <latch>
#include <limits>
#include <memory>
#include <system_error>

#include "motion/TestRun.h"
#include "motion/Tests.h"
#include "platform/Clock.h"

namespace motion {

void StageTestState::Reset() {
  for (auto* flag : {&Running, &TestX, &TestY, &TestZ, &TestZoom, &PosLimit, &NegLimit, &LimitTest,
                     &PlatenTest, &PlatenOpen, &PlatenClosed}) {
    *flag = 0;
  }
  MessageResult = ui::kIdOk;
}

bool StageTestState::AnyTestFlag() const {
  return TestX || TestY || TestZ || TestZoom || PlatenTest;
}

StageTestState& AutoVisionTestState() {
  static StageTestState state;
  return state;
}

StageTestState& FirstGenerationTestState() {
  static StageTestState state;
  return state;
}

// --- TestThreadGuard ---

TestThreadGuard::~TestThreadGuard() {
  RequestQuit();
  Join();
}

void TestThreadGuard::RecordThread(std::thread thread) {
  std::thread finished;
  {
    std::lock_guard lock(lock_);
    finished = std::move(thread_);
    thread_ = std::move(thread);
    holdsAxis_ = thread_.joinable();
  }
  // A thread is only recorded once the one before it cleared Running, its last step.
  platform::Join(finished);
}

void TestThreadGuard::ClearThread() {
  std::lock_guard lock(lock_);
  holdsAxis_ = false;
}

bool TestThreadGuard::HoldsAxis() const {
  std::lock_guard lock(lock_);
  return holdsAxis_;
}

void TestThreadGuard::Join() {
  std::thread thread;
  {
    std::lock_guard lock(lock_);
    thread = std::move(thread_);
    holdsAxis_ = false;
  }
  platform::Join(thread);
}

// --- RunTrace ---

namespace {
std::int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             platform::Clock::Current().Now().time_since_epoch())
      .count();
}
}  // namespace

void RunTrace::Begin() {
  std::lock_guard lock(lock_);
  samples_.clear();
  active_ = true;
  beganNs_ = NowNs();
}

void RunTrace::Append(const TraceSample& sample) {
  std::lock_guard lock(lock_);
  if (active_ && samples_.size() < kMaxSamples) samples_.push_back(sample);
}

std::vector<TraceSample> RunTrace::Take() {
  std::vector<TraceSample> taken;
  std::lock_guard lock(lock_);
  taken.swap(samples_);
  return taken;
}

bool RunTrace::Active() const {
  std::lock_guard lock(lock_);
  return active_;
}

void RunTrace::End() {
  std::lock_guard lock(lock_);
  active_ = false;
  samples_.clear();
  samples_.shrink_to_fit();
}

double RunTrace::Seconds() const {
  std::lock_guard lock(lock_);
  return static_cast<double>(NowNs() - beganNs_) / 1e9;
}

// --- Start handlers ---

namespace {

struct ButtonRule {
  std::atomic<std::uint8_t> StageTestState::*flag;
  bool limitTest;
  unsigned axis;  // kNoAxis: TestAxis is left as it is
  void (*body)(const TestParams&);
};

ButtonRule RuleOf(TestButton button) {
  switch (button) {
    case TestButton::kXAxis:
      return {&StageTestState::TestX, false, 0, RunAxisTest};
    case TestButton::kYAxis:
      return {&StageTestState::TestY, false, 1, RunAxisTest};
    case TestButton::kZAxis:
      return {&StageTestState::TestZ, false, 2, RunAxisTest};
    case TestButton::kZoomAxis:
      return {&StageTestState::TestZoom, false, 3, RunAxisTest};
    case TestButton::kXLimit:
      return {&StageTestState::TestX, true, 0, RunLimitTest};
    case TestButton::kYLimit:
      return {&StageTestState::TestY, true, 1, RunLimitTest};
    case TestButton::kZLimit:
      return {&StageTestState::TestZ, true, 2, RunLimitTest};
    case TestButton::kPlatenToggle:
    case TestButton::kPlatenTest:
      break;
  }
  return {&StageTestState::PlatenTest, false, kNoAxis, RunPlatenTest};
}

}  // namespace

std::int32_t ParsePlatenCount(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t'))
    ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::int64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > std::numeric_limits<std::int32_t>::max()) break;  // saturates below
  }
  if (negative) value = -value;
  if (value > std::numeric_limits<std::int32_t>::max())
    return std::numeric_limits<std::int32_t>::max();
  if (value < std::numeric_limits<std::int32_t>::min())
    return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(value);
}

bool StartTest(StagePage& page, TestButton button) {
  StageTestState& state = page.TestState();
  if (state.Running) return false;
  if (button == TestButton::kZoomAxis && !RulesOf(page).zoomTest) return false;
  const ButtonRule rule = RuleOf(button);
  state.Running = 1;
  state.*rule.flag = 1;
  if (rule.limitTest) state.LimitTest = 1;

  TestParams params{
      .page = &page, .guard = &page.ThreadGuard(), .button = button, .axis = rule.axis};
  if (button == TestButton::kPlatenTest) {
    // Untrusted text from the browser: the thread refuses what it cannot run (see Tests.h).
    params.count = ParsePlatenCount(page.PlatenCountText());
  } else if (button == TestButton::kPlatenToggle) {
    params.toggle = 1;
    params.count = 1;
  }
  params.platenPresent = page.PlatenPresent();
  if (rule.axis != kNoAxis) page.TestAxis = rule.axis;

  // The thread starts only once the guard holds it, as a suspended thread resumed after
  // RecordThread would: so its ClearThread can never come before the record.
  auto recorded = std::make_shared<std::latch>(1);
  std::thread thread;
  try {
    thread = platform::ParticipantThread([params, recorded, body = rule.body] {
      recorded->wait();
      body(params);
    });
  } catch (const std::system_error&) {
    return false;  // the flags stay set: no test starts again until a restart
  }
  page.ThreadGuard().RecordThread(std::move(thread));
  recorded->count_down();
  return true;
}

std::string RunningTestName(const StagePage& page) {
  StageTestState& state = page.TestState();
  if (!state.Running) return "";
  const char* kind = state.LimitTest ? " Limit Test" : " Axis Test";
  if (state.TestX) return std::string("X") + kind;
  if (state.TestY) return std::string("Y") + kind;
  if (state.TestZ) return std::string("Z") + kind;
  if (state.TestZoom) return "Zoom Axis Test";
  if (state.PlatenTest) return "Platen Test";
  return "";
}

}  // namespace motion
