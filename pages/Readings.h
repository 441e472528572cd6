// The Readings page: the machine's temperatures and supply voltages once a second, each voltage
// on a background that says how far it stands from its nominal value (white, yellow above 5 %,
// red above 10 %). No events.
//
// One class template over the table ReadingsForm: the Auto Vision board and the manual-vision
// board differ in their document, and in the label, nominal voltage and divider of each of the
// sixteen converter channels. The first-generation family has no such page. UI thread only.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "pages/CTabDlg.h"

inline constexpr unsigned kTemperatureSensors = 8;
inline constexpr unsigned kVoltageChannels = 16;
// Every channel's converter counts this much at full scale.
inline constexpr double kConverterFullScale = 65535.0;

struct VoltageChannel {
  const char* label;  // as the document shows it; empty: the document has no label there
  double nominal;     // volts
  // The channel's divider in front of the converter; 0 for a spare input that shows its raw
  // count (its volts-per-count is exactly 1).
  double divider;
};

struct ReadingsForm {
  std::uint32_t htmlId;
  std::array<VoltageChannel, kVoltageChannels> channels;
};

inline constexpr ReadingsForm kAutoVisionReadings{
    .htmlId = 108,
    .channels = {{
        {.label = "Pendant 3.3V", .nominal = 3.3, .divider = 1},
        {.label = "Pendant 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "Pendant 5V", .nominal = 5.0, .divider = 0.7576},
        {.label = "Logic Board 12V", .nominal = 12.0, .divider = 0.8503},
        {.label = "FPGA Logic Power 1.2V", .nominal = 1.2, .divider = 0.3636},
        {.label = "FPGA AUX Power 2.5V", .nominal = 2.5, .divider = 0.7576},
        {.label = "Logic Board 5V", .nominal = 5.0, .divider = 0.9186},
        {.label = "Logic Board 3.3V", .nominal = 3.3, .divider = 1},
        {.label = "Expansion 1 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "Expansion 2 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "Probe/Zoom Board 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "Platen 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "Serial 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "Zoom Motor 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "CAN 24V", .nominal = 24.0, .divider = 0.9324},
        {.label = "Logic Board 24V", .nominal = 24.0, .divider = 0.9324},
    }},
};

inline constexpr ReadingsForm kManualVisionReadings{
    .htmlId = 115,
    .channels = {{
        {.label = "AUX 24V", .nominal = 24.0, .divider = 0.852},
        {.label = "Logic Board 5V", .nominal = 5.0, .divider = 0.788},
        {.label = "Probe/Zoom Board 24V", .nominal = 24.0, .divider = 0.852},
        {.label = "Logic Board 3.3V", .nominal = 3.3, .divider = 0.88},
        {.label = "VCC AUX 2.5V", .nominal = 2.5, .divider = 0.912},
        {.label = "Zoom Motor 24V", .nominal = 24.0, .divider = 0.852},
        {.label = "VCC Int 1.2V", .nominal = 1.2, .divider = 0.48},
        {.label = "Profile Sense", .nominal = 2.5, .divider = 0.88},
        {.label = "Unused", .nominal = 1.0, .divider = 0},
        {.label = "", .nominal = 1.0, .divider = 0},
        {.label = "", .nominal = 1.0, .divider = 0},
        {.label = "", .nominal = 1.0, .divider = 0},
        {.label = "", .nominal = 1.0, .divider = 0},
        {.label = "", .nominal = 1.0, .divider = 0},
        {.label = "", .nominal = 1.0, .divider = 0},
        {.label = "", .nominal = 1.0, .divider = 0},
    }},
};

// Volts for one raw count of a channel.
constexpr double VoltsPerCount(const VoltageChannel& c) {
  return c.divider == 0 ? 1.0 : c.nominal / (kConverterFullScale * c.divider);
}

// The background of a voltage by its deviation |volts - nominal| / nominal: red above 0.1,
// yellow above 0.05, else white. A value exactly at a limit takes the milder colour.
inline constexpr const char* kVoltageWhite = "#ffffff";
inline constexpr const char* kVoltageYellow = "#ffff00";
inline constexpr const char* kVoltageRed = "#ff0000";
const char* VoltageColour(double volts, double nominal);

// A temperature as shown: "%5.2lf C" of raw times scale, empty unless both are above 0.
std::string TemperatureText(std::int32_t raw, double scale);

template <class Base, const ReadingsForm& kForm>
class ReadingsPage : public Base {
 public:
  template <class Controller>
  ReadingsPage(Controller* owner, const BoardVersionInfo& version)
      : Base(103, kForm.htmlId, owner, version) {
    ShowLabels();
  }

  void ResetPage(const BoardVersionInfo& record) override;
  void UpdatePage(std::uint32_t timerId, const ServoStatus& status) override;

 protected:
  void DoDataExchange(DataExchange& dx) override;
  void AddChannels() override;

 private:
  void ShowLabels();
  // Reads one sensor into its text and records it; false on a failed read.
  template <class Read>
  bool ReadTemperature(Read read, std::int32_t& cached, std::string& text, bool& changed,
                       recorder::ChannelId channel);
  bool ReadVoltages(bool& changed);

  std::array<std::string, kTemperatureSensors> temperatureText;
  std::array<std::int32_t, kTemperatureSensors> temperatureRaw{};
  std::string wTemperatureText;
  std::int32_t wTemperatureRaw = 0;
  std::array<std::string, kVoltageChannels> voltageText;
  std::array<std::uint16_t, kVoltageChannels> voltageRaw{};

  std::array<recorder::ChannelId, kTemperatureSensors> temperatureChannels_ =
      NoChannels<kTemperatureSensors>();
  recorder::ChannelId wTemperatureChannel_ = recorder::kNoChannel;
  std::array<recorder::ChannelId, kVoltageChannels> voltageChannels_ =
      NoChannels<kVoltageChannels>();
};

class CTabReadingsDlg final : public ReadingsPage<CTabDlg, kAutoVisionReadings> {
 public:
  using ReadingsPage::ReadingsPage;
};

class CTabManualVisionReadingsDlg final
    : public ReadingsPage<CTabManualVisionDlg, kManualVisionReadings> {
 public:
  using ReadingsPage::ReadingsPage;
};

extern template class ReadingsPage<CTabDlg, kAutoVisionReadings>;
extern template class ReadingsPage<CTabManualVisionDlg, kManualVisionReadings>;
