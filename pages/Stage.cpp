#include "pages/Stage.h"

#include "pages/StageParts.h"

#include "config/ErrorLog.h"
#include "config/Folders.h"
#include "ui/MessageBox.h"
#include "ui/Window.h"
#include "util/WinX.h"

namespace {

// The operator's boxes carry the program's name, as the platform's plain boxes do.
constexpr const char* kBoxTitle = "TavroTest";

// How long construction waits for other programs to let go of the board before it gives up on
// the machine image. The lock is normally held for one long read; a program that keeps it longer
// must not freeze the window, and a zeroed image is what a failed read leaves anyway.
constexpr std::uint32_t kImageLockMs = 10000;
// A retry comes from a reset inside the running window, which must not stand still for long.
constexpr std::uint32_t kImageRetryLockMs = 500;

}  // namespace

using namespace stage_parts;

// --- StageDlg: construction and lifetime ---

StageDlg::StageDlg(const StageForm& form, ui::Window& window, CTavroUsbServo* owner,
                   const BoardVersionInfo& version)
    : CTabDlg(103, form.htmlId, owner, version), form_(form), window_(window) {
  for (auto& text : RunningText)
    text.clear();
  ReadMachineImage(kImageLockMs);
  controller->GetAxisExtents(extents_);
  ListEvents();
  // Records an earlier run of the program still owed its axes when it ended: they go back at
  // the first reset, before anything reads the axes.
  journalled_ = Owed.UseJournal(ReportFolder() + kJournalName).size();
}

StageDlg::~StageDlg() {
  // The main dialog ends the thread before its pages go; this is for a page made without it.
  StageDlg::EndThreads();
}

void StageDlg::EndThreads() {
  // The test thread calls this page until it ends. A thread that waits in a box would never
  // end, so the window's boxes are answered first; the page ends its thread only with the main
  // dialog, at the end of the run.
  threadGuard_.RequestQuit();
  StopRequested = 1;
  if (TestState().Running) window_.Shutdown();
  threadGuard_.Join();
}

void StageDlg::ReadMachineImage(std::uint32_t lockMs) {
  MachineImage = EepromImage{};
  WinX::Mutex& lock = controller->AccessMutex();
  const std::uint32_t wait = lock.Wait(lockMs);
  const char* why = nullptr;
  if (wait != WinX::kWaitObject0 && wait != WinX::kWaitAbandoned) {
    why = "another program kept the board to itself";
  } else {
    std::uint32_t result = 0;
    if (!controller->GetEepromImage(MachineImage, result, true)) {
      why = "the board did not answer";
    } else if (result != 0) {
      why = "the board refused the read";
    }
    lock.Release();
  }
  imageRead_ = why == nullptr;
  if (imageRead_) return;
  MachineImage = EepromImage{};
  // Without the image every motion test ends at once with its voltage warning, which would send
  // the engineer looking for an obstruction that is not there.
  window_.ShowBoxAsync(std::string("The machine image could not be read: ") + why +
                           ".\r\n\r\nUntil it is read, the motion tests have no motor limit "
                           "and stop at once with VOLTAGE LIMIT REACHED. TavroTest reads it "
                           "again when the board next reconnects.",
                       kBoxTitle, ui::kMbOk | ui::kMbIconStop, {});
}

void StageDlg::ListEvents() {
  using motion::TestButton;
  auto& events = Events();
  events.OnClick("StatusClearSleep", [this](const ui::Event&) { OnClearSleep(); });
  const struct {
    const char* id;
    TestButton button;
  } buttons[] = {
      {"XAxisTest", TestButton::kXAxis},       {"YAxisTest", TestButton::kYAxis},
      {"ZAxisTest", TestButton::kZAxis},       {"ZoomAxisTest", TestButton::kZoomAxis},
      {"XLimitTest", TestButton::kXLimit},     {"YLimitTest", TestButton::kYLimit},
      {"ZLimitTest", TestButton::kZLimit},     {"PlatenToggle", TestButton::kPlatenToggle},
      {"PlatenTest", TestButton::kPlatenTest},
  };
  for (const auto& b : buttons) {
    if (b.button == TestButton::kZoomAxis && !form_.zoomTest) continue;
    events.OnClick(b.id, [this, button = b.button](const ui::Event&) { OnTestButton(button); });
  }
  // STOP is never taken away: a watcher's stops as the operator's does.
  events.OnClick(
      "StopMotor", [this](const ui::Event&) { StopRequested = 1; }, ui::From::kAnyone);
  // A browser sends a text box's value only for a change the page listens to, and the window
  // takes the value into the document before the handler runs. Without this the count typed
  // into "Test Qty:" never reached the page, and every platen test ran the default 100 cycles.
  events.OnChange("PlatenCount", [](const ui::Event&) {});
}

