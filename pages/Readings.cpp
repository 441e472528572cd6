#include "pages/Readings.h"

#include <cmath>

#include "util/Text.h"

const char* VoltageColour(double volts, double nominal) {
  const double error = std::fabs((volts - nominal) / nominal);
  if (error > 0.1) return kVoltageRed;
  if (error > 0.05) return kVoltageYellow;
  return kVoltageWhite;
}

std::string TemperatureText(std::int32_t raw, double scale) {
  if (raw <= 0 || scale <= 0.0) return {};
  return text::Format("%5.2lf C", raw * scale);
}

template <class Base, const ReadingsForm& kForm>
void ReadingsPage<Base, kForm>::ShowLabels() {
  // The labels are the table's: one place says what each channel is.
  for (unsigned i = 0; i < kVoltageChannels; ++i)
    this->Doc().SetText(IndexedId("AnalogLabel", i, false), kForm.channels[i].label);
}

template <class Base, const ReadingsForm& kForm>
void ReadingsPage<Base, kForm>::ResetPage(const BoardVersionInfo& record) {
  this->Connected = true;
  this->versionInfo = record;
  // Cleared so that the first tick repaints every reading; the colours stay until then.
  temperatureRaw.fill(0);
  wTemperatureRaw = 0;
  voltageRaw.fill(0);
  for (auto& t : temperatureText)
    t.clear();
  wTemperatureText.clear();
  for (auto& t : voltageText)
    t.clear();
  if (this->PageReady) this->UpdateData();
}

template <class Base, const ReadingsForm& kForm>
void ReadingsPage<Base, kForm>::UpdatePage(std::uint32_t timerId, const ServoStatus& /*status*/) {
  typename Base::TickGuard guard(*this);
  if (!guard.Entered() || timerId != TickId(Tick::k1s) || !this->Connected || !this->PageReady)
    return;
  bool changed = false;
  auto& board = *this->controller;
  for (unsigned sensor = 0; sensor < kTemperatureSensors; ++sensor) {
    const auto read = [&](std::int32_t& raw, double& scale) {
      return board.GetTemperature(sensor, raw, scale);
    };
    if (!ReadTemperature(read, temperatureRaw[sensor], temperatureText[sensor], changed,
                         temperatureChannels_[sensor])) {
      break;
    }
  }
  // A failed read ends the update: what was read is kept, but nothing goes to the document.
  if (!this->Connected) return;
  if (this->versionInfo.hasWAxis) {
    CTavroUsbWAxis& w = board;
    const auto read = [&](std::int32_t& raw, double& scale) {
      return w.GetTemperature(raw, scale);
    };
    if (!ReadTemperature(read, wTemperatureRaw, wTemperatureText, changed, wTemperatureChannel_)) {
      return;
    }
  }
  if (!ReadVoltages(changed)) return;
  if (changed) this->UpdateData();
}

template <class Base, const ReadingsForm& kForm>
template <class Read>
bool ReadingsPage<Base, kForm>::ReadTemperature(Read read, std::int32_t& cached, std::string& text,
                                                bool& changed, recorder::ChannelId channel) {
  std::int32_t raw = 0;
  double scale = 0.0;
  if (!read(raw, scale)) {
    this->Connected = false;
    return false;
  }
  // A sensor that shows nothing (no reading) records nothing.
  if (raw > 0 && scale > 0.0) this->recording.Record(channel, raw * scale);
  if (raw != cached) {
    changed = true;
    text = TemperatureText(raw, scale);
    cached = raw;
  }
  return true;
}

template <class Base, const ReadingsForm& kForm>
bool ReadingsPage<Base, kForm>::ReadVoltages(bool& changed) {
  std::uint16_t words[kVoltageChannels] = {};
  if (!this->controller->GetAnalogInputs(words)) {
    this->Connected = false;
    return false;
  }
  for (unsigned i = 0; i < kVoltageChannels; ++i) {
    this->recording.Record(voltageChannels_[i], words[i] * VoltsPerCount(kForm.channels[i]));
    if (words[i] == voltageRaw[i]) continue;
    changed = true;
    const VoltageChannel& channel = kForm.channels[i];
    const double volts = words[i] * VoltsPerCount(channel);
    // The colour goes to the element at once; it is not one of the page's bindings.
    this->Doc().SetBackground(IndexedId("Analog", i, false), VoltageColour(volts, channel.nominal));
    voltageText[i] = text::Format("%5.2lf", volts);
    voltageRaw[i] = words[i];
  }
  return true;
}

template <class Base, const ReadingsForm& kForm>
void ReadingsPage<Base, kForm>::DoDataExchange(DataExchange& dx) {
  for (unsigned i = 0; i < kTemperatureSensors; ++i)
    dx.Text(IndexedId("Temp", i, false), temperatureText[i]);
  if (this->versionInfo.hasWAxis) dx.Text("TempW", wTemperatureText);
  for (unsigned i = 0; i < kVoltageChannels; ++i)
    dx.Text(IndexedId("Analog", i, false), voltageText[i]);
}

template <class Base, const ReadingsForm& kForm>
void ReadingsPage<Base, kForm>::AddChannels() {
  using recorder::ValueKind;
  for (unsigned i = 0; i < kTemperatureSensors; ++i) {
    temperatureChannels_[i] =
        this->recording.Add("readings.Temperature" + std::to_string(i), kTick1s, ValueKind::kFloat,
                            IndexedId("Temp", i, false),
                            "\xC2\xB0"
                            "C");
  }
  if (this->versionInfo.hasWAxis) {
    wTemperatureChannel_ =
        this->recording.Add("readings.TemperatureW", kTick1s, ValueKind::kFloat, "TempW",
                            "\xC2\xB0"
                            "C");
  }
  for (unsigned i = 0; i < kVoltageChannels; ++i) {
    // A spare input shows its converter's count.
    voltageChannels_[i] = this->recording.Add("readings.Analog" + std::to_string(i), kTick1s,
                                              ValueKind::kFloat, IndexedId("Analog", i, false),
                                              kForm.channels[i].divider == 0 ? "" : "V");
  }
}

template class ReadingsPage<CTabDlg, kAutoVisionReadings>;
template class ReadingsPage<CTabManualVisionDlg, kManualVisionReadings>;
