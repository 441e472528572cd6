#include "pages/Lights.h"

#include <algorithm>
#include <span>

#include "util/Text.h"

namespace {

// The three LED words' sliders run over a whole word.
constexpr std::int32_t kWordTop = 65535;

// The cycles' tables. A channel whose group has no row (a sixth ring, on a board with more than
// 40 surface channels) stays out of the cycle.

constexpr CycleShape kOneRamp[] = {{.Total = 64, .Ramp = 64, .Delay = 0}};
constexpr CycleShape kRings[] = {
    {.Total = 320, .Ramp = 64, .Delay = 0},   {.Total = 320, .Ramp = 64, .Delay = 64},
    {.Total = 320, .Ramp = 64, .Delay = 128}, {.Total = 320, .Ramp = 64, .Delay = 192},
    {.Total = 320, .Ramp = 64, .Delay = 256},
};
constexpr CycleShape kOctants[] = {
    {.Total = 512, .Ramp = 64, .Delay = 0},   {.Total = 512, .Ramp = 64, .Delay = 64},
    {.Total = 512, .Ramp = 64, .Delay = 128}, {.Total = 512, .Ramp = 64, .Delay = 192},
    {.Total = 512, .Ramp = 64, .Delay = 256}, {.Total = 512, .Ramp = 64, .Delay = 320},
    {.Total = 512, .Ramp = 64, .Delay = 384}, {.Total = 512, .Ramp = 64, .Delay = 448},
};

struct SurfaceCycle {
  const char* button;
  CycleGrouping grouping;
  std::span<const CycleShape> shapes;
};

constexpr SurfaceCycle kSurfaceCycles[] = {
    {.button = "SurfaceCycle", .grouping = CycleGrouping::kTogether, .shapes = kOneRamp},
    {.button = "SurfaceCycleRing", .grouping = CycleGrouping::kRing, .shapes = kRings},
    {.button = "SurfaceCycleOctant", .grouping = CycleGrouping::kOctant, .shapes = kOctants},
};

std::size_t GroupOf(CycleGrouping grouping, std::uint32_t channel) {
  switch (grouping) {
    case CycleGrouping::kRing:
      return channel / 8;
    case CycleGrouping::kOctant:
      return channel % 8;
    case CycleGrouping::kTogether:
      break;
  }
  return 0;
}

struct StatusButton {
  const char* id;
  std::uint8_t colour;
};
constexpr StatusButton kStatusButtons[] = {
    {"StatusLightOff", 0}, {"StatusLightGreen", 1}, {"StatusLightAmber", 2}, {"StatusLightRed", 3}};

struct SliderElementOf {
  LightSlider slider;
  const char* element;
};
constexpr SliderElementOf kSliderElements[] = {
    {LightSlider::kLedWord1, "RawLedWORD1Slider"},
    {LightSlider::kLedWord2, "RawLedWORD2Slider"},
    {LightSlider::kPendantWord, "RawPendWORD1Slider"},
    {LightSlider::kProfile, "ProfileSlider"},
    {LightSlider::kCoax, "CoaxSlider"},
    {LightSlider::kSurface, "SurfaceSlider"},
};

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

}  // namespace

const char* SliderElement(LightSlider slider) {
  for (const auto& s : kSliderElements) {
    if (s.slider == slider) return s.element;
  }
  return "";
}

std::uint32_t CycleValue(const CycleShape& shape, std::uint32_t tick, std::uint32_t maximum) {
  if (tick < shape.Delay || tick - shape.Delay >= shape.Ramp) return 0;
  const std::uint32_t half = shape.Ramp / 2;
  if (half == 0) return 0;
  std::uint32_t position = tick - shape.Delay;
  if (position >= half) position = shape.Ramp - position - 1;
  return static_cast<std::uint32_t>(std::uint64_t{maximum} * position / half);
}

