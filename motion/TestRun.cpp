#include "motion/TestRun.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

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
  const ui::ChoiceResult answer = page.Choose(MakeStartDialog(which));
  const bool ok = answer.result == ui::kIdOk;
  page.TestState().MessageResult = ok ? 1 : 2;
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

bool AxisRun::TakeOver() {
  if (QuitRequested()) return false;
  if (!page_.Trace.Active()) page_.Trace.Begin();
  page_.HeldAxis = axis_;
  page_.TestAxis = axis_;
  page_.Sampling = 1;
  page_.StopRequested = 0;
  saved_ = page_.AxisPids[axis_];
  limit_ = VoltageLimit(page_.MotorMaximum(axis_), voltageChoice_);
  // All gains zero and the bias 0: the motor gets no drive until the ramp writes one.
  work_ = AxisPid{};
  work_.Dt = 1;
  work_.Kout = 65535;
  work_.Fe = 2147483647;
  WriteBias(0);
  ShowMb(0);
  if (page_.TestPosition == 0) SleepMs(100);
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

void AxisRun::WriteBias(std::int32_t bias) {
  const std::int32_t clamped = std::clamp<std::int32_t>(
      bias, std::numeric_limits<std::int16_t>::min(), std::numeric_limits<std::int16_t>::max());
  work_.Mb = static_cast<std::int16_t>(clamped);
  page_.AxisPids[axis_] = work_;
  page_.BiasWritten = clamped;
  page_.StoreAxisPid(axis_);
}

void AxisRun::ShowMb(std::int32_t mb) {
  page_.SetRunningText(axis_, text::Format("MB: %d", mb));
}

void AxisRun::Drive(int direction, std::int32_t mb) {
  WriteBias(direction == 0 ? -mb : mb);
  ShowMb(mb);
}

bool AxisRun::StopPending() {
  if (page_.CachedEStop) page_.StopRequested = 1;
  return page_.StopRequested != 0;
}

bool AxisRun::QuitRequested() const {
  return page_.ThreadGuard().IsQuitRequested();
}

bool AxisRun::RunRamp(const Ramp& ramp, std::int32_t reference, int direction, std::int32_t& mb) {
  int hold = ramp.holds.start;
  bool arrived = false;
  bool quit = false;
  while (mb < limit_ && !quit) {
    Drive(direction, mb);
    for (int pass = 0; pass < hold && !quit; ++pass) {
      SleepMs(100);
      const std::int64_t d = std::llabs(static_cast<std::int64_t>(Position()) - reference);
      if (d > ramp.target) {
        arrived = true;
        break;
      }
      // Once the unit is seen to move, every later step is held longer.
      if (d > ramp.moving) hold = ramp.holds.moving;
      if (StopPending()) {
        arrived = true;
        break;
      }
      quit = QuitRequested();
    }
    if (arrived || quit) break;
    mb += kRampStep;
  }
  return arrived;
}

void AxisRun::Restore(std::int32_t mb) {
  page_.AxisPids[axis_] = saved_;
  page_.BiasWritten = saved_.Mb;
  page_.StoreAxisPid(axis_);
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
}

}  // namespace motion
