// A Stage page for the motion tests, in virtual time: a tick thread every 20 ms moves simple
// axes (position follows the bias above a dead band, hard stops, limit switches) and a platen,
// and feeds the shared fields as the page's ticks do. The operator's answers are scripted; texts,
// stores and boxes are recorded.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "motion/StageTest.h"
#include "platform/Clock.h"
#include "tests/support/TempDirs.h"
#include "ui/MessageBox.h"
#include "util/Text.h"

namespace motion_testing {

struct FakeAxis {
  std::int32_t position = 0;
  std::int32_t deadBand = 400;         // |bias| at or below it does not move the axis
  std::int32_t divisor = 4;            // counts a tick = (|bias| - deadBand) / divisor
  std::int32_t negStop = INT_MIN / 2;  // hard stops
  std::int32_t posStop = INT_MAX / 2;
  std::int32_t negSwitch = INT_MIN / 2;  // the switch reports at or beyond these
  std::int32_t posSwitch = INT_MAX / 2;
};

struct Box {
  std::string text;
  unsigned style;
};

struct Store {
  unsigned axis;
  AxisPid pid;
  std::int64_t ms;  // virtual time of the store
};

class FakeStagePage : public motion::StagePage {
 public:
  explicit FakeStagePage(bool firstGeneration = false) : firstGeneration_(firstGeneration) {
    for (unsigned a = 0; a < 4; ++a) {
      board_[a] = AxisPid{.Kp = 100, .Kd = 200, .Ki = 3, .Il = 4, .Fe = 5000, .Kout = 65535};
      AxisPids[a] = board_[a];
    }
    motorMaximum_.fill(32766);
    countsPerMm_.fill(1000);
    ticks_ = platform::ParticipantThread([this] { TickLoop(); });
  }
  ~FakeStagePage() override {
    // As the page's destruction: the worker is asked to quit and joined before anything else of
    // the page goes.
    guard_.RequestQuit();
    guard_.Join();
    stop_ = true;
    platform::Join(ticks_);
  }

  // --- StagePage ---
  motion::StageTestState& TestState() const override {
    return firstGeneration_ ? motion::FirstGenerationTestState() : motion::AutoVisionTestState();
  }
  motion::TestThreadGuard& ThreadGuard() override { return guard_; }
  bool FirstGeneration() const override { return firstGeneration_; }
  void LoadAxisPid(unsigned axis) override {
    std::lock_guard lock(mutex_);
    AxisPids[axis] = board_[axis];
  }
  bool StoreAxisPid(unsigned axis) override { return Write(axis, AxisPids[axis]); }
  std::uint32_t LinkSession() override { return frozen_ ? 0 : session_.load(); }
  // As the channel does: a thread held to a session that has ended reaches no board.
  void HoldToSession(std::uint32_t session) override { HeldSession() = session; }
  std::string BoardSerial() override { return "FAKE-1"; }
  void SyncTestedAxis(unsigned axis) override {
    std::lock_guard lock(mutex_);
    syncs_.push_back(axis);
  }
  std::uint16_t MotorMaximum(unsigned axis) const override { return motorMaximum_[axis]; }
  std::int32_t CountsPerMm(unsigned axis) const override { return countsPerMm_[axis]; }
  const AxisExtents& Extents() const override { return extents_; }
  bool PlatenPresent() const override { return platenPresent_; }
  bool GetRotaryPosition(unsigned axis, std::int32_t& count) override {
    std::lock_guard lock(mutex_);
    count = axes_[axis].position * 2 + 7;
    return true;
  }
  bool MovePlaten(bool open) override {
    std::lock_guard lock(mutex_);
    platenMoves_.push_back(open);
    platenTarget_ = open ? 1 : -1;
    platenTicksLeft_ = (open ? platenOpenWorks_ : platenCloseWorks_) ? kPlatenTravelTicks : -1;
    TestState().PlatenOpen = 0;
    TestState().PlatenClosed = 0;
    return true;
  }
  void SetRunningText(unsigned axis, const std::string& text) override {
    std::lock_guard lock(mutex_);
    runningTexts_[axis].push_back(text);
  }
  void SetPlatenStatusText(const std::string& text) override {
    std::lock_guard lock(mutex_);
    platenTexts_.push_back(text);
  }
  int Ask(const std::string& text, unsigned style) override {
    std::function<void(FakeStagePage&, const std::string&)> hook;
    int answer = style == ui::kMbYesNo ? ui::kIdYes : ui::kIdOk;
    {
      std::lock_guard lock(mutex_);
      boxes_.push_back({text, style});
      if (!answers_.empty()) {
        answer = answers_.front();
        answers_.pop_front();
      }
      hook = onAsk;
    }
    if (hook) hook(*this, text);
    return answer;
  }
  ui::ChoiceResult Choose(const ui::ChoiceDialog& dialog) override {
    std::function<void(FakeStagePage&)> hook;
    ui::ChoiceResult r{ui::kIdOk, 0};
    {
      std::lock_guard lock(mutex_);
      dialogs_.push_back(dialog);
      if (!choices_.empty()) {
        r = choices_.front();
        choices_.pop_front();
      }
      hook = onChoose;
    }
    if (hook) hook(*this);
    return r;
  }
  std::string ReportFolder() const override { return folder_; }
  std::string PlatenCountText() const override { return platenCount_; }

