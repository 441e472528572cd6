// What a Stage page and its motion test thread share. The page (pages/Stage.*) runs on the UI
// thread and feeds the shared fields from its timer ticks; one test thread at a time per page
// family reads them, drives an axis through the page's operations, talks to the operator through
// boxes and start dialogs that block only itself, and writes a report.
//
// The fields are polled without a lock: one side writes each one and the other reads it on its
// next pass of a 20 to 100 ms loop, so a stale value costs at most one pass. They are atomics so
// that this hand-over is well defined on every platform.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "link/ControllerRecords.h"
#include "platform/Clock.h"
#include "ui/Dialogs.h"
#include "ui/MessageBox.h"

namespace motion {

// The flags of one page family, process-wide and zero at the start (MessageResult 1).
struct StageTestState {
  std::atomic<std::uint8_t> Running{0};  // a test thread owns the machine
  std::atomic<std::uint8_t> TestX{0};    // axis or limit test of that axis runs
  std::atomic<std::uint8_t> TestY{0};
  std::atomic<std::uint8_t> TestZ{0};
  std::atomic<std::uint8_t> TestZoom{0};  // zoom test (first generation only)
  std::atomic<std::uint8_t> PosLimit{0};  // the axis under test stands on that switch
  std::atomic<std::uint8_t> NegLimit{0};
  std::atomic<std::uint8_t> LimitTest{0};   // timer 2 feeds the limit flags only then
  std::atomic<std::uint8_t> PlatenTest{0};  // platen test or toggle runs
  std::atomic<std::uint8_t> PlatenOpen{0};  // the platen stands on its open / closed switch
  std::atomic<std::uint8_t> PlatenClosed{0};
  // The last start dialog's or prompt's answer: ui::kIdOk (1) or ui::kIdCancel (2).
  std::atomic<std::int32_t> MessageResult{ui::kIdOk};

  // Back to the start values (for tests, which share the process-wide blocks).
  void Reset();
  // Any axis flag or PlatenTest: what the page's cancel (Escape) treats as a running test.
  bool AnyTestFlag() const;
};

// The two blocks: the current servo page's and the first generation's.
StageTestState& AutoVisionTestState();
StageTestState& FirstGenerationTestState();

// The test thread of a page. Rule for the page's lifetime: the page's destruction requests quit,
// ends every box the thread waits in (the window's Shutdown answers them cautiously), and joins
// the thread, whether or not ClearThread was called, so a worker never outlives its page.
// ClearThread marks that the thread has handed its axis back; it no longer changes what the
// destructor waits for. The thread calls the page's virtual operations until it ends, so a page
// does this first thing in its own destructor (RequestQuit, end its boxes, Join), before any of
// its members goes; the guard's destructor is the backstop.
class TestThreadGuard {
 public:
  TestThreadGuard() = default;
  ~TestThreadGuard();  // RequestQuit, then joins the thread (taking no part in time meanwhile)
  TestThreadGuard(const TestThreadGuard&) = delete;
  TestThreadGuard& operator=(const TestThreadGuard&) = delete;

  // Keeps the started thread; a finished earlier one is joined first.
  void RecordThread(std::thread thread);
  void ClearThread();
  bool IsQuitRequested() const { return quit_.load(); }
  void RequestQuit() { quit_ = true; }
  // Whether a thread is recorded and has not called ClearThread.
  bool HoldsAxis() const;
  // Joins the recorded thread, if any (for tests and for the page's end).
  void Join();

 private:
  mutable std::mutex lock_;
  std::thread thread_;
  bool holdsAxis_ = false;
  std::atomic<bool> quit_{false};
};

// A flag that ends a drive: setting it wakes a test thread that waits out a pass of its ramp,
// seek or centering (AxisRun::Pass), so that the axis is handed back at once instead of at the
// end of the pass. Reads and writes like the plain byte it stands for.
class WakingFlag {
 public:
  WakingFlag& operator=(std::uint8_t value) {
    value_ = value;
    platform::Clock::Current().NotifyAll();
    return *this;
  }
  operator std::uint8_t() const { return value_.load(); }  // NOLINT: reads as the byte it is

