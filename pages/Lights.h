// The Lights page: the machine's illumination by hand. Each light channel has a maximum; the
// last channel is the coaxial light, the one before it the profile light, all others form the
// surface light. The operator sets each group with a slider or a raw number, or runs a cycle that
// ramps the channels up and down on the 20 ms tick so that each can be seen to work. On the
// current family the page also switches the status light and writes the raw LED and pendant
// words. Every 5 seconds it looks whether the board's count of channels has changed.
//
// One class template over the table LightsForm: CTabLightsDlg (Auto Vision), CTabV1LightsDlg
// (first generation) and CTabManualVisionLightsDlg. UI thread only.
//
// A slider reports every position while it is dragged. The page sends the first position of a
// tick at once and holds the later ones: at most one command a slider group per 20 ms tick goes
// to the board, and the last position held goes out on the next tick.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "pages/CTabDlg.h"

// The page's per-channel fields hold this many entries. A board may report more (the count is a
// byte); channels at or above it are never read, driven or indexed, and a profile or coaxial
// channel up there shows a maximum of 0 and does nothing.
inline constexpr std::uint32_t kLightChannels = 42;
// Ticks of 200 ms between two looks at the count of channels (5 s).
inline constexpr std::uint32_t kChannelRecheckTicks = 25;

struct LightsForm {
  std::uint32_t templateId;
  std::uint32_t htmlId;
  // The status light buttons, the raw LED and pendant rows and their three sliders.
  bool statusLights;
  // ResetPage pushes the fields to the document when a browser shows the page.
  bool resetPushes;
};

inline constexpr LightsForm kAutoVisionLights{
    .templateId = 116, .htmlId = 107, .statusLights = true, .resetPushes = false};
inline constexpr LightsForm kV1Lights{
    .templateId = 118, .htmlId = 117, .statusLights = false, .resetPushes = true};
inline constexpr LightsForm kManualVisionLights{
    .templateId = 119, .htmlId = 117, .statusLights = false, .resetPushes = true};

// The sliders by their dialog control ids, and their elements in the document.
enum class LightSlider : std::uint32_t {
  kLedWord1 = 1001,
  kLedWord2 = 1002,
  kPendantWord = 1003,
  kProfile = 1004,
  kCoax = 1005,
  kSurface = 1006,
};
const char* SliderElement(LightSlider slider);

// One channel's part of a cycle, in 20 ms ticks: it is dark for `Delay` ticks, ramps up and down
// over `Ramp` ticks, and the channel's cycle ends after `Total`.
struct CycleShape {
  std::uint32_t Total = 0;
  std::uint32_t Ramp = 0;
  std::uint32_t Delay = 0;
};

// How a cycle groups its channels: all at once, by ring of eight (channel / 8) or by octant
// (channel modulo 8). A group's row of the cycle's table gives its shape.
enum class CycleGrouping { kTogether, kRing, kOctant };

// The value a cycle sends on tick `tick` of a channel with maximum `maximum`: 0 outside the ramp;
// inside it the position climbs 0, 1, ... half - 1, holds it one tick more and falls back to 0,
// and the value is maximum x position / half in whole numbers (0 .. 968 .. 0 for 1000 and a ramp
// of 64, the top value on two ticks).
std::uint32_t CycleValue(const CycleShape& shape, std::uint32_t tick, std::uint32_t maximum);

// What an edited raw text means: the number, or nothing when it is refused. Blanks around it are
// dropped; anything but decimal digits is refused; an empty text is 0; a number above `maximum`
// (however many digits it has) is refused.
bool ParseRawText(const std::string& text, std::uint32_t maximum, std::uint32_t& out);

// The slider steps a light slider gets for its maximum.
struct SliderSteps {
  std::int32_t line;
  std::int32_t page;
  std::int32_t tick;
};
SliderSteps LightSliderSteps(std::uint32_t maximum);

template <class Base, const LightsForm& kForm>
class LightsPage : public Base {
 public:
  template <class Controller>
  LightsPage(Controller* owner, const BoardVersionInfo& version)
      : Base(kForm.templateId, kForm.htmlId, owner, version) {
    OnInitDialog();
  }

  void ResetPage(const BoardVersionInfo& record) override;
  void UpdatePage(std::uint32_t timerId, const ServoStatus& status) override;

  // What a test looks at; a channel past the arrays reads 0 and false.
  std::uint32_t ChannelCount = 0;
  std::uint32_t ProfileChannel = 0;
  std::uint32_t CoaxChannel = 0;
  bool Cycling = false;
  std::uint32_t MaxValue(std::uint32_t channel) const {
    return channel < kLightChannels ? MaxValues[channel] : 0;
  }
  std::uint32_t RawValue(std::uint32_t channel) const {
    return channel < kLightChannels ? RawValues[channel] : 0;
  }
  bool ChannelCyclingOf(std::uint32_t channel) const {
    return channel < kLightChannels && ChannelCycling[channel];
  }

 protected:
  void DoDataExchange(DataExchange& dx) override;
  void AddChannels() override;