bool ParseRawText(const std::string& text, std::uint32_t maximum, std::uint32_t& out) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsBlank(text[begin]))
    ++begin;
  while (end > begin && IsBlank(text[end - 1]))
    --end;
  std::uint64_t value = 0;
  for (std::size_t i = begin; i < end; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    // Past the maximum it can only grow: refused here, before it could overflow.
    if (value > maximum) return false;
  }
  out = static_cast<std::uint32_t>(value);
  return true;
}

SliderSteps LightSliderSteps(std::uint32_t maximum) {
  return {.line = 1,
          .page = maximum < 16385 ? 16 : 256,
          .tick = static_cast<std::int32_t>(maximum / 16)};
}

// --- The sliders ---

template <class Base, const LightsForm& kForm>
const typename LightsPage<Base, kForm>::SliderRow LightsPage<Base, kForm>::kSliderRows[6] = {
    {.slider = LightSlider::kProfile,
     .rawText = "RawProfile",
     .value = &LightsPage::ProfileRaw,
     .text = &LightsPage::RawProfileText,
     .group = kLights,
     .top = &LightsPage::profileTop_,
     .channel = &LightsPage::ProfileChannel},
    {.slider = LightSlider::kCoax,
     .rawText = "RawCoax",
     .value = &LightsPage::CoaxRaw,
     .text = &LightsPage::RawCoaxText,
     .group = kLights,
     .top = &LightsPage::coaxTop_,
     .channel = &LightsPage::CoaxChannel},
    {.slider = LightSlider::kSurface,
     .rawText = "RawSurface",
     .value = &LightsPage::SurfaceRaw,
     .text = &LightsPage::RawSurfaceText,
     .group = kLights,
     .top = &LightsPage::surfaceTop_,
     .leastChannels = 3},
    {.slider = LightSlider::kLedWord1,
     .rawText = "RawLedWORD1",
     .value = &LightsPage::LedWord1,
     .text = &LightsPage::RawLedWORD1Text,
     .group = kLedWords},
    {.slider = LightSlider::kLedWord2,
     .rawText = "RawLedWORD2",
     .value = &LightsPage::LedWord2,
     .text = &LightsPage::RawLedWORD2Text,
     .group = kLedWords},
    {.slider = LightSlider::kPendantWord,
     .rawText = "RawPendWORD1",
     .value = &LightsPage::PendantWord,
     .text = &LightsPage::RawPendWORD1Text,
     .group = kPendantWord},
};

template <class Base, const LightsForm& kForm>
const typename LightsPage<Base, kForm>::SliderRow& LightsPage<Base, kForm>::RowOf(
    LightSlider slider) {
  for (const SliderRow& row : kSliderRows) {
    if (row.slider == slider) return row;
  }
  return kSliderRows[0];
}

// --- Construction ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::OnInitDialog() {
  ChannelCount = this->controller->GetLightChannelCount();
  LoadChannels();
  ui::Document& doc = this->Doc();
  for (const SliderRow& row : kSliderRows) {
    if (!OnThisPage(row)) continue;
    const char* element = SliderElement(row.slider);
    if (row.IsLight()) {
      const std::uint32_t top = this->*row.top = MaxValue(FirstChannel(row));
      const SliderSteps steps = LightSliderSteps(top);
      doc.SetSliderRange(element, 0, static_cast<std::int32_t>(top));
      doc.SetSliderSteps(element, steps.line, steps.page);
      doc.SetSliderTicks(element, steps.tick);
    } else {
      doc.SetSliderRange(element, 0, kWordTop);
      doc.SetSliderSteps(element, 1, 256);
      doc.SetSliderTicks(element, 4096);
    }
  }
  ListEvents();
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::ListEvents() {
  auto& events = this->Events();
  events.OnClick("ProfileCycle", [this](const ui::Event&) { OnProfileCycle(); });
  events.OnClick("CoaxCycle", [this](const ui::Event&) { OnCoaxCycle(); });
  for (int kind = 0; kind < static_cast<int>(std::size(kSurfaceCycles)); ++kind) {
    events.OnClick(kSurfaceCycles[kind].button,
                   [this, kind](const ui::Event&) { OnSurfaceCycle(kind); });
  }
  if constexpr (kForm.statusLights) {
    for (const StatusButton& b : kStatusButtons) {
      const std::uint8_t colour = b.colour;
      events.OnClick(b.id, [this, colour](const ui::Event&) { OnStatusLight(colour); });
    }
  }
  for (const SliderRow& row : kSliderRows) {
    const LightSlider slider = row.slider;
    // A word's raw text is sent with its slider only.
    if (row.IsLight()) {
      events.OnChange(row.rawText, [this, slider](const ui::Event&) { OnRawText(slider); });
    }
    if (OnThisPage(row)) {
      events.OnChange(SliderElement(slider),
                      [this, slider](const ui::Event&) { OnSlider(slider); });
    }
  }
}

