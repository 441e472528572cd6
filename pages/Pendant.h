// The Pendant page: a live view of the hand pendant on servo machines, its buttons, joystick
// readings and deflections, accelerometer and the emergency stop, read every 200 ms while a
// browser shows the page. It only reads; it has no events.
//
// One class template over the table PendantForm: CTabPendantDlg (Auto Vision) shows eight buttons
// and reads the pendant each tick; CTabV1PendantDlg (first generation) shows two buttons on
// crossed inputs and reads nothing beyond the status record. UI thread only.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "link/CTavroUsbServo.h"
#include "pages/CTabDlg.h"

inline constexpr std::size_t kPendantButtons = 8;
inline constexpr std::size_t kPendantEntries = 4;  // of each reading; the fourth has no element

struct PendantButton {
  std::size_t input;  // index into the status record's Inputs
  const char* text;   // while the button is down
};

struct PendantForm {
  std::uint32_t htmlId;
  std::span<const PendantButton> buttons;
  // GetPendant each tick: readings, deflections and the accelerometer.
  bool readsPendant;
  // The joystick axes the document has elements for (X, Y, Z in that order).
  std::size_t joystickAxes;
  bool accelerometer;
};

inline constexpr PendantButton kAutoVisionButtons[] = {
    {0, "B 1"}, {1, "B 2"}, {2, "B 3"}, {3, "B 4"}, {4, "B 5"}, {5, "B 6"}, {6, "B 7"}, {7, "B 8"},
};
// The first generation's pendant wires its first button to input 3 and its second to input 2.
inline constexpr PendantButton kV1Buttons[] = {{3, "B 1"}, {2, "B 2"}};

inline constexpr PendantForm kAutoVisionPendant{.htmlId = 109,
                                                .buttons = kAutoVisionButtons,
                                                .readsPendant = true,
                                                .joystickAxes = 3,
                                                .accelerometer = true};
inline constexpr PendantForm kV1Pendant{.htmlId = 111,
                                        .buttons = kV1Buttons,
                                        .readsPendant = false,
                                        .joystickAxes = 2,
                                        .accelerometer = false};

// A deflection's two texts: "%d" in the positive one above 0, in the negative one (with its
// sign) below 0, both empty at 0.
struct DeflectionTexts {
  std::string positive;
  std::string negative;
};
DeflectionTexts DeflectionText(std::int32_t deflection);

template <const PendantForm& kForm>
class PendantPage : public CTabDlg {
 public:
  PendantPage(CTavroUsbServo* owner, const BoardVersionInfo& version)
      : CTabDlg(103, kForm.htmlId, owner, version) {}

  void ResetPage(const BoardVersionInfo& record) override;
  void UpdatePage(std::uint32_t timerId, const ServoStatus& status) override;

 protected:
  void DoDataExchange(DataExchange& dx) override;
  void AddChannels() override;

 private:
  bool ReadPendant(bool& changed);
  void RecordPendant();

  std::array<bool, kPendantButtons> buttonDown_{};
  std::array<std::string, kPendantButtons> buttonText_;
  bool estop_ = false;
  std::string estopText_;
  PendantState pendant_{};
  std::array<DeflectionTexts, kPendantEntries> deflectionText_;

  std::array<recorder::ChannelId, kPendantButtons> buttonChannels_ = NoChannels<kPendantButtons>();
  recorder::ChannelId estopChannel_ = recorder::kNoChannel;
  // Readings, deflections, accelerometer, by entry.
  std::array<recorder::ChannelId, kPendantEntries> readChannels_ = NoChannels<kPendantEntries>();
  std::array<recorder::ChannelId, kPendantEntries> deflectionChannels_ =
      NoChannels<kPendantEntries>();
  std::array<recorder::ChannelId, kPendantEntries> accelerometerChannels_ =
      NoChannels<kPendantEntries>();
};

class CTabPendantDlg final : public PendantPage<kAutoVisionPendant> {
 public:
  using PendantPage::PendantPage;
};

class CTabV1PendantDlg final : public PendantPage<kV1Pendant> {
 public:
  using PendantPage::PendantPage;
};

extern template class PendantPage<kAutoVisionPendant>;
extern template class PendantPage<kV1Pendant>;