 private:
  std::atomic<std::uint8_t> value_{0};
};

// The tuning records that runs took from their axes and that are not yet known to be back in
// force on the board. A record is owed from the moment a run saved it, before the first write of
// the take-over, until a write of it succeeds, whoever makes it: the run's hand-back, or the
// page's reset once the link is back (which writes it before it reads any axis's record).
// Records are kept per board (its serial number), so that one board's record never goes to
// another board's axis.
//
// With a journal, every change is written to that file first (a new file put in place in one
// step), so that a record still owed when the program or the computer dies is put back at the
// next start. The journal is trusted only as TavroTest's own plain file; anything else there is
// left alone. Thread-safe.
class OwedRecords {
 public:
  struct Entry {
    std::string board;  // the board's serial number
    unsigned axis = 0;
    AxisPid record;
  };

  // Reads the journal at `path` (nothing when "" or when no trusted journal is there); later
  // changes are written there. Returns what it found.
  std::vector<Entry> UseJournal(std::string path);
  // The run is about to take the axis over. False when the journal could not be written (the
  // record is owed all the same; the caller logs).
  bool Owe(const std::string& board, unsigned axis, const AxisPid& record);
  // A write of the record succeeded: nothing is owed any more.
  void Paid(const std::string& board, unsigned axis);
  std::optional<AxisPid> Find(const std::string& board, unsigned axis) const;
  // Every record owed to `board`, in axis order.
  std::vector<Entry> OwedTo(const std::string& board) const;
  bool Empty() const;

  // The journal's text for `entries`, and back (entries it cannot read are skipped).
  static std::string Format(const std::vector<Entry>& entries);
  static std::vector<Entry> Parse(const std::string& text);

 private:
  bool WriteJournalLocked() const;
  std::vector<Entry> EntriesLocked() const;

  mutable std::mutex lock_;
  std::map<std::pair<std::string, unsigned>, AxisPid> owed_;
  std::string journal_;
};

// One sample of a run's trace, taken by the page's 20 ms tick while a test runs.
struct TraceSample {
  double time = 0;        // seconds from the run's start
  std::int32_t bias = 0;  // the bias last written
  std::int32_t linear = 0;
  std::int32_t rotary = 0;  // the last rotary count the page read
  std::int8_t limit = 0;    // the limit byte of the unit under test
};

// The trace of the run under way, bounded to an hour of 20 ms ticks. Thread-safe: the UI thread
// appends, the test thread begins it and takes it when it writes its report.
class RunTrace {
 public:
  static constexpr std::size_t kMaxSamples = 3600 * 50;

  void Begin();  // empties it and starts the run's clock
  void Append(const TraceSample& sample);
  std::vector<TraceSample> Take();
  bool Active() const;
  void End();
  // The time since Begin, for the sample.
  double Seconds() const;

 private:
  mutable std::mutex lock_;
  std::vector<TraceSample> samples_;
  bool active_ = false;
  std::int64_t beganNs_ = 0;
};

// The value of TestAxis and HeldAxis that names no axis.
inline constexpr std::uint32_t kNoAxis = 5;

// The direction of a run, and the index of its half in a test's result fields.
enum Direction : int { kNegative = 0, kPositive = 1 };
inline constexpr Direction kDirections[] = {kNegative, kPositive};

// The page as its test thread sees it. Axis numbers: 0 X, 1 Y, 2 Z, 3 Zoom.
class StagePage {
 public:
  virtual ~StagePage() = default;

  // --- Shared fields, named as the page has them ---
  std::atomic<std::int32_t> TestPosition{0};  // linear count of the unit under test (tick 1)
  std::atomic<std::int32_t> PreviousTestPosition{0};
  std::atomic<std::uint32_t> TestAxis{kNoAxis};  // none since ResetPage
  std::atomic<std::uint8_t> Sampling{0};         // tick 1 feeds TestPosition while set
  WakingFlag StopRequested;
  WakingFlag CachedEStop;  // from the 200 ms tick
  // No browser shows signs of life (see the main dialog's watch): a drive must end, and a run
  // that begins meanwhile stops at its first look, as on a stop request.
  WakingFlag Unwatched;
  std::atomic<std::uint32_t> VoltageChoice{0};  // 0 Standard, 1 High, 2 No Limit
  std::atomic<std::int32_t> BiasWritten{0};     // the bias of the last StoreAxisPid, for traces
  // The axis whose AxisPids entry a test thread holds right now (written by that thread), or
  // kNoAxis. ResetPage and the ticks leave that entry alone: the thread writes its own record
  // into it before each store and puts the saved one back when it hands the axis back.
  std::atomic<std::uint32_t> HeldAxis{kNoAxis};
  // The working copies of the tuning records of X, Y, Z and Zoom. While a test holds an axis only
  // its thread touches that entry.
  std::array<AxisPid, 4> AxisPids{};
  RunTrace Trace;
  OwedRecords Owed;