// --- Events ---

void StageDlg::OnTestButton(motion::TestButton button) {
  // A second test is refused without a word, and without touching anything.
  if (TestState().Running) return;
  std::string typed = Doc().Text("PlatenCount");
  if (typed.size() > kMaxPlatenCountText) typed.resize(kMaxPlatenCountText);
  {
    std::lock_guard lock(textLock_);
    platenCount_ = std::move(typed);
  }
  if (motion::StartTest(*this, button)) {
    {
      std::lock_guard lock(textLock_);
      lastReport_.clear();
    }
    recording.Mark(recorder::EventKind::kTestStarted, motion::RunningTestName(*this));
    markedRunning_ = true;
  }
}

void StageDlg::OnClearSleep() {
  if (Doc().Enabled("StatusClearSleep") && PreviousStatus.Sleep) controller->ClearSleep();
}

void StageDlg::OnCancel() {
  if (TestState().AnyTestFlag()) StopRequested = 1;
}

// --- ResetPage ---

void StageDlg::ResetPage(const BoardVersionInfo& record) {
  Connected = true;
  versionInfo = record;
  PidReady = 1;
  // The board's first writes on a link that came back are the records runs owe its axes.
  PayOwedRecords();
  if (!imageRead_ && !firstReset_) ReadMachineImage(kImageRetryLockMs);
  firstReset_ = false;
  Linear.fill(0);
  Rotary.fill(0);
  Index.fill(0);
  IndexValid.fill(0);
  PreviousStatus = ServoStatus{};
  for (auto* texts : {&LimitText, &MovingText, &SettledText, &StalledText, &FailedText}) {
    for (auto& t : *texts)
      t.clear();
  }
  EStopText.clear();
  SleepText.clear();
  CachedEStop = 0;
  CachedSleep = 0;
  CachedRunning = 0;
  {
    std::lock_guard lock(textLock_);
    RunningText.fill("Ready");
    PlatenStatusText = "Ready";
    platenCount_ = "100";
  }
  Sampling = 0;
  TestAxis = motion::kNoAxis;
  TestPosition = 0;
  VoltageChoice = 0;
  for (unsigned axis = 0; axis < 4; ++axis) {
    // A test thread that holds an axis across the reconnection keeps its own record there.
    if (axis != HeldAxis) LoadAxisPid(axis);
  }
  PutBackLostTuning();
  if (PageReady) UpdateData();
}

// --- Ticks ---

void StageDlg::UpdatePage(std::uint32_t timerId, const ServoStatus& status) {
  TickGuard guard(*this);
  if (!guard.Entered()) return;
  // Another id than the four ticks' does nothing.
  switch (static_cast<Tick>(timerId)) {
    case Tick::k20ms:
      Tick20ms(status);
      RecordTest();
      break;
    case Tick::k50ms:
      if (TestState().LimitTest && TestAxis < 4) SetLimitFlags(status.Limit[TestAxis]);
      RecordStatus(status);
      break;
    case Tick::k200ms:
      if (Connected && PageReady) Tick200ms(status);
      break;
    case Tick::k1s:
      if (FirstSleepRefresh) {
        Doc().Enable("StatusClearSleep", status.Sleep);
        FirstSleepRefresh = 0;
      }
      break;
  }
}