  // --- Set-up, from the test before the run ---
  void SetAxis(unsigned axis, const FakeAxis& a) { axes_[axis] = a; }
  void Answer(std::initializer_list<int> answers) { answers_.insert(answers_.end(), answers); }
  void Choice(int result, int choice) { choices_.push_back({result, choice}); }
  void SetBoardPid(unsigned axis, const AxisPid& pid) { board_[axis] = AxisPids[axis] = pid; }
  void SetFolder(const std::string& folder) { folder_ = folder; }

  // The link comes back in a new session (it was down while `frozen_`), and the page resets as
  // ResetPage does: the records runs owe go back first, then the others are read.
  void Reconnect() {
    frozen_ = false;
    ++session_;
    for (const motion::OwedRecords::Entry& e : Owed.OwedTo(BoardSerial())) {
      if (Write(e.axis, e.record, /*held=*/false)) Owed.Paid(e.board, e.axis);
    }
    Sampling = 0;
    TestAxis = motion::kNoAxis;
    TestPosition = 0;
    VoltageChoice = 0;
    for (unsigned a = 0; a < 4; ++a) {
      if (a != HeldAxis) LoadAxisPid(a);
    }
  }

  // --- What happened ---
  std::vector<Box> Boxes() {
    std::lock_guard lock(mutex_);
    return boxes_;
  }
  std::vector<std::string> BoxTexts() {
    std::vector<std::string> out;
    for (const Box& b : Boxes())
      out.push_back(b.text);
    return out;
  }
  std::vector<std::string> Texts(unsigned axis) {
    std::lock_guard lock(mutex_);
    return runningTexts_[axis];
  }
  std::vector<std::string> PlatenTexts() {
    std::lock_guard lock(mutex_);
    return platenTexts_;
  }
  std::vector<Store> Stores() {
    std::lock_guard lock(mutex_);
    return stores_;
  }
  // The distinct biases stored on an axis, in order.
  std::vector<int> Biases(unsigned axis) {
    std::vector<int> out;
    for (const Store& s : Stores()) {
      if (s.axis == axis && s.pid.Kp == 0 && (out.empty() || out.back() != s.pid.Mb)) {
        out.push_back(s.pid.Mb);
      }
    }
    return out;
  }
  AxisPid BoardPid(unsigned axis) {
    std::lock_guard lock(mutex_);
    return board_[axis];
  }
  std::vector<unsigned> Syncs() {
    std::lock_guard lock(mutex_);
    return syncs_;
  }
  std::vector<bool> PlatenMoves() {
    std::lock_guard lock(mutex_);
    return platenMoves_;
  }
  std::vector<ui::ChoiceDialog> Dialogs() {
    std::lock_guard lock(mutex_);
    return dialogs_;
  }
  std::int32_t AxisPosition(unsigned axis) {
    std::lock_guard lock(mutex_);
    return axes_[axis].position;
  }