// --- The channels ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::LoadChannels() {
  // A failed read is not looked at: the maxima keep what they held.
  this->controller->GetLightMaxValues(std::span<std::uint32_t>(MaxValues));
  ProfileChannel = ChannelCount >= 2 ? ChannelCount - 2 : 0;
  CoaxChannel = ChannelCount >= 2 ? ChannelCount - 1 : 0;
  SurfaceChannelsText = ChannelCount >= 3 ? text::Format("%u - %u", 0u, ProfileChannel - 1) : "";
  ShowReach();
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::ShowReach() {
  ui::Document& doc = this->Doc();
  const std::pair<std::uint32_t, std::array<const char*, 3>> rows[] = {
      {ProfileChannel, {"ProfileCycle", "ProfileSlider", "RawProfile"}},
      {CoaxChannel, {"CoaxCycle", "CoaxSlider", "RawCoax"}}};
  for (const auto& [channel, ids] : rows) {
    for (const char* id : ids)
      doc.Enable(id, channel < kLightChannels);
  }
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::ClearFields() {
  MaxValues.fill(0);
  ProfileChannel = 0;
  CoaxChannel = 0;
  Cycling = false;
  ChannelCycling.fill(false);
  CycleShapes.fill(CycleShape{});
  CycleTick.fill(0);
  CycleValues.fill(0);
  RawValues.fill(0);
  for (const SliderRow& row : kSliderRows) {
    this->*row.value = 0;
    (this->*row.text).clear();
  }
  held_.fill(false);
  sentThisTick_.fill(false);
}

template <class Base, const LightsForm& kForm>
std::uint32_t LightsPage<Base, kForm>::SurfaceEnd() const {
  return std::min(ProfileChannel, kLightChannels);
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::ResetPage(const BoardVersionInfo& record) {
  this->Connected = true;
  this->versionInfo = record;
  ClearFields();
  LoadChannels();
  if constexpr (kForm.resetPushes) {
    if (this->PageReady) this->UpdateData();
  }
}

// --- Cycles ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::StartCycle(std::uint32_t first, std::uint32_t end,
                                         CycleGrouping grouping,
                                         std::span<const CycleShape> shapes) {
  bool any = false;
  for (std::uint32_t channel = first; channel < std::min(end, kLightChannels); ++channel) {
    const std::size_t row = GroupOf(grouping, channel);
    if (row >= shapes.size()) continue;
    ChannelCycling[channel] = true;
    CycleShapes[channel] = shapes[row];
    CycleTick[channel] = 0;
    CycleValues[channel] = 0;
    any = true;
  }
  // A channel the page cannot drive starts nothing, so it cannot darken the others either.
  if (any) Cycling = true;
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::OnProfileCycle() {
  if (ChannelCount < 2) return;
  StartCycle(ProfileChannel, ProfileChannel + 1, CycleGrouping::kTogether, kOneRamp);
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::OnCoaxCycle() {
  if (ChannelCount < 2) return;
  StartCycle(CoaxChannel, CoaxChannel + 1, CycleGrouping::kTogether, kOneRamp);
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::OnSurfaceCycle(int kind) {
  if (ChannelCount < 3) return;
  const SurfaceCycle& c = kSurfaceCycles[kind];
  StartCycle(0, ProfileChannel, c.grouping, c.shapes);
}

// --- Status light and the raw words ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::OnStatusLight(std::uint8_t colour) {
  if constexpr (kForm.statusLights) {
    // A board without a status light is sent nothing; the words are cleared all the same.
    this->controller->SetStatusLight(colour);
    ClearRawWords();
  }
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::ClearRawWords() {
  ui::Document& doc = this->Doc();
  for (const SliderRow& row : kSliderRows) {
    if (row.IsLight()) continue;
    this->*row.value = 0;
    (this->*row.text).clear();
    // A word still held from a drag would undo the clearing.
    held_[row.group] = false;
    doc.SetSliderPosition(SliderElement(row.slider), 0);
  }
  this->UpdateData();
}

// --- Sliders and raw texts ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::OnSlider(LightSlider slider) {
  const SliderRow& row = RowOf(slider);
  ui::Document& doc = this->Doc();
  const char* element = SliderElement(slider);
  const std::uint32_t top = row.top ? this->*row.top : kWordTop;
  // A browser may send any text: take only what the slider can show.
  const auto position = static_cast<std::uint32_t>(
      std::clamp<std::int64_t>(doc.SliderPosition(element), 0, std::int64_t{top}));
  doc.SetSliderPosition(element, static_cast<std::int32_t>(position));
  this->*row.value = position;
  this->*row.text = text::Format("%u", position);
  if (ChannelCount >= row.leastChannels) {
    if (row.IsLight()) TakeLightValue(row, position);
    Send(row.group);
  }
  this->UpdateData();
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::TakeLightValue(const SliderRow& row, std::uint32_t value) {
  if (row.channel) {
    if (this->*row.channel < kLightChannels) RawValues[this->*row.channel] = value;
    return;
  }
  for (std::uint32_t channel = 0; channel < SurfaceEnd(); ++channel)
    RawValues[channel] = value;
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::OnRawText(LightSlider slider) {
  ui::Document& doc = this->Doc();
  // The fetch from the document: every text takes what the browsers left in its box.
  for (const SliderRow& row : kSliderRows) {
    if (OnThisPage(row)) this->*row.text = doc.Text(row.rawText);
  }
  const SliderRow& row = RowOf(slider);
  std::string& shown = this->*row.text;
  std::uint32_t value = 0;
  if (ParseRawText(shown, MaxValue(FirstChannel(row)), value)) {
    this->*row.value = value;
    doc.SetSliderPosition(SliderElement(slider), static_cast<std::int32_t>(value));
    TakeLightValue(row, value);
    // A typed number is one command, and it carries whatever a drag still held.
    SendNow(kLights);
  } else {
    shown = text::Format("%u", this->*row.value);
  }
  this->UpdateData();
}

// --- Sending, at most once a tick for each group ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::Send(Group group) {
  if (sentThisTick_[group]) {
    held_[group] = true;
    return;
  }
  SendNow(group);
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::SendNow(Group group) {
  // The results are not looked at: a dead link shows at the next read.
  sentThisTick_[group] = true;
  held_[group] = false;
  if (group == kLights) {
    this->controller->SetLightValues(std::span<const std::uint32_t>(RawValues));
    TookValues(RawValues);
    return;
  }
  if constexpr (kForm.statusLights) {
    if (group == kLedWords) {
      this->controller->SetLedWords(0, static_cast<std::uint16_t>(LedWord1),
                                    static_cast<std::uint16_t>(LedWord2));
    } else {
      this->controller->SetLedWords(1, static_cast<std::uint16_t>(PendantWord), 0);
    }
  }
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::FlushHeld() {
  for (std::size_t g = 0; g < kGroups; ++g) {
    sentThisTick_[g] = false;
    if (held_[g]) SendNow(static_cast<Group>(g));
  }
}

// --- Ticks ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::UpdatePage(std::uint32_t timerId, const ServoStatus& /*status*/) {
  typename Base::TickGuard guard(*this);
  if (!guard.Entered()) return;
  if (timerId == TickId(Tick::k20ms)) {
    FlushHeld();
    if (this->Connected && this->PageReady && Cycling) TickCycle();
    if (anySent_) {
      for (std::uint32_t channel = 0; channel < kLightChannels; ++channel)
        this->recording.Record(lightChannels_[channel], sent_[channel]);
    }
  }
  if (timerId == TickId(Tick::k200ms) && this->Connected && this->PageReady) {
    TickChannelCount();
    if (this->recording.Attached()) AddChannels();
  }
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::TickCycle() {
  bool more = false;
  for (std::uint32_t channel = 0; channel < Usable(); ++channel) {
    if (!ChannelCycling[channel]) continue;
    const CycleShape& shape = CycleShapes[channel];
    CycleValues[channel] = CycleValue(shape, CycleTick[channel], MaxValues[channel]);
    if (++CycleTick[channel] >= shape.Total) {
      ChannelCycling[channel] = false;
    } else {
      more = true;
    }
  }
  if (!this->controller->SetLightValues(std::span<const std::uint32_t>(CycleValues))) {
    this->Connected = false;
    Cycling = false;
    return;
  }
  TookValues(CycleValues);
  if (!more) Cycling = false;
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::TickChannelCount() {
  if (--ChannelRecheck != 0) return;
  BoardVersionInfo fresh;
  if (!this->controller->ReadBoardVersion(fresh)) {
    this->Connected = false;
  } else if (fresh.lightChannelCount != ChannelCount) {
    // The sliders keep the ranges they were given at the start.
    ChannelCount = fresh.lightChannelCount;
    ClearFields();
    LoadChannels();
    this->UpdateData();
  }
  ChannelRecheck = kChannelRecheckTicks;
}

// --- The document ---

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::DoDataExchange(DataExchange& dx) {
  dx.Text("NumChannels", ChannelCount);
  dx.Text("ProfileChannelNum", ProfileChannel);
  dx.Text("CoaxChannelNum", CoaxChannel);
  dx.Text("SurfaceChannelNums", SurfaceChannelsText);
  dx.Text("ProfileMaxValue", MaxValue(ProfileChannel));
  dx.Text("CoaxMaxValue", MaxValue(CoaxChannel));
  if (ChannelCount > 2) dx.Text("SurfaceMaxValue", MaxValue(0));
  for (const SliderRow& row : kSliderRows) {
    if (OnThisPage(row)) dx.Text(row.rawText, this->*row.text);
  }
}

template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::TookValues(std::span<const std::uint32_t> values) {
  std::copy(values.begin(), values.begin() + std::min(values.size(), sent_.size()), sent_.begin());
  anySent_ = true;
}

// Each channel the board has, named by its number, shown by the raw text of the slider that
// drives it.
template <class Base, const LightsForm& kForm>
void LightsPage<Base, kForm>::AddChannels() {
  for (std::uint32_t channel = 0; channel < Usable(); ++channel) {
    if (lightChannels_[channel] != recorder::kNoChannel) continue;
    std::string element;
    if (channel == ProfileChannel) {
      element = "RawProfile";
    } else if (channel == CoaxChannel) {
      element = "RawCoax";
    } else if (channel < SurfaceEnd()) {
      element = "RawSurface";
    }
    lightChannels_[channel] = this->recording.Add("lights.Channel" + std::to_string(channel),
                                                  kTick20ms, recorder::ValueKind::kUInt32, element);
  }
}

template class LightsPage<CTabDlg, kAutoVisionLights>;
template class LightsPage<CTabDlg, kV1Lights>;
template class LightsPage<CTabManualVisionDlg, kManualVisionLights>;