 private:
  // The groups of sliders whose moves each send one command.
  enum Group : std::size_t { kLights, kLedWords, kPendantWord, kGroups };

  void OnInitDialog();
  void ListEvents();
  void LoadChannels();
  // Greys out the controls of a profile or coaxial light past the page's arrays.
  void ShowReach();
  // Every field but ChannelCount, ChannelRecheck and SurfaceChannelsText, and the raw texts.
  void ClearFields();
  std::uint32_t Usable() const {
    return ChannelCount < kLightChannels ? ChannelCount : kLightChannels;
  }
  std::uint32_t SurfaceEnd() const;  // the surface channels the page drives: 0 to this - 1

  // Channels `first` to `end` - 1 join the cycle (or start it again); a channel whose group has
  // no row in `shapes` stays out.
  void StartCycle(std::uint32_t first, std::uint32_t end, CycleGrouping grouping,
                  std::span<const CycleShape> shapes);
  void OnProfileCycle();
  void OnCoaxCycle();
  void OnSurfaceCycle(int kind);
  void OnStatusLight(std::uint8_t colour);
  void ClearRawWords();
  // One slider with its raw text box: the fields it sets, the command it sends and, for a light,
  // the channels it drives and its top.
  struct SliderRow {
    LightSlider slider;
    const char* rawText;  // the raw text box's id
    std::uint32_t LightsPage::*value;
    std::string LightsPage::*text;
    Group group;
    // A light's slider runs up to `top`, as OnInitDialog set it; a word's over the whole word.
    std::uint32_t LightsPage::*top = nullptr;
    // A light's one channel; none for the surface light, which drives channels 0 to SurfaceEnd.
    std::uint32_t LightsPage::*channel = nullptr;
    // A move sends nothing on a board with fewer channels.
    std::uint32_t leastChannels = 0;
    bool IsLight() const { return group == kLights; }
  };
  static const SliderRow kSliderRows[6];
  static const SliderRow& RowOf(LightSlider slider);
  // Light sliders always, the word sliders where the page has them.
  static bool OnThisPage(const SliderRow& row) { return row.IsLight() || kForm.statusLights; }

  void OnSlider(LightSlider slider);
  void OnRawText(LightSlider slider);
  // Puts a light slider's position into the raw values of its channels.
  void TakeLightValue(const SliderRow& row, std::uint32_t value);
  // The first light channel of a light slider (the surface light's is 0).
  std::uint32_t FirstChannel(const SliderRow& row) const {
    return row.channel ? this->*row.channel : 0;
  }
  // Sends a group's command now, or holds it for the next tick when one went out this tick.
  void Send(Group group);
  void SendNow(Group group);
  void FlushHeld();

  void TickCycle();
  void TickChannelCount();

  std::array<std::uint32_t, kLightChannels> MaxValues{};
  std::string SurfaceChannelsText;
  std::array<bool, kLightChannels> ChannelCycling{};
  std::array<CycleShape, kLightChannels> CycleShapes{};
  std::array<std::uint32_t, kLightChannels> CycleTick{};
  std::array<std::uint32_t, kLightChannels> CycleValues{};
  std::array<std::uint32_t, kLightChannels> RawValues{};
  std::uint32_t ChannelRecheck = kChannelRecheckTicks;
  std::uint32_t LedWord1 = 0, LedWord2 = 0, PendantWord = 0;
  std::uint32_t ProfileRaw = 0, CoaxRaw = 0, SurfaceRaw = 0;
  std::string RawLedWORD1Text, RawLedWORD2Text, RawPendWORD1Text;
  std::string RawProfileText, RawCoaxText, RawSurfaceText;

  // The slider tops as OnInitDialog set them; a count change leaves them as they are.
  std::uint32_t profileTop_ = 0, coaxTop_ = 0, surfaceTop_ = 0;
  std::array<bool, kGroups> sentThisTick_{};
  std::array<bool, kGroups> held_{};

  // The light values last sent, recorded on every 20 ms tick once any were; a channel is added
  // when the board first reports it.
  std::array<std::uint32_t, kLightChannels> sent_{};
  bool anySent_ = false;
  std::array<recorder::ChannelId, kLightChannels> lightChannels_ = NoChannels<kLightChannels>();
  void TookValues(std::span<const std::uint32_t> values);
};

class CTabLightsDlg final : public LightsPage<CTabDlg, kAutoVisionLights> {
 public:
  using LightsPage::LightsPage;
};

class CTabV1LightsDlg final : public LightsPage<CTabDlg, kV1Lights> {
 public:
  using LightsPage::LightsPage;
};

class CTabManualVisionLightsDlg final
    : public LightsPage<CTabManualVisionDlg, kManualVisionLights> {
 public:
  using LightsPage::LightsPage;
};

extern template class LightsPage<CTabDlg, kAutoVisionLights>;
extern template class LightsPage<CTabDlg, kV1Lights>;
extern template class LightsPage<CTabManualVisionDlg, kManualVisionLights>;
