// What the Stage page does for its test thread: the tuning records and the records runs owe
// the axes, the machine's constants, the reads and moves a test makes itself, the texts it
// shows, and its operator.
#include "config/ErrorLog.h"
#include "config/Folders.h"
#include "pages/Stage.h"
#include "pages/StageParts.h"
#include "ui/MessageBox.h"
#include "ui/Window.h"

namespace {

// The operator's boxes carry the program's name, as the platform's plain boxes do.
constexpr const char* kBoxTitle = "TavroTest";

// The axis's name in the operator's words.
const char* AxisName(unsigned axis) {
  static const char* const kNames[] = {"X", "Y", "Z", "Zoom"};
  return axis < 4 ? kNames[axis] : "?";
}

}  // namespace

void StageDlg::LoadAxisPid(unsigned axis) {
  if (axis >= 4 || !PidReady) return;
  AxisPid read;
  if (!controller->GetAxisPid(static_cast<std::uint16_t>(axis), read)) return;
  // A record with every gain zero is no axis's own: a take-over record that a lost link left on
  // the board, or what a board that restarted came up with. The page keeps the record it knew,
  // and its reset puts that back on the board. (With none known it has nothing better; a run
  // then hands the axis back without its bias.)
  const AxisPid& known = AxisPids[axis];
  const bool takeOver = read.Kp == 0 && read.Kd == 0 && read.Ki == 0;
  if (takeOver && (known.Kp != 0 || known.Kd != 0 || known.Ki != 0)) {
    tuningLost_[axis] = true;
    return;
  }
  AxisPids[axis] = read;
}

void StageDlg::PutBackLostTuning() {
  for (unsigned axis = 0; axis < 4; ++axis) {
    if (!tuningLost_[axis] || axis == HeldAxis) continue;
    tuningLost_[axis] = false;
    if (!WriteAxisPid(axis, AxisPids[axis])) return;  // down again: the next reset finds it
    controller->SyncAxis(static_cast<std::uint16_t>(axis));
    ErrorLog("StageTests.cpp", __LINE__)("Stage: axis %s found without its tuning; put back\r\n",
                                         AxisName(axis));
  }
}

bool StageDlg::StoreAxisPid(unsigned axis) {
  if (axis >= 4 || !PidReady) return false;
  BiasWritten = AxisPids[axis].Mb;
  return WriteAxisPid(axis, AxisPids[axis]);
}

bool StageDlg::WriteAxisPid(unsigned axis, const AxisPid& record) {
  return controller->SetAxisPid(static_cast<std::uint16_t>(axis), record);
}

std::string StageDlg::BoardSerial() {
  const std::uint32_t session = LinkSession();
  std::lock_guard lock(serialLock_);
  if (session != 0 && session != serialSession_) {
    BoardIdentity identity;
    if (controller->ReadBoardIdentity(identity)) {
      serial_ = identity.serialNumber;
      serialSession_ = session;
    }
  }
  return serial_;
}

void StageDlg::PayOwedRecords() {
  if (Owed.Empty()) return;
  const std::string board = BoardSerial();
  std::string paid;
  for (const motion::OwedRecords::Entry& e : Owed.OwedTo(board)) {
    if (!WriteAxisPid(e.axis, e.record)) return;  // down again: owed until the next reset
    controller->SyncAxis(static_cast<std::uint16_t>(e.axis));
    Owed.Paid(board, e.axis);
    paid += std::string(paid.empty() ? "" : ", ") + AxisName(e.axis);
  }
  if (journalled_ == 0 || paid.empty()) return;
  journalled_ = 0;
  ErrorLog("Stage.cpp", __LINE__)("Motion test journal: %s handed back at start\r\n", paid.c_str());
  window_.ShowBoxAsync(
      "The last run of TavroTest ended during a motion test, before it could "
      "hand the axis back. Axis " +
          paid +
          " now has its own settings again.\r\n\r\nCheck that the stage "
          "stands where it should before you go on.",
      kBoxTitle, ui::kMbOk, {});
}

void StageDlg::SyncTestedAxis(unsigned axis) {
  if (axis < 4 && PidReady) controller->SyncAxis(static_cast<std::uint16_t>(axis));
}

std::uint16_t StageDlg::MotorMaximum(unsigned axis) const {
  return axis < 4 ? MachineImage.MotorMaximum(axis) : 0;
}

std::int32_t StageDlg::CountsPerMm(unsigned axis) const {
  return axis < 4 ? MachineImage.CountsPerMm(axis) : 0;
}

bool StageDlg::GetRotaryPosition(unsigned axis, std::int32_t& count) {
  std::uint32_t raw = 0;
  if (axis >= 4 || !controller->GetRotaryPosition(static_cast<std::uint16_t>(axis), raw)) {
    return false;
  }
  count = static_cast<std::int32_t>(raw);
  return true;
}

bool StageDlg::MovePlaten(bool open) {
  CTavroUsbPlaten& platen = *controller;
  return platen.MovePlaten(open ? 1 : 0);
}

void StageDlg::SetRunningText(unsigned axis, const std::string& text) {
  if (axis >= RunningText.size()) return;
  std::lock_guard lock(textLock_);
  RunningText[axis] = text;
}

void StageDlg::SetPlatenStatusText(const std::string& text) {
  std::lock_guard lock(textLock_);
  PlatenStatusText = text;
}

// The operator's answers are marked on the recorder's time axis, beside what the test did.
int StageDlg::Ask(const std::string& text, unsigned style) {
  const int answer = ui::MessageBox(text, kBoxTitle, style);
  recording.Mark(recorder::EventKind::kAnswer, AnswerName(answer));
  return answer;
}

ui::ChoiceResult StageDlg::Choose(const ui::ChoiceDialog& dialog) {
  const ui::ChoiceResult result = window_.ShowChoice(dialog);
  std::string text = AnswerName(result.result);
  if (result.result == ui::kIdOk && result.choice >= 0 &&
      static_cast<std::size_t>(result.choice) < dialog.options.size()) {
    text += ": " + dialog.options[static_cast<std::size_t>(result.choice)];
  }
  recording.Mark(recorder::EventKind::kAnswer, text);
  return result;
}

void StageDlg::ReportFiled(const std::string& path) {
  std::string base = path.substr(path.find_last_of('/') + 1);
  if (base.size() > 4 && base.compare(base.size() - 4, 4, ".dat") == 0)
    base.resize(base.size() - 4);
  std::lock_guard lock(textLock_);
  lastReport_ = std::move(base);
}

std::string StageDlg::ReportFolder() const {
  return config::GetProgramFolder();
}

std::string StageDlg::PlatenCountText() const {
  std::lock_guard lock(textLock_);
  return platenCount_;
}
