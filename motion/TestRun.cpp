#include "motion/TestRun.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "config/ErrorLog.h"
#include "motion/TestTexts.h"
#include "platform/Clock.h"
#include "ui/MessageBox.h"
#include "util/Text.h"

namespace motion {

const FamilyRules& RulesOf(const StagePage& page) {
  return page.FirstGeneration() ? kFirstGenerationRules : kCurrentRules;
}

std::int32_t VoltageLimit(std::uint16_t motorMaximum, std::uint32_t choice) {
  std::int32_t limit = static_cast<std::int32_t>(motorMaximum) - kRampStep;
  if (choice == 0) {
    limit /= 4;
  } else if (choice == 1) {
    limit /= 2;
  }
  return std::min<std::int32_t>(limit, std::numeric_limits<std::int16_t>::max());
}

std::int64_t DistanceScale(std::int32_t countsPerMm) {
  return countsPerMm > 0 ? countsPerMm : kFallbackCountsPerMm;
}

std::string AxisLetter(unsigned axis) {
  static const char* const kLetters[] = {"X", "Y", "Z"};
  return axis < 3 ? kLetters[axis] : "0";
}

ui::ChoiceDialog MakeStartDialog(StartDialog which) {
  ui::ChoiceDialog dialog{.title = "Dialog",
                          .texts = {},
                          .group = "Voltage Limit",
                          .options = {"Standard", "High", "No Limit"},
                          .initial = 0};
  switch (which) {
    case StartDialog::kAxis:
      dialog.texts = {texts::Get(texts::kAxisStartDirection), texts::Get(texts::kAxisStartStop),
                      texts::Get(texts::kAxisStartAdvice)};
      break;
    case StartDialog::kLimit:
      dialog.texts = {texts::Get(texts::kLimitStartDirection),
                      texts::Get(texts::kLimitStartPosition), texts::Get(texts::kLimitStartAdvice)};
      break;
    case StartDialog::kZoom:
      dialog.texts = {texts::Get(texts::kZoomStartDirection), texts::Get(texts::kZoomStartAdvice)};
      break;
  }
  return dialog;
}

void AskStart(StagePage& page, StartDialog which) {
  ui::ChoiceDialog dialog = MakeStartDialog(which);
  // The dialog is titled with the test it starts, so that the question is never anonymous.
  if (std::string name = RunningTestName(page); !name.empty()) dialog.title = std::move(name);
  const ui::ChoiceResult answer = page.Choose(dialog);
  const bool ok = answer.result == ui::kIdOk;
  page.TestState().MessageResult = ok ? ui::kIdOk : ui::kIdCancel;
  // The dialog's field keeps its initial 0 unless OK took the choice; a choice outside the
  // group's three counts as No Limit, as any value above High does.
  page.VoltageChoice = ok && answer.choice >= 0 ? static_cast<std::uint32_t>(answer.choice) : 0;
}

void SleepMs(std::int64_t ms) {
  platform::Clock::Current().SleepFor(platform::Milliseconds(ms));
}

int YesNoAnswer(int answer) {
  return answer == ui::kIdYes ? ui::kIdYes : ui::kIdNo;
}

AxisRun::AxisRun(StagePage& page, unsigned axis, std::uint32_t voltageChoice)
    : page_(page), axis_(axis), voltageChoice_(voltageChoice) {}

AxisRun::~AxisRun() {
  if (held_) Release();
}

bool AxisRun::TakeOver() {
  if (QuitRequested()) return false;
  session_ = page_.LinkSession();
  if (session_ == 0) return false;  // no link: the run cannot begin, and nothing is driven
  page_.HoldToSession(session_);
  board_ = page_.BoardSerial();
  saved_ = page_.AxisPids[axis_];
  restore_ = saved_;
  // A record with every gain zero is no axis's own (a take-over record that a lost link left on
  // the board): its bias put back would drive the axis open loop, so the hand-back writes it
  // with no bias.
  if (saved_.Kp == 0 && saved_.Kd == 0 && saved_.Ki == 0) restore_.Mb = 0;
  // Owed before the first write of the take-over: from here on a loss of the link, the program
  // or the computer leaves the record to be put back.
  if (!page_.Owed.Owe(board_, axis_, restore_)) {
    ErrorLog("TestRun.cpp", __LINE__)("Motion test: the axis journal could not be written\r\n");
  }
  if (!page_.Trace.Active()) page_.Trace.Begin();
  page_.HeldAxis = axis_;
  page_.TestAxis = axis_;
  // Nothing of another unit (the platen's count after its test) may pass for this axis's start.
  page_.TestPosition = 0;
  page_.Sampling = 1;
  page_.StopRequested = 0;
  held_ = true;
  limit_ = VoltageLimit(page_.MotorMaximum(axis_), voltageChoice_);
  // All gains zero and the bias 0: the motor gets no drive until the ramp writes one.
  work_ = AxisPid{};
  work_.Dt = 1;
  work_.Kout = 65535;
  work_.Fe = 2147483647;
  if (!WriteBias(0)) {
    // The board did not take the take-over: the run does not happen. The record stays owed, so
    // whatever part of it reached the board is undone when the link is back.
    Release();
    return false;
  }
  ShowMb(0);
  // A first sample of this axis from the 20 ms tick (TestPosition was just set to 0), waited for
  // in full even when a stop is pending: the run's start position must be a real one.
  SleepMs(100);
  lastPosition_ = page_.TestPosition;
  return true;
}

bool AxisRun::Sampled() const {
  return page_.Sampling.load() != 0 && page_.TestAxis.load() == axis_;
}

void AxisRun::Resample() {
  page_.TestAxis = axis_;
  page_.Sampling = 1;
}

std::int32_t AxisRun::Position() {
  if (!Sampled()) {
    Resample();
    return lastPosition_;
  }
  const std::int32_t position = page_.TestPosition;
  // A reset that came while reading may have cleared the value just read.
  if (!Sampled()) {
    Resample();
    return lastPosition_;
  }
  lastPosition_ = position;
  return position;
}

bool AxisRun::WriteBias(std::int32_t bias) {
  const std::int32_t clamped = std::clamp<std::int32_t>(
      bias, std::numeric_limits<std::int16_t>::min(), std::numeric_limits<std::int16_t>::max());
  work_.Mb = static_cast<std::int16_t>(clamped);
  page_.AxisPids[axis_] = work_;
  page_.BiasWritten = clamped;
  if (!page_.StoreAxisPid(axis_)) linkLost_ = true;
  return !linkLost_;
}

void AxisRun::ShowMb(std::int32_t mb) {
  page_.SetRunningText(axis_, text::Format("MB: %d", mb));
}

bool AxisRun::Drive(Direction direction, std::int32_t mb) {
  if (LinkLost()) return false;
  const bool written = WriteBias(direction == kNegative ? -mb : mb);
  ShowMb(mb);
  return written;
}

bool AxisRun::StopPending() {
  if (page_.CachedEStop || page_.Unwatched) page_.StopRequested = 1;
  return page_.StopRequested != 0;
}

bool AxisRun::QuitRequested() const {
  return page_.ThreadGuard().IsQuitRequested();
}

bool AxisRun::LinkLost() {
  if (!linkLost_ && page_.LinkSession() != session_) linkLost_ = true;
  return linkLost_;
}

bool AxisRun::DriveMustEnd() {
  return page_.StopRequested || page_.CachedEStop || page_.Unwatched || QuitRequested() ||
         page_.LinkSession() != session_;
}

void AxisRun::Pass(std::int64_t ms) {
  platform::Clock& clock = platform::Clock::Current();
  std::unique_lock lock(passLock_);
  clock.WaitUntil(lock, clock.Deadline(platform::Milliseconds(ms)),
                  [this] { return DriveMustEnd(); });
}

RampEnd AxisRun::RunRamp(const Ramp& ramp, std::int32_t reference, Direction direction,
                         std::int32_t& mb) {
  int hold = ramp.holds.start;
  while (mb < limit_) {
    if (!Drive(direction, mb)) return RampEnd::kLinkLost;
    for (int pass = 0; pass < hold; ++pass) {
      Pass(100);
      if (LinkLost()) return RampEnd::kLinkLost;
      const std::int64_t d = std::llabs(static_cast<std::int64_t>(Position()) - reference);
      if (d > ramp.target) return RampEnd::kArrived;
      // Once the unit is seen to move, every later step is held longer.
      if (d > ramp.moving) hold = ramp.holds.moving;
      if (StopPending()) return RampEnd::kStopped;
      if (QuitRequested()) return RampEnd::kQuit;
    }
    mb += kRampStep;
  }
  return RampEnd::kLimit;
}

void AxisRun::Restore(std::int32_t mb) {
  page_.AxisPids[axis_] = restore_;
  page_.BiasWritten = restore_.Mb;
  // The page's reset may have put the record back already, in a session this run is not held
  // to; then there is nothing left to do.
  if (page_.Owed.Find(board_, axis_) && page_.StoreAxisPid(axis_)) page_.Owed.Paid(board_, axis_);
  ShowMb(mb);
}

void AxisRun::Settle() {
  SleepMs(500);
  page_.SyncTestedAxis(axis_);
}

void AxisRun::Release() {
  page_.Sampling = 0;
  page_.TestPosition = 0;
  page_.HeldAxis = kNoAxis;
  page_.HoldToSession(0);
  held_ = false;
}

}  // namespace motion