  // A write as the board sees it: refused while the link is down, or for a thread held to an
  // ended session (`held` false: the page's own write, which is never held).
  bool Write(unsigned axis, const AxisPid& pid, bool held = true) {
    std::lock_guard lock(mutex_);
    if (frozen_) return false;
    if (held && HeldSession() != 0 && HeldSession() != session_) return false;
    board_[axis] = pid;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        platform::Clock::Current().Now().time_since_epoch());
    stores_.push_back({axis, pid, ms.count()});
    return true;
  }
  static std::uint32_t& HeldSession() {
    thread_local std::uint32_t held = 0;
    return held;
  }

  // Set-up fields the test may change before a run.
  std::array<std::uint16_t, 4> motorMaximum_{};
  std::array<std::int32_t, 4> countsPerMm_{};
  AxisExtents extents_{};
  bool platenPresent_ = true;
  std::string platenCount_ = "100";
  bool platenOpenWorks_ = true;
  bool platenCloseWorks_ = true;
  std::atomic<bool> estop_{false};
  std::atomic<bool> frozen_{false};  // the link is down: nothing is fed any more
  std::uint64_t ticksDone_ = 0;      // ticks whose hook has returned
  // Runs on the tick thread after each tick, and on the worker at each box.
  std::function<void(FakeStagePage&)> onTick;
  // Takes the tick hook away and returns once no call of it can still be running: a hook holds
  // references to the test's locals, which end before the page does.
  void ClearOnTick() {
    std::unique_lock lock(mutex_);
    onTick = nullptr;
    const std::uint64_t seen = ticksDone_;
    platform::Clock::Current().WaitUntil(lock, platform::kNever,
                                         [&] { return stop_ || ticksDone_ > seen; });
  }
  std::function<void(FakeStagePage&, const std::string&)> onAsk;
  std::function<void(FakeStagePage&)> onChoose;
  std::atomic<std::int32_t> platenEncoder{0};

  static constexpr int kPlatenTravelTicks = 200;  // 4 s from end to end

 private:
  void TickLoop() {
    platform::Clock& clock = platform::Clock::Current();
    // Ticks fall 5 ms off the test thread's waits (all whole tens of ms), so that what a pass
    // sees never hangs on which of two threads due at the same moment runs first.
    clock.SleepFor(platform::Milliseconds(5));
    while (!stop_) {
      clock.SleepFor(platform::Milliseconds(20));
      if (!frozen_) Tick();
      std::function<void(FakeStagePage&)> hook;
      {
        std::lock_guard lock(mutex_);
        hook = onTick;
      }
      if (hook) hook(*this);
      {
        std::lock_guard lock(mutex_);
        ++ticksDone_;
      }
      clock.NotifyAll();
    }
  }

  void Tick() {
    std::lock_guard lock(mutex_);
    motion::StageTestState& state = TestState();
    for (unsigned a = 0; a < 4; ++a)
      MoveAxis(a);
    const unsigned axis = TestAxis;
    std::int8_t limit = 0;
    if (axis < 4) {
      const FakeAxis& x = axes_[axis];
      limit = x.position <= x.negSwitch ? -1 : x.position >= x.posSwitch ? 1 : 0;
      if (Sampling) TestPosition = x.position;
      if (state.LimitTest) {
        state.NegLimit = limit < 0;
        state.PosLimit = limit > 0;
      }
    }
    CachedEStop = estop_.load();
    MovePlatenOneTick(state);
    if (state.PlatenTest) TestPosition = platenEncoder.load();
    if (Trace.Active()) {
      const std::int32_t linear = axis < 4 ? axes_[axis].position : 0;
      Trace.Append({.time = Trace.Seconds(),
                    .bias = BiasWritten,
                    .linear = linear,
                    .rotary = linear * 2 + 7,
                    .limit = limit});
    }
  }