void StageDlg::Tick20ms(const ServoStatus& status) {
  const std::uint32_t axis = TestAxis;
  if (Sampling && axis < 4) TestPosition = status.LinearPosition[axis];
  if (!Trace.Active()) return;
  // The unit under test: an axis, else the platen while its test runs. The sample costs no
  // transfer: the rotary count is the one the 200 ms tick read last. An axis's position comes
  // from this poll, not from the test's sample, which reads 0 between two runs of one test.
  motion::TraceSample sample{.time = Trace.Seconds(), .bias = BiasWritten, .linear = TestPosition};
  // The platen first: TestAxis keeps the last axis test's axis through a platen test.
  if (TestState().PlatenTest) {
    sample.rotary = Rotary[kPlatenSlot];
    sample.limit = status.PlatenLimit;
  } else if (axis < 4) {
    sample.linear = status.LinearPosition[axis];
    sample.rotary = Rotary[axis];
    sample.limit = status.Limit[axis];
  }
  Trace.Append(sample);
}

void StageDlg::SetLimitFlags(std::int8_t limit) {
  motion::StageTestState& state = TestState();
  state.NegLimit = limit < 0 ? 1 : 0;
  state.PosLimit = limit > 0 ? 1 : 0;
}

void StageDlg::Tick200ms(const ServoStatus& status) {
  bool dirty = RefreshAxes(status);
  if (!Connected) return;
  if (versionInfo.hasWAxis) {
    dirty |= RefreshW(status);
    if (!Connected) return;
  }
  if (versionInfo.platenFitted) {
    dirty |= RefreshPlaten(status);
    if (!Connected) return;
  }
  dirty |= RefreshStates(status);
  PreviousStatus = status;
  if (dirty) UpdateData();
}

bool StageDlg::RefreshAxes(const ServoStatus& status) {
  bool dirty = false;
  for (unsigned i = 0; i < 4; ++i)
    dirty |= TakeValue(status.LinearPosition[i], Linear[i]);
  for (std::uint16_t i = 0; i < 4; ++i) {
    std::uint32_t rotary = 0;
    if (!controller->GetRotaryPosition(i, rotary)) {
      Connected = false;
      break;
    }
    dirty |= TakeValue(static_cast<std::int32_t>(rotary), Rotary[i]);
    recording.Record(rotaryChannels_[i], Rotary[i]);
    if (!ReadIndex(*controller, i, IndexValid[i], Index[i], dirty)) {
      Connected = false;
      break;
    }
    if (IndexValid[i]) recording.Record(indexChannels_[i], Index[i]);
    if (status.Limit[i] != PreviousStatus.Limit[i]) {
      dirty = true;
      LimitText[i] = LimitWord(status.Limit[i]);
      if (i == TestAxis) SetLimitFlags(status.Limit[i]);
    }
    FollowFlag(PreviousStatus.Moving[i], status.Moving[i], MovingText[i], "Moving");
    FollowFlag(PreviousStatus.Settled[i], status.Settled[i], SettledText[i], "Settled");
    FollowFlag(PreviousStatus.Stalled[i], status.Stalled[i], StalledText[i], "Stall");
    FollowFlag(PreviousStatus.Failed[i], status.Failed[i], FailedText[i], "Fail");
  }
  return dirty;
}

bool StageDlg::RefreshW(const ServoStatus& status) {
  bool dirty = false;
  CTavroUsbWAxis& w = *controller;
  if (!ReadW(w, Rotary[kWSlot], IndexValid[kWSlot], Index[kWSlot], dirty)) {
    Connected = false;
    return dirty;
  }
  recording.Record(rotaryChannels_[kWSlot], Rotary[kWSlot]);
  if (IndexValid[kWSlot]) recording.Record(indexChannels_[kWSlot], Index[kWSlot]);
  FollowWFlags(PreviousStatus, status, MovingText[kWSlot], SettledText[kWSlot],
               StalledText[kWSlot]);
  return dirty;
}

