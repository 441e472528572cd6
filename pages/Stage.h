// The Stage page, tab 1 of every family: every axis at a glance (positions, index captures, limit
// switches, motion flags, e-stop, sleep), and the buttons that start the guided motion tests and
// stop them. It is also the sensor of those tests: its ticks copy the position and the switches of
// the unit under test into the fields that the test thread reads (motion/StageTest.h).
//
// The current and the first-generation pages are one class, StageDlg, over the table StageForm
// (document, zoom test, which block of test flags). The manual-vision page is read-only and has no
// tests. Everything but the motion::StagePage operations that the test thread calls runs on the UI
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>

#include "link/CTavroUsbServo.h"
#include "link/MachineImage.h"
#include "motion/StageTest.h"
#include "pages/CTabDlg.h"

namespace ui {
class Window;
}

struct StageForm {
  std::uint32_t htmlId;
  bool zoomTest;  // the ZoomAxisTest button and the RunningTestZoom text
  motion::StageTestState& (*testState)();
  bool firstGeneration;
};

inline constexpr StageForm kAutoVisionStage{.htmlId = 106,
                                            .zoomTest = false,
                                            .testState = &motion::AutoVisionTestState,
                                            .firstGeneration = false};
inline constexpr StageForm kV1Stage{.htmlId = 141,
                                    .zoomTest = true,
                                    .testState = &motion::FirstGenerationTestState,
                                    .firstGeneration = true};

// Slots of the per-axis arrays.
inline constexpr unsigned kStageSlots = 6;  // X, Y, Z, Zoom, W, platen
inline constexpr unsigned kWSlot = 4;
inline constexpr unsigned kPlatenSlot = 5;

// The longest PlatenCount text taken from a browser. A count has at most ten digits; the cut keeps
// a pasted novel from being echoed back to every browser on each push.
inline constexpr std::size_t kMaxPlatenCountText = 64;

class StageDlg : public CTabDlg, public motion::StagePage {
 public:
  // Reads the machine image and the axis extents. `window` asks the operator for the test threads.
  StageDlg(const StageForm& form, ui::Window& window, CTavroUsbServo* owner,
           const BoardVersionInfo& version);
  ~StageDlg() override;
  // Stops a running test and joins its thread; the boxes it may wait in are answered first.
  void EndThreads() override;

  void ResetPage(const BoardVersionInfo& record) override;
  void UpdatePage(std::uint32_t timerId, const ServoStatus& status) override;
  // Escape: stops the running test; with none there is nothing to cancel on a tab page.
  void OnCancel() override;

  // --- motion::StagePage ---
  motion::StageTestState& TestState() const override { return form_.testState(); }
  motion::TestThreadGuard& ThreadGuard() override { return threadGuard_; }
  bool FirstGeneration() const override { return form_.firstGeneration; }
  void LoadAxisPid(unsigned axis) override;
  bool StoreAxisPid(unsigned axis) override;
  void SyncTestedAxis(unsigned axis) override;
  std::uint32_t LinkSession() override { return controller->LinkSession(); }
  void HoldToSession(std::uint32_t session) override { CTavroUsb::HoldToSession(session); }
  std::string BoardSerial() override;
  std::string BoardDescription() override { return controller->Described(); }
  std::uint16_t MotorMaximum(unsigned axis) const override;
  std::int32_t CountsPerMm(unsigned axis) const override;
  const AxisExtents& Extents() const override { return extents_; }
  bool PlatenPresent() const override { return versionInfo.platenFitted; }
  bool GetRotaryPosition(unsigned axis, std::int32_t& count) override;
  bool MovePlaten(bool open) override;
  void SetRunningText(unsigned axis, const std::string& text) override;
  void SetPlatenStatusText(const std::string& text) override;
  int Ask(const std::string& text, unsigned style) override;
  ui::ChoiceResult Choose(const ui::ChoiceDialog& dialog) override;
  std::string ReportFolder() const override;
  std::string PlatenCountText() const override;
  void ReportFiled(const std::string& path) override;

  // Where the page keeps the records that runs still owe their axes (in the program's folder).
  static constexpr const char* kJournalName = "TavroTest.journal";

  // What tests look at.
  const EepromImage& Image() const { return MachineImage; }
  bool ImageRead() const { return imageRead_; }
  std::int32_t RotaryOf(unsigned slot) const { return Rotary[slot]; }

 protected:
  void DoDataExchange(DataExchange& dx) override;
  void AddChannels() override;