  void MoveAxis(unsigned a) {
    FakeAxis& x = axes_[a];
    const AxisPid& pid = board_[a];
    if (pid.Kp != 0) return;  // closed loop: the axis holds its place
    const std::int32_t magnitude = pid.Mb < 0 ? -pid.Mb : pid.Mb;
    if (magnitude <= x.deadBand) return;
    const std::int32_t step = (magnitude - x.deadBand) / x.divisor;
    x.position += pid.Mb < 0 ? -step : step;
    x.position = std::clamp(x.position, x.negStop, x.posStop);
  }

  void MovePlatenOneTick(motion::StageTestState& state) {
    if (platenTicksLeft_ <= 0) return;
    if (--platenTicksLeft_ > 0) return;
    // Each arrival reads a little differently, so that the extremes differ.
    ++arrivals_;
    if (platenTarget_ > 0) {
      state.PlatenOpen = 1;
      platenEncoder = 1000 + arrivals_ % 3;
    } else {
      state.PlatenClosed = 1;
      platenEncoder = -(arrivals_ % 4);
    }
  }

  bool firstGeneration_;
  motion::TestThreadGuard guard_;
  std::mutex mutex_;
  std::array<FakeAxis, 4> axes_{};
  std::array<AxisPid, 4> board_{};
  std::deque<int> answers_;
  std::deque<ui::ChoiceResult> choices_;
  std::vector<Box> boxes_;
  std::vector<ui::ChoiceDialog> dialogs_;
  std::array<std::vector<std::string>, 4> runningTexts_;
  std::vector<std::string> platenTexts_;
  std::vector<Store> stores_;
  std::vector<unsigned> syncs_;
  std::vector<bool> platenMoves_;
  std::string folder_;
  int platenTarget_ = 0;
  int platenTicksLeft_ = 0;
  int arrivals_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<std::uint32_t> session_{1};
  std::thread ticks_;
};

// Reads a report and gives its body back as UTF-8, checking the mark and the encoding.
inline std::string ReadFile(const std::string& path) {
  std::string bytes;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
      bytes.append(buffer, n);
    std::fclose(f);
  }
  return bytes;
}

inline std::string ReadReport(const std::string& path) {
  const std::string bytes = ReadFile(path);
  EXPECT_GE(bytes.size(), 2u) << path;
  if (bytes.size() < 2) return "";
  EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
  EXPECT_EQ(bytes.size() % 2, 0u);
  std::u16string wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    wide += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                  (static_cast<unsigned char>(bytes[i + 1]) << 8));
  }
  return text::ToUtf8(wide);
}

// Virtual time, fresh state blocks, a page and a report folder for each test.
class MotionFixture : public ::testing::Test {
 protected:
  MotionFixture() {
    motion::AutoVisionTestState().Reset();
    motion::FirstGenerationTestState().Reset();
  }
  FakeStagePage& MakePage(bool firstGeneration = false) {
    pages_.push_back(std::make_unique<FakeStagePage>(firstGeneration));
    pages_.back()->SetFolder(dir_.Path() + "/");
    return *pages_.back();
  }
  // Starts the test and waits until its thread is done; the page's tick hook goes with it.
  void Run(FakeStagePage& page, motion::TestButton button) {
    ASSERT_TRUE(motion::StartTest(page, button));
    page.ThreadGuard().Join();
    page.ClearOnTick();
  }
  std::string Report(const std::string& name) { return ReadReport(dir_ / name); }
  bool Exists(const std::string& name) { return std::ifstream(dir_ / name).good(); }

  platform::VirtualClock clock_;
  platform::ScopedClock scoped_{clock_};
  platform::ClockParticipant participant_{clock_};
  testing_support::ScratchDir dir_;
  std::vector<std::unique_ptr<FakeStagePage>> pages_;
};

}  // namespace motion_testing
