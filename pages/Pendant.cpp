#include "pages/Pendant.h"

#include "util/Text.h"

namespace {

constexpr const char* kAxisNames[] = {"X", "Y", "Z"};

}  // namespace

static_assert(std::size(kAutoVisionButtons) <= kPendantButtons);
static_assert(std::size(kV1Buttons) <= kPendantButtons);
static_assert(kAutoVisionPendant.joystickAxes <= std::size(kAxisNames));

DeflectionTexts DeflectionText(std::int32_t deflection) {
  if (deflection > 0) return {.positive = text::Format("%d", deflection), .negative = {}};
  if (deflection < 0) return {.positive = {}, .negative = text::Format("%d", deflection)};
  return {};
}

template <const PendantForm& kForm>
void PendantPage<kForm>::ResetPage(const BoardVersionInfo& record) {
  Connected = true;
  versionInfo = record;
  estop_ = false;
  estopText_.clear();
  buttonDown_.fill(false);
  for (auto& t : buttonText_)
    t.clear();
  pendant_ = PendantState{};
  deflectionText_.fill(DeflectionTexts{});
  if (PageReady) UpdateData();
}

template <const PendantForm& kForm>
void PendantPage<kForm>::UpdatePage(std::uint32_t timerId, const ServoStatus& status) {
  TickGuard guard(*this);
  if (!guard.Entered() || timerId != TickId(Tick::k200ms) || !Connected || !PageReady) return;
  recording.Record(estopChannel_, status.EStop);
  for (std::size_t i = 0; i < kForm.buttons.size(); ++i)
    recording.Record(buttonChannels_[i], status.Inputs[kForm.buttons[i].input]);
  bool changed = false;
  if (status.EStop != estop_) {
    estop_ = status.EStop;
    estopText_ = estop_ ? "EStop" : "";
    changed = true;
  }
  for (std::size_t i = 0; i < kForm.buttons.size(); ++i) {
    const PendantButton& b = kForm.buttons[i];
    const bool down = status.Inputs[b.input];
    if (down == buttonDown_[i]) continue;
    buttonDown_[i] = down;
    buttonText_[i] = down ? b.text : "";
    changed = true;
  }
  if constexpr (kForm.readsPendant) {
    // A failed read shows nothing of this tick, not even the buttons found changed before it.
    if (!ReadPendant(changed)) return;
    RecordPendant();
  }
  if (changed) UpdateData();
}

template <const PendantForm& kForm>
bool PendantPage<kForm>::ReadPendant(bool& changed) {
  PendantState fresh;
  if (!controller->GetPendant(fresh)) {
    Connected = false;
    return false;
  }
  for (std::size_t i = 0; i < kPendantEntries; ++i) {
    if (fresh.PendantRead[i] != pendant_.PendantRead[i]) {
      pendant_.PendantRead[i] = fresh.PendantRead[i];
      changed = true;
    }
    if (fresh.PendantPos[i] != pendant_.PendantPos[i]) {
      pendant_.PendantPos[i] = fresh.PendantPos[i];
      deflectionText_[i] = DeflectionText(fresh.PendantPos[i]);
      changed = true;
    }
    if (fresh.Accelerometer[i] != pendant_.Accelerometer[i]) {
      pendant_.Accelerometer[i] = fresh.Accelerometer[i];
      changed = true;
    }
  }
  return true;
}

template <const PendantForm& kForm>
void PendantPage<kForm>::DoDataExchange(DataExchange& dx) {
  for (std::size_t i = 0; i < kForm.buttons.size(); ++i)
    dx.Text(IndexedId("PenButton", static_cast<unsigned>(i + 1), false), buttonText_[i]);
  for (std::size_t i = 0; i < kForm.joystickAxes; ++i) {
    const std::string axis = kAxisNames[i];
    dx.Text("PendantRead" + axis, pendant_.PendantRead[i]);
    dx.Text("PendantPos" + axis + "Pos", deflectionText_[i].positive);
    dx.Text("PendantPos" + axis + "Neg", deflectionText_[i].negative);
  }
  if constexpr (kForm.accelerometer) {
    // The board sends a word; the accelerometer's reading is signed.
    for (std::size_t i = 0; i < std::size(kAxisNames); ++i) {
      dx.Text("AccelerometerPos" + std::string(kAxisNames[i]),
              static_cast<std::int16_t>(pendant_.Accelerometer[i]));
    }
  }
  dx.Text("EStop", estopText_);
}

template <const PendantForm& kForm>
void PendantPage<kForm>::AddChannels() {
  using recorder::ValueKind;
  for (std::size_t i = 0; i < kForm.buttons.size(); ++i) {
    const std::string id = IndexedId("PenButton", static_cast<unsigned>(i + 1), false);
    buttonChannels_[i] =
        recording.Add("pendant.Button" + std::to_string(i + 1), kTick200ms, ValueKind::kFlag, id);
  }
  estopChannel_ = recording.Add("pendant.EStop", kTick200ms, ValueKind::kFlag, "EStop");
  if constexpr (kForm.readsPendant) {
    for (std::size_t i = 0; i < kForm.joystickAxes; ++i) {
      const std::string axis = kAxisNames[i];
      readChannels_[i] = recording.Add("pendant.Read." + axis, kTick200ms, ValueKind::kInt32,
                                       "PendantRead" + axis);
      // One channel for both directions; the element of the positive one stands for it.
      deflectionChannels_[i] = recording.Add("pendant.Deflection." + axis, kTick200ms,
                                             ValueKind::kInt32, "PendantPos" + axis + "Pos");
    }
    if constexpr (kForm.accelerometer) {
      for (std::size_t i = 0; i < std::size(kAxisNames); ++i) {
        const std::string axis = kAxisNames[i];
        accelerometerChannels_[i] = recording.Add("pendant.Accelerometer." + axis, kTick200ms,
                                                  ValueKind::kInt16, "AccelerometerPos" + axis);
      }
    }
  }
}

template <const PendantForm& kForm>
void PendantPage<kForm>::RecordPendant() {
  for (std::size_t i = 0; i < kPendantEntries; ++i) {
    recording.Record(readChannels_[i], pendant_.PendantRead[i]);
    recording.Record(deflectionChannels_[i], pendant_.PendantPos[i]);
    // The board sends a word; the accelerometer's reading is signed.
    recording.Record(accelerometerChannels_[i],
                     static_cast<std::int16_t>(pendant_.Accelerometer[i]));
  }
}

template class PendantPage<kAutoVisionPendant>;
template class PendantPage<kV1Pendant>;
