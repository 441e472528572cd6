// What ends a motion test against the fail-safe rule: every test, in every phase, meets every
// fault the machine or the operator can bring, against the real main dialog on the simulated
// board. Whatever the cell, the same things must hold:
//   - the program lives on, or ends cleanly (no crash, nothing for a sanitizer to find);
//   - every axis a run took over is under its own record within a second of the link being up
//     and the run over;
//   - no write after a link comes back drives an axis harder than before the loss;
//   - no report claims a run that did not happen;
//   - no question is answered for the operator, except cautiously when the program ends.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "recorder/Recorder.h"
#include "tests/integration/MotionRig.h"
#include "ui/StopSignals.h"

namespace {

using namespace motion_rig;

enum class Kind { kAxis, kLimit, kZoom, kPlaten };
// Where the test stands when the fault comes: its start dialog (the platen's prompt), a drive
// (ramp, seek, a platen move), a question (the platen's and the limit test's result), the
// centering or the platen's wait for a switch that does not come.
enum class Phase { kStartDialog, kDrive, kQuestion, kSettle };
enum class Fault {
  kClose,          // the window's Close, as the menu gives it
  kSigterm,        // the process is asked to end
  kHeartbeatLost,  // the browser's page hangs: connected, silent, answering nothing
  kLinkLost1s,
  kLinkLost30s,
  kEStop,
  kSleep,
  kOtherBoard,  // the board goes, and a board of another kind is plugged in its place
};

struct TestKind {
  Kind kind;
  const char* name;
  const char* profile;
  const char* button;
  unsigned axis;  // the axis the test drives (the platen: none)
  const char* simAxis;
};

constexpr TestKind kKinds[] = {
    {Kind::kAxis, "Axis", "autovision", "XAxisTest", 0, "x"},
    {Kind::kLimit, "Limit", "autovision", "YLimitTest", 1, "y"},
    {Kind::kZoom, "Zoom", "servo", "ZoomAxisTest", 3, "zoom"},
    {Kind::kPlaten, "Platen", "servo", "PlatenTest", 4, "platen"},
};

const char* PhaseName(Phase p) {
  static const char* const kNames[] = {"StartDialog", "Drive", "Question", "Settle"};
  return kNames[static_cast<int>(p)];
}

const char* FaultName(Fault f) {
  static const char* const kNames[] = {"Close",       "Sigterm", "HeartbeatLost", "LinkLost1s",
                                       "LinkLost30s", "EStop",   "Sleep",         "OtherBoard"};
  return kNames[static_cast<int>(f)];
}

struct Cell {
  TestKind test;
  Phase phase;
  Fault fault;
};

void PrintTo(const Cell& cell, std::ostream* out) {
  *out << cell.test.name << " test, " << PhaseName(cell.phase) << ", " << FaultName(cell.fault);
}

std::vector<Cell> AllCells() {
  std::vector<Cell> cells;
  for (const TestKind& test : kKinds) {
    for (Phase phase : {Phase::kStartDialog, Phase::kDrive, Phase::kQuestion, Phase::kSettle}) {
      // The axis and the zoom test have no centering and no platen wait.
      if (phase == Phase::kSettle && (test.kind == Kind::kAxis || test.kind == Kind::kZoom)) {
        continue;
      }
      for (int f = 0; f <= static_cast<int>(Fault::kOtherBoard); ++f)
        cells.push_back({test, phase, static_cast<Fault>(f)});
    }
  }
  return cells;
}

bool Starts(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

class MotionFaultMatrix : public MotionRig, public ::testing::WithParamInterface<Cell> {
 protected:
  // SIGTERM is taken on a thread of its own, as in the program: made before any other thread,
  // so that every thread the test starts has the two signals blocked.
  MotionFaultMatrix() : signals_(loop, ui::kIdCancel) {}

  void SetUp() override {
    const Cell& cell = GetParam();
    Open(cell.test.profile);
    for (unsigned a = 0; a < 4; ++a)
      own_[a] = Tuning(a);
    each = [this] { Sample(); };
  }

  // --- The operator: boxes of the cell's phase, and every box while the page hangs or the link
  // is away, stay open until released ---
  bool HoldsAt(const Operator::Shown& s) const {
    const Cell& cell = GetParam();
    const bool limit = cell.test.kind == Kind::kLimit;
    const bool platen = cell.test.kind == Kind::kPlaten;
    switch (cell.phase) {
      case Phase::kStartDialog:
        return platen ? Starts(s.text, " The Platen test will run") : s.kind == "choice";
      case Phase::kQuestion:
        if (limit) return Starts(s.text, "Y Axis Limits");
        if (platen) return Starts(s.text, "Platen test");
        return s.buttons == "yesno";
      default:
        return false;
    }
  }
  void Script() {
    op.SetScript([this](const Operator::Shown& s) -> std::pair<int, int> {
      if (holdAll_ || (!phaseHeld_ && HoldsAt(s))) {
        if (HoldsAt(s)) phaseHeld_ = true;
        return {0, 0};
      }
      ++answersGiven_;
      return Operator::Default(s);
    });
  }
  // Answers what stands open, and everything from now on.
  void Release() {
    holdAll_ = false;
    for (const Operator::Shown& s : op.Open()) {
      ++answersGiven_;
      const auto answer = Operator::Default(s);
      op.Answer(s.id, answer.first, answer.second);
    }
  }

  // --- Reaching the cell's phase ---
  bool Reached() {
    const Cell& cell = GetParam();
    const std::vector<Operator::Shown> open = op.Open();
    const bool held =
        std::any_of(open.begin(), open.end(), [&](const auto& s) { return HoldsAt(s); });
    switch (cell.phase) {
      case Phase::kStartDialog:
      case Phase::kQuestion:
        return held;
      case Phase::kDrive:
        return Sim(cell.test.simAxis, "moving") == 1;
      case Phase::kSettle:
        if (cell.test.kind == Kind::kPlaten) {
          // The first opening sticks half way; the test polls for a switch that never comes.
          if (!stuck_ && Sim("platen", "moving") == 1) {
            Control("platen stick");
            stuck_ = true;
            stuckAt_ = clock.Now();
          }
          return stuck_ && clock.Now() - stuckAt_ > milliseconds(3500);
        }
        // The centering: moving again after the positive switch was reached.
        if (SimField("y", "limit") == "high") sawHigh_ = true;
        return sawHigh_ && SimField("y", "limit") == "none" && Sim("y", "moving") == 1;
    }
    return false;
  }

  // --- What the board saw, every 20 ms ---
  void Sample() {
    const Cell& cell = GetParam();
    if (cell.test.kind == Kind::kPlaten) return;
    const sim::AxisTuning t = Tuning(cell.test.axis);
    if (!t.OpenLoop()) return;
    if (t.mb < 0) drivenNegative_ = true;
    if (t.mb > 0) drivenPositive_ = true;
    const int bias = std::abs(t.mb);
    if (!linkLost_) {
      strongestBeforeLoss_ = std::max(strongestBeforeLoss_, bias);
    } else if (watchingReturn_ && bias > strongestBeforeLoss_) {
      drovenHarderAfterReturn_ = true;
    } else if (watchingReturn_ && bias == 0) {
      watchingReturn_ = false;  // a new run's ramp begins from 0: it may drive as it needs
    }
  }

  // Every axis under the record it had before the test, within `limit`.
  bool EveryAxisUnderItsOwnRecord(platform::Duration limit) {
    return Wait(
        [&] {
          for (unsigned a = 0; a < 4; ++a) {
            const sim::AxisTuning t = Tuning(a);
            if (t.kp != own_[a].kp || t.ki != own_[a].ki || t.kd != own_[a].kd ||
                t.mb != own_[a].mb) {
              return false;
            }
          }
          return true;
        },
        limit);
  }

  int AnswerMarks() {
    int marks = 0;
    for (const recorder::Event& e :
         dlg->Recording().Events(0, std::numeric_limits<recorder::TimeUs>::max())) {
      marks += e.kind == recorder::EventKind::kAnswer;
    }
    return marks;
  }

  void Unplug() {
    Sample();  // the drive as it stood at the loss, not 20 ms before
    Control("unplug");
    linkLost_ = true;
  }
  // From the return on, no drive may be stronger than the one the loss cut, until a new run's
  // ramp is seen to begin (from the bottom).
  void Replug() {
    Control("replug");
    watchingReturn_ = true;
  }

  // The reports in the folder against what the board was seen to do.
  void ExpectReportsTellWhatHappened() {
    const Cell& cell = GetParam();
    switch (cell.test.kind) {
      case Kind::kAxis:
      case Kind::kZoom: {
        const std::string name = cell.test.kind == Kind::kAxis ? "AxisTest_X_0" : "AxisTest_Zoom_0";
        const std::string body = Report(name + ".dat");
        ASSERT_FALSE(body.empty()) << "the axis test writes its report in every case";
        const auto volts = NumbersAfter(body, "Starting Voltage: ");
        const auto changes = NumbersAfter(body, "Change: ");
        ASSERT_EQ(volts.size(), 2u) << body;
        const std::size_t perBlock = changes.size() / 2;
        const bool driven[2] = {drivenNegative_, drivenPositive_};
        for (int d = 0; d < 2; ++d) {
          bool claims = volts[static_cast<std::size_t>(d)] != 0;
          for (std::size_t i = 0; i < perBlock; ++i)
            claims |= changes[d * perBlock + i] != 0;
          EXPECT_TRUE(!claims || driven[d]) << "a run claimed that never drove, block " << d << "\n"
                                            << body;
        }
        break;
      }
      case Kind::kLimit: {
        const std::string body = Report("LimitTest_Y_0.dat");
        if (body.empty()) break;
        // A seek the report does not call stopped claims a drive in its direction.
        const std::string stops = body.substr(body.find("Manually Stopped:"));
        const bool stopped[2] = {stops.find("Negative: Yes") != std::string::npos,
                                 stops.find("Positive: Yes") != std::string::npos};
        EXPECT_TRUE(stopped[0] || drivenNegative_) << body;
        EXPECT_TRUE(stopped[1] || drivenPositive_) << body;
        break;
      }
      case Kind::kPlaten: {
        const std::string body = Report("PlatenTest_0.dat");
        if (body.empty()) break;
        const std::uint32_t moves = board_->TrafficSeen().commands[0x4C];
        // Each row is a cycle whose opening the board was told (after the first close).
        for (int row = 1; row <= 3; ++row) {
          if (body.find("\r\n" + std::to_string(row) + "\t") != std::string::npos) {
            EXPECT_GE(moves, static_cast<std::uint32_t>(2 * row - 1)) << body;
          }
        }
        break;
      }
    }
  }

  ui::StopSignals signals_;
  std::array<sim::AxisTuning, 4> own_{};
  std::atomic<bool> holdAll_{false};
  std::atomic<bool> phaseHeld_{false};
  std::atomic<int> answersGiven_{0};
  bool stuck_ = false;
  platform::TimePoint stuckAt_{};
  bool sawHigh_ = false;
  bool drivenNegative_ = false;
  bool drivenPositive_ = false;
  bool linkLost_ = false;
  bool watchingReturn_ = false;
  int strongestBeforeLoss_ = 0;
  bool drovenHarderAfterReturn_ = false;
};

TEST_P(MotionFaultMatrix, Holds) {
  const Cell& cell = GetParam();
  if (cell.test.kind == Kind::kPlaten) Type("PlatenCount", "2");
  Script();
  Click(cell.test.button);
  ASSERT_TRUE(Wait([&] { return Reached(); }, seconds(240)))
      << "phase " << PhaseName(cell.phase) << " not reached";
  const int answeredBefore = answersGiven_;
  const int marksBefore = AnswerMarks();
  EXPECT_EQ(marksBefore, answeredBefore) << "every answer so far is the operator's";

  switch (cell.fault) {
    case Fault::kClose:
    case Fault::kSigterm: {
      if (cell.fault == Fault::kClose) {
        window.ShellEvents().Dispatch(
            ui::Event{ui::kShellPage, "menu-close", ui::EventKind::kClick});
      } else {
        ::kill(::getpid(), SIGTERM);
      }
      // The modal run ends and the dialog goes at once, as in the program; the page's end
      // joins its thread, which hands the axis back and gets the cautious answer to whatever
      // it asks on the way out.
      platform::Join(ui);
      dlg.reset();
      EXPECT_FALSE(motion::AutoVisionTestState().Running ||
                   motion::FirstGenerationTestState().Running);
      EXPECT_TRUE(EveryAxisUnderItsOwnRecord(seconds(1)));
      ExpectReportsTellWhatHappened();
      return;
    }
    case Fault::kHeartbeatLost: {
      holdAll_ = true;
      op.alive = false;
      // The drive ends within 2.5 s of the last sign of life; the test then waits in a box.
      EXPECT_TRUE(EveryAxisUnderItsOwnRecord(milliseconds(2500)) ||
                  !motion::AutoVisionTestState().Running)
          << "still driven 2.5 s after the browser fell silent";
      op.alive = true;
      break;
    }
    case Fault::kLinkLost1s:
    case Fault::kLinkLost30s: {
      holdAll_ = true;
      Unplug();
      Wait([] { return false; }, cell.fault == Fault::kLinkLost1s ? seconds(1) : seconds(30));
      Replug();
      // The dialog reopens within a second; its first writes are the owed records.
      EXPECT_TRUE(EveryAxisUnderItsOwnRecord(milliseconds(2000)));
      EXPECT_TRUE(Wait([&] { return DialogConnected(); }, seconds(2)));
      EXPECT_FALSE(drovenHarderAfterReturn_);
      break;
    }
    case Fault::kEStop:
      Control("estop on");
      break;
    case Fault::kSleep:
      Control("sleep on");
      break;
    case Fault::kOtherBoard: {
      holdAll_ = true;
      Unplug();
      const std::uint32_t writes = board_->TrafficSeen().commands[0x73];
      ASSERT_TRUE(board_->SetProfile("manualvision"));
      Replug();
      Wait([] { return false; }, seconds(3));
      EXPECT_EQ(board_->TrafficSeen().commands[0x73], writes)
          << "no record of this machine's axes went to another board";
      EXPECT_FALSE(DialogConnected());
      Control("unplug");
      ASSERT_TRUE(board_->SetProfile(cell.test.profile));
      Replug();
      EXPECT_TRUE(Wait([&] { return DialogConnected(); }, seconds(2)));
      break;
    }
  }
  Release();
  ASSERT_TRUE(Wait([&] { return !State().Running; }, seconds(600))) << "the test never ended";
  Control("estop off");
  Control("sleep off");
  EXPECT_TRUE(EveryAxisUnderItsOwnRecord(seconds(1)));
  // Nothing owed once the link is back (a reconnection comes within a second).
  EXPECT_TRUE(Wait([&] { return Page().Owed.Empty(); }, milliseconds(1200)));
  EXPECT_FALSE(drovenHarderAfterReturn_);
  EXPECT_EQ(AnswerMarks() - marksBefore, answersGiven_ - answeredBefore)
      << "an answer stands that the operator did not give";
  ExpectReportsTellWhatHappened();
}

INSTANTIATE_TEST_SUITE_P(Cells, MotionFaultMatrix, ::testing::ValuesIn(AllCells()),
                         [](const ::testing::TestParamInfo<Cell>& cellInfo) {
                           return std::string(cellInfo.param.test.name) + "_" +
                                  PhaseName(cellInfo.param.phase) + "_" +
                                  FaultName(cellInfo.param.fault);
                         });

}  // namespace