  // --- What kind of page ---
  virtual StageTestState& TestState() const = 0;
  virtual TestThreadGuard& ThreadGuard() = 0;
  // CTabV1StageDlg: longer holds in the axis test, no limit start dialog, its own seek band, the
  // zoom test.
  virtual bool FirstGeneration() const = 0;

  // --- Tuning records; nothing is sent before the page's first ResetPage ---
  virtual void LoadAxisPid(unsigned axis) = 0;  // board -> AxisPids[axis]
  // AxisPids[axis] -> board; false when the board did not take it (the link is down, the page
  // was never reset, or the calling thread is held to a link session that has ended).
  virtual bool StoreAxisPid(unsigned axis) = 0;
  virtual void SyncTestedAxis(unsigned axis) = 0;

  // --- The link ---
  // The link's session: 0 while the link is down, and a new number each time it comes back.
  virtual std::uint32_t LinkSession() = 0;
  // Holds the calling thread's transfers to `session` (0: any): once that session has ended,
  // they fail without reaching the board, so a run never drives an axis over a link that came
  // back without it knowing.
  virtual void HoldToSession(std::uint32_t /*session*/) {}
  // The serial number of the board the link reaches now ("" when it has none or cannot say).
  virtual std::string BoardSerial() = 0;
  // What the board's driver said it is when the link came up ("simulated servo"; "" when it
  // said nothing).
  virtual std::string BoardDescription() { return {}; }

  // --- The machine, from what the page read at construction ---
  virtual std::uint16_t MotorMaximum(unsigned axis) const = 0;
  virtual std::int32_t CountsPerMm(unsigned axis) const = 0;
  virtual const AxisExtents& Extents() const = 0;
  virtual bool PlatenPresent() const = 0;

  // --- Reads and moves the tests make themselves; results are not looked at ---
  virtual bool GetRotaryPosition(unsigned axis, std::int32_t& count) = 0;
  virtual bool MovePlaten(bool open) = 0;

  // --- Texts the thread writes and the page's 200 ms tick shows (thread-safe) ---
  virtual void SetRunningText(unsigned axis, const std::string& text) = 0;
  virtual void SetPlatenStatusText(const std::string& text) = 0;

  // --- The operator. Both block the calling (test) thread until answered ---
  // A message box: ui::kMbOk, kMbOkCancel or kMbYesNo; returns ui::kIdOk ... kIdNo.
  virtual int Ask(const std::string& text, unsigned style) = 0;
  virtual ui::ChoiceResult Choose(const ui::ChoiceDialog& dialog) = 0;

  // --- Where reports go (the program's folder, with its trailing separator) ---
  virtual std::string ReportFolder() const = 0;
  // The document's PlatenCount as the operator left it (read at a test button's click).
  virtual std::string PlatenCountText() const = 0;
  // The test thread has written its report (`path`, the .dat); for the page's event marks.
  virtual void ReportFiled(const std::string& /*path*/) {}
};

// The buttons that start a test.
enum class TestButton {
  kXAxis,
  kYAxis,
  kZAxis,
  kZoomAxis,
  kXLimit,
  kYLimit,
  kZLimit,
  kPlatenToggle,
  kPlatenTest,
};

// A start handler, on the UI thread: does nothing and returns false while Running is set;
// otherwise sets Running and the button's flags and TestAxis, and starts the test thread. A
// thread that cannot be started leaves the flags set (no test starts again until a restart).
// kZoomAxis on a page of the current family (which has no zoom button) returns false and changes
// nothing. PlatenTest reads PlatenCountText() here; a count the test cannot run (below 1, or
// above kMaxPlatenCycles) is refused by the test thread with a box, after which the flags clear.
bool StartTest(StagePage& page, TestButton button);

// The most cycles a platen test runs: about 70 days at 6 s a cycle, and 8 MB of samples.
inline constexpr std::int32_t kMaxPlatenCycles = 1000000;

// The name of the test that runs, for the window's STOP control ("X Axis Test", "Platen Test"),
// or "" when none.
std::string RunningTestName(const StagePage& page);

}  // namespace motion