bool StageDlg::RefreshPlaten(const ServoStatus& status) {
  CTavroUsbPlaten& platen = *controller;
  std::uint32_t count = 0;
  if (!platen.GetPosition(count)) {
    Connected = false;
    return false;
  }
  const auto position = static_cast<std::int32_t>(count);
  // The platen test samples the platen encoder at this tick's rate.
  if (TestState().PlatenTest) TestPosition = position;
  bool dirty = TakeValue(position, Rotary[kPlatenSlot]);
  recording.Record(rotaryChannels_[kPlatenSlot], position);
  if (status.PlatenLimit != PreviousStatus.PlatenLimit) {
    dirty = true;
    LimitText[kPlatenSlot] = LimitWord(status.PlatenLimit);
    motion::StageTestState& state = TestState();
    state.PlatenClosed = status.PlatenLimit < 0 ? 1 : 0;
    state.PlatenOpen = status.PlatenLimit > 0 ? 1 : 0;
  }
  FollowFlag(PreviousStatus.PlatenMoving, status.PlatenMoving, MovingText[kPlatenSlot], "Moving");
  FollowFlag(PreviousStatus.PlatenSettled, status.PlatenSettled, SettledText[kPlatenSlot],
             "Settled");
  FollowFlag(PreviousStatus.PlatenStalled, status.PlatenStalled, StalledText[kPlatenSlot], "Stall");
  return dirty;
}

// E-stop, the running test's texts, sleep.
bool StageDlg::RefreshStates(const ServoStatus& status) {
  bool dirty = false;
  if (CachedEStop != status.EStop) {
    dirty = true;
    CachedEStop = status.EStop;
    EStopText = status.EStop ? "EStop" : "";
  }
  motion::StageTestState& state = TestState();
  const std::uint8_t running = state.Running;
  // The thread's "MB: %d" texts follow at this tick's rate while a test runs.
  if (running) dirty = true;
  if (CachedRunning != running) {
    dirty = true;
    CachedRunning = running;
    const std::uint8_t flags[4] = {state.TestX, state.TestY, state.TestZ, state.TestZoom};
    std::lock_guard lock(textLock_);
    for (unsigned axis = 0; axis < 4; ++axis) {
      RunningText[axis] = !running ? "Ready" : flags[axis] ? "Testing Axis" : "";
    }
    if (!running) {
      PlatenStatusText = "Ready";
    } else if (!state.PlatenTest) {
      PlatenStatusText.clear();
    }
  }
  if (CachedSleep != status.Sleep) {
    dirty = true;
    CachedSleep = status.Sleep;
    SleepText = status.Sleep ? "Sleep" : "";
    Doc().Enable("StatusClearSleep", status.Sleep);
  }
  return dirty;
}

// --- The document ---

void StageDlg::DoDataExchange(DataExchange& dx) {
  for (unsigned i = 0; i < 4; ++i) {
    dx.Text(Id("Linear", i), Linear[i]);
    dx.Text(Id("Rotary", i), Rotary[i]);
    IndexText(dx, Id("Index", i), IndexValid[i], Index[i]);
    dx.Text(Id("Limit", i), LimitText[i]);
    dx.Text(Id("Moving", i), MovingText[i]);
    dx.Text(Id("Settled", i), SettledText[i]);
    dx.Text(Id("Stalled", i), StalledText[i]);
    dx.Text(Id("Failed", i), FailedText[i]);
  }
  // The W and platen columns stay as the document has them on a machine without those units.
  // IndexPlaten is bound like any index, but nothing ever reads the platen's capture, so it stays
  // blank.
  for (unsigned slot : {kWSlot, kPlatenSlot}) {
    if (slot == kWSlot ? !versionInfo.hasWAxis : !versionInfo.platenFitted) continue;
    dx.Text(Id("Rotary", slot), Rotary[slot]);
    IndexText(dx, Id("Index", slot), IndexValid[slot], Index[slot]);
    if (slot == kPlatenSlot) dx.Text(Id("Limit", slot), LimitText[slot]);
    dx.Text(Id("Moving", slot), MovingText[slot]);
    dx.Text(Id("Settled", slot), SettledText[slot]);
    dx.Text(Id("Stalled", slot), StalledText[slot]);
  }
  dx.Text("EStop", EStopText);
  dx.Text("Sleep", SleepText);
  std::lock_guard lock(textLock_);
  const unsigned runningTexts = form_.zoomTest ? 4 : 3;
  for (unsigned axis = 0; axis < runningTexts; ++axis)
    dx.Text(Id("RunningTest", axis), RunningText[axis]);
  // The platen test row belongs to every machine; the count box shows what the page holds, so
  // what was typed since the last click lasts only until this push.
  dx.Text("PlatenStatus", PlatenStatusText);
  dx.Text("PlatenCount", platenCount_);
}