 private:
  // Reads the machine image under the board's mutex, waiting at most `lockMs` for it. On a
  // failure the image stays zeroed and a box says so; the next reset tries again.
  void ReadMachineImage(std::uint32_t lockMs);
  // Writes `record` to the axis; false when the board did not take it.
  bool WriteAxisPid(unsigned axis, const AxisPid& record);
  // Puts back, first thing after the link comes up, every record runs still owe this board's
  // axes; says so when they came from the journal of an earlier run.
  void PayOwedRecords();
  // Writes back the records of axes that LoadAxisPid found without their tuning (a board that
  // restarted, a take-over record a crash left), from what the page knew.
  void PutBackLostTuning();
  // Reads the axis's record from the board into AxisPids, unless it is a take-over record.
  void LoadOwnRecord(unsigned axis);
  // The poll's fields, on the poll's tick.
  void RecordStatus(const ServoStatus& status);
  // The test's start and end marks, and its bias on the 20 ms tick.
  void RecordTest();
  void ListEvents();
  void OnTestButton(motion::TestButton button);
  void OnClearSleep();
  void Tick20ms(const ServoStatus& status);
  void SetLimitFlags(std::int8_t limit);
  // The 200 ms steps; each returns whether the document needs the push. The read steps clear
  // Connected on a failed read.
  bool RefreshAxes(const ServoStatus& status);
  bool RefreshW(const ServoStatus& status);
  bool RefreshPlaten(const ServoStatus& status);
  bool RefreshStates(const ServoStatus& status);
  void Tick200ms(const ServoStatus& status);

  const StageForm& form_;
  ui::Window& window_;

  EepromImage MachineImage;
  AxisExtents extents_{};
  std::array<std::int32_t, kStageSlots> Linear{};
  std::array<std::int32_t, kStageSlots> Rotary{};
  std::array<std::int32_t, kStageSlots> Index{};
  std::array<std::uint8_t, kStageSlots> IndexValid{};
  std::atomic<std::uint8_t> PidReady{0};
  ServoStatus PreviousStatus{};
  std::array<std::string, kStageSlots> LimitText, MovingText, SettledText, StalledText, FailedText;
  std::string EStopText, SleepText;
  std::uint8_t CachedSleep = 0;
  std::uint8_t FirstSleepRefresh = 1;
  std::uint8_t CachedRunning = 0;
  std::string platenCount_;  // PlatenCount as the page last pushed or read it
  bool imageRead_ = false;   // the machine image was read; false: zeroed, retried on reset
  bool firstReset_ = true;
  std::array<bool, 4> tuningLost_{};  // LoadAxisPid kept the known record over all-zero gains
  // Records found in the journal at construction: an earlier run ended before handing back.
  std::size_t journalled_ = 0;
  // The board's serial number in the link session it was read in (serialLock_).
  std::mutex serialLock_;
  std::uint32_t serialSession_ = 0;
  std::string serial_;

  // The texts a test thread writes while the UI thread shows them.
  mutable std::mutex textLock_;
  std::array<std::string, 4> RunningText;  // X, Y, Z, Zoom
  std::string PlatenStatusText;

  motion::TestThreadGuard threadGuard_;

  // Recorded channels (UI thread), by slot where there is one.
  struct StatusChannels {
    std::array<recorder::ChannelId, 4> linear = NoChannels<4>();
    std::array<recorder::ChannelId, kStageSlots> limit = NoChannels<kStageSlots>();
    std::array<recorder::ChannelId, kStageSlots> moving = NoChannels<kStageSlots>();
    std::array<recorder::ChannelId, kStageSlots> settled = NoChannels<kStageSlots>();
    std::array<recorder::ChannelId, kStageSlots> stalled = NoChannels<kStageSlots>();
    std::array<recorder::ChannelId, 4> failed = NoChannels<4>();
    recorder::ChannelId estop = recorder::kNoChannel;
    recorder::ChannelId sleep = recorder::kNoChannel;
  } statusChannels_;
  std::array<recorder::ChannelId, kStageSlots> rotaryChannels_ = NoChannels<kStageSlots>();
  std::array<recorder::ChannelId, kStageSlots> indexChannels_ = NoChannels<kStageSlots>();
  recorder::ChannelId biasChannel_ = recorder::kNoChannel;
  bool markedRunning_ = false;  // a test-started mark waits for its end
  std::string lastReport_;      // the base name of the report the running test wrote (textLock_)
};

class CTabStageDlg final : public StageDlg {
 public:
  CTabStageDlg(ui::Window& window, CTavroUsbServo* owner, const BoardVersionInfo& version)
      : StageDlg(kAutoVisionStage, window, owner, version) {}
};

class CTabV1StageDlg final : public StageDlg {
 public:
  CTabV1StageDlg(ui::Window& window, CTavroUsbServo* owner, const BoardVersionInfo& version)
      : StageDlg(kV1Stage, window, owner, version) {}
};