// --- Recording ---

void StageDlg::AddChannels() {
  using recorder::ValueKind;
  for (unsigned i = 0; i < 4; ++i) {
    const std::string slot = kSlotNames[i];
    statusChannels_.linear[i] = recording.Add("status.LinearPosition." + slot, kTick50ms,
                                              ValueKind::kInt32, Id("Linear", i), "counts");
  }
  // The W and platen slots exist on machines that have the unit.
  std::vector<unsigned> slots{0, 1, 2, 3};
  if (versionInfo.hasWAxis) slots.push_back(kWSlot);
  if (versionInfo.platenFitted) slots.push_back(kPlatenSlot);
  for (const unsigned i : slots) {
    const std::string slot = kSlotNames[i];
    // The board's flags of W and the platen have their own names in the poll.
    const std::string prefix = i < 4 ? "status." : "status." + slot;
    const std::string dot = i < 4 ? "." + slot : "";
    if (i != kWSlot) {
      statusChannels_.limit[i] =
          recording.Add(prefix + "Limit" + dot, kTick50ms, ValueKind::kInt16, Id("Limit", i));
    }
    statusChannels_.moving[i] =
        recording.Add(prefix + "Moving" + dot, kTick50ms, ValueKind::kFlag, Id("Moving", i));
    statusChannels_.settled[i] =
        recording.Add(prefix + "Settled" + dot, kTick50ms, ValueKind::kFlag, Id("Settled", i));
    statusChannels_.stalled[i] =
        recording.Add(prefix + "Stalled" + dot, kTick50ms, ValueKind::kFlag, Id("Stalled", i));
    if (i < 4) {
      statusChannels_.failed[i] =
          recording.Add("status.Failed." + slot, kTick50ms, ValueKind::kFlag, Id("Failed", i));
    }
    rotaryChannels_[i] = recording.Add("stage.RotaryPosition." + slot, kTick200ms,
                                       ValueKind::kInt32, Id("Rotary", i), "counts");
    if (i != kPlatenSlot) {
      indexChannels_[i] = recording.Add("stage.IndexCapture." + slot, kTick200ms, ValueKind::kInt32,
                                        Id("Index", i), "counts");
    }
  }
  statusChannels_.estop = recording.Add("status.EStop", kTick50ms, ValueKind::kFlag, "EStop");
  statusChannels_.sleep = recording.Add("status.Sleep", kTick50ms, ValueKind::kFlag, "Sleep");
  // The bias a motion test wrote last, on every 20 ms tick of its run.
  biasChannel_ = recording.Add("motion.Bias", kTick20ms, ValueKind::kInt16, "");
}

void StageDlg::RecordStatus(const ServoStatus& status) {
  const StatusChannels& c = statusChannels_;
  for (unsigned i = 0; i < 4; ++i) {
    recording.Record(c.linear[i], status.LinearPosition[i]);
    recording.Record(c.limit[i], status.Limit[i]);
    recording.Record(c.moving[i], status.Moving[i]);
    recording.Record(c.settled[i], status.Settled[i]);
    recording.Record(c.stalled[i], status.Stalled[i]);
    recording.Record(c.failed[i], status.Failed[i]);
  }
  recording.Record(c.moving[kWSlot], status.WMoving);
  recording.Record(c.settled[kWSlot], status.WSettled);
  recording.Record(c.stalled[kWSlot], status.WStalled);
  recording.Record(c.limit[kPlatenSlot], status.PlatenLimit);
  recording.Record(c.moving[kPlatenSlot], status.PlatenMoving);
  recording.Record(c.settled[kPlatenSlot], status.PlatenSettled);
  recording.Record(c.stalled[kPlatenSlot], status.PlatenStalled);
  recording.Record(c.estop, status.EStop);
  recording.Record(c.sleep, status.Sleep);
}

void StageDlg::RecordTest() {
  if (Trace.Active()) recording.Record(biasChannel_, BiasWritten);
  if (!markedRunning_ || TestState().Running) return;
  markedRunning_ = false;
  std::string report;
  {
    std::lock_guard lock(textLock_);
    report = lastReport_;
  }
  recording.Mark(recorder::EventKind::kTestEnded, report);
}
