#include "pages/Probes.h"

#include <algorithm>
#include <cmath>

#include "util/Text.h"

namespace {

bool SameEntry(const LaserPoint& a, const LaserPoint& b) {
  return a.Time == b.Time && std::equal(a.Position, a.Position + 3, b.Position) &&
         a.Valid == b.Valid && a.Extra == b.Extra;
}

std::int32_t Signed(std::uint32_t v) {
  return static_cast<std::int32_t>(v);
}

// The check boxes a page sets from its fields, in the order they are set.
constexpr const char* kCheckBoxes[] = {"LaserInterruptEnable", "TouchProbeEnable",
                                       "TouchProbeInterruptEnable", "LaserEnable",
                                       "VideoInterruptEnable"};

}  // namespace

std::string LaserSpeedText(std::uint32_t rateExponent) {
  // Past a few thousand halvings the rate is 0.00 whatever the exponent; the cap keeps the
  // conversion to int defined for every word a board can send.
  const int exponent = static_cast<int>(std::min<std::uint32_t>(rateExponent, 4096));
  return text::Format("%.2lf", std::ldexp(2500.0, -exponent));
}

// --- Construction ---

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::OnInitDialog() {
  // The first look at the settings; its result is not looked at: a failure leaves them zero.
  this->controller->GetLaserSettings(laserSettings.data());
  SetLaserTexts();
  ui::Document& doc = this->Doc();
  if constexpr (kForm.sensitivitySlider) {
    doc.Show(kSensitivitySlider, true);
    doc.SetSliderRange(kSensitivitySlider, 0, kDefaultSensitivityMax);
    doc.SetSliderSteps(kSensitivitySlider, 1, 256);
    doc.SetSliderTicks(kSensitivitySlider, 32);
  } else {
    doc.Show(kSensitivitySlider, false);
  }
  ListEvents();
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::ListEvents() {
  auto& events = this->Events();
  events.OnClick("TouchProbeEnable", [this](const ui::Event&) { OnTouchEnable(); });
  events.OnClick("TouchProbeInterruptEnable", [this](const ui::Event&) {
    if (TouchGate()) SwitchInterrupt(InterruptSource::kTouch);
  });
  events.OnClick("LaserEnable", [this](const ui::Event&) { OnLaserEnable(); });
  events.OnClick("LaserInterruptEnable", [this](const ui::Event&) {
    if (LaserGate()) SwitchInterrupt(InterruptSource::kLaser);
  });
  events.OnClick("VideoInterruptEnable",
                 [this](const ui::Event&) { SwitchInterrupt(InterruptSource::kVideo); });
  if constexpr (kForm.sensitivitySlider) {
    events.OnChange(kSensitivitySlider, [this](const ui::Event&) { OnSensitivityScroll(); });
  }
}

// --- Events. The handlers ignore what their commands return: the state moves regardless. ---

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::OnTouchEnable() {
  if (!TouchGate()) return;
  touchEnabled = !touchEnabled;
  this->controller->SetTouchProbeEnable(touchEnabled);
  this->UpdateData();
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::OnLaserEnable() {
  if (!LaserGate()) return;
  laserSettings[kLaserOnWord] = laserSettings[kLaserOnWord] ? 0 : 1;
  statusText = laserSettings[kLaserOnWord] ? "On" : "Off";
  this->controller->SetLaserSettings(laserSettings.data());
  this->UpdateData();
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::SwitchInterrupt(InterruptSource source) {
  if (source_ == source) {
    this->controller->DisableInterrupts();
    source_ = InterruptSource::kNone;
  } else {
    // Arming one source disarms the others on the board as well.
    if (source == InterruptSource::kTouch) this->controller->EnableTouchProbeInterrupt();
    if (source == InterruptSource::kLaser) this->controller->EnableLaserInterrupt();
    if (source == InterruptSource::kVideo) this->controller->EnableVideoInterrupt();
    source_ = source;
  }
  checksDirty = true;
  // The laser's boxes follow at the next second's tick; the others at once.
  if (source != InterruptSource::kLaser) SetChecks();
  this->UpdateData();
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::OnSensitivityScroll() {
  if constexpr (kForm.sensitivitySlider) {
    ui::Document& doc = this->Doc();
    // A disabled slider sends nothing; a browser that does anyway is ignored.
    if (!doc.Enabled(kSensitivitySlider)) return;
    // A browser may send any text: take only what the slider can show.
    const std::int32_t position = std::clamp(doc.SliderPosition(kSensitivitySlider), 0, sliderMax_);
    doc.SetSliderPosition(kSensitivitySlider, position);
    sensitivity = static_cast<std::uint32_t>(position);
    sensitivityText = text::Format("%u", sensitivity);
    this->controller->SetTouchProbeSensitivity(static_cast<std::uint16_t>(sensitivity));
    this->UpdateData();
  }
}

// --- Helpers ---

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::SetLaserTexts() {
  statusText = laserSettings[kLaserOnWord] ? "On" : "Off";
  speedText = LaserSpeedText(laserSettings[kRateWord]);
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::SetChecks() {
  const bool checks[] = {source_ == InterruptSource::kLaser, touchEnabled,
                         source_ == InterruptSource::kTouch, laserSettings[kLaserOnWord] != 0,
                         source_ == InterruptSource::kVideo};
  ui::Document& doc = this->Doc();
  for (std::size_t i = 0; i < std::size(kCheckBoxes); ++i)
    doc.SetChecked(kCheckBoxes[i], checks[i]);
}

// --- ResetPage ---

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::ResetPage(const BoardVersionInfo& record) {
  this->Connected = true;
  this->versionInfo = record;
  source_ = InterruptSource::kNone;
  checksDirty = true;
  touchCapture.fill(0);
  laserPoints = LaserPoints{};
  cachedStatus = ServoStatus{};
  laserSettings.fill(0);
  videoCapture.fill(0);
  tripText.clear();
  // Read once more here, but the texts stay empty until a click or a change of the settings.
  if (LaserReadable()) this->controller->GetLaserSettings(laserSettings.data());
  if constexpr (kForm.settingsReadTwice) this->controller->GetLaserSettings(laserSettings.data());
  statusText.clear();
  speedText.clear();
  infoText.clear();
  if constexpr (kForm.sensitivitySlider) ResetSlider();
  if (this->PageReady) this->UpdateData();
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::ResetSlider() {
  if constexpr (kForm.sensitivitySlider) {
    ui::Document& doc = this->Doc();
    sensitivity = 0;
    sensitivityText.clear();
    doc.SetSliderPosition(kSensitivitySlider, 0);
    // Only the first generation's boards have a sensitivity to set.
    if (this->controller->GetMachineKind() != MachineKind::Servo) {
      doc.Enable(kSensitivitySlider, false);
      return;
    }
    std::uint16_t maximum = kDefaultSensitivityMax;
    this->controller->GetTouchProbeSensitivityMax(maximum);
    if (maximum == 0) return;  // the slider stays as it was
    sliderMax_ = maximum;
    doc.SetSliderRange(kSensitivitySlider, 0, maximum);
    doc.SetSliderSteps(kSensitivitySlider, 1, (maximum + 1) / 4);
    doc.SetSliderTicks(kSensitivitySlider, (maximum + 1) / 16);
    doc.Enable(kSensitivitySlider, true);
    std::uint16_t value = 0;
    this->controller->GetTouchProbeSensitivity(value);
    sensitivity = value;
    sensitivityText = text::Format("%u", sensitivity);
    doc.SetSliderPosition(kSensitivitySlider, static_cast<std::int32_t>(sensitivity));
  }
}

// --- Ticks ---

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::UpdatePage(std::uint32_t timerId, const ServoStatus& status) {
  typename Base::TickGuard guard(*this);
  if (!guard.Entered()) return;
  if (timerId == TickId(Tick::k200ms) && this->Connected && this->PageReady) TickCaptures(status);
  if (timerId == TickId(Tick::k1s)) {
    if (this->Connected && this->PageReady) TickLaserSettings();
    if (checksDirty) {
      SetChecks();
      checksDirty = false;
    }
  }
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::TickCaptures(const ServoStatus& status) {
  bool changed = false;
  auto& board = *this->controller;
  if (TouchGate()) {
    if (status.TouchProbeTrip != cachedStatus.TouchProbeTrip) {
      tripText = status.TouchProbeTrip ? "Trip" : "";
      changed = true;
    }
    if (status.TouchCaptureReady && status.CaptureReady) {
      std::uint32_t at[4] = {};
      std::uint32_t released[4] = {};
      if (board.GetTouchProbeCapture(at, released)) {
        std::copy(at, at + 4, touchCapture.begin());
      } else {
        this->Connected = false;
      }
      changed = true;
    }
  }
  if (LaserReadable()) {
    // A failed read leaves the record zeroed, and that is what is compared.
    LaserPoints points;
    if (!board.GetLaserPoints(1, points)) this->Connected = false;
    if (!SameEntry(points.Points[0], laserPoints.Points[0])) {
      laserPoints = points;
      infoText = points.Points[0].Valid ? "Int" : "Poll";
      changed = true;
    }
  }
  if (this->Connected && source_ == InterruptSource::kVideo && status.CaptureReady) {
    const std::uint8_t want[4] = {1, 0, 0, 0};
    const std::uint16_t select[4] = {};
    ProbeCapture capture;
    if (board.GetProbeCapture(want, select, capture)) {
      // A capture the board marks invalid leaves the values alone.
      if (capture.Valid[0])
        std::copy(capture.Position[0], capture.Position[0] + 4, videoCapture.begin());
    } else {
      this->Connected = false;
    }
    changed = true;
  }
  cachedStatus = status;
  // What the page shows after this tick's reads.
  const PageRecording& r = this->recording;
  r.Record(tripChannel_, status.TouchProbeTrip);
  for (std::size_t i = 0; i < 3; ++i) {
    r.Record(touchChannels_[i], static_cast<std::int32_t>(touchCapture[i]));
    r.Record(videoChannels_[i], static_cast<std::int32_t>(videoCapture[i]));
    r.Record(laserChannels_[i], static_cast<std::int32_t>(laserPoints.Points[0].Position[i]));
  }
  r.Record(laserValueChannel_, laserPoints.Points[0].Time);
  if (changed) this->UpdateData();
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::TickLaserSettings() {
  bool changed = false;
  auto& board = *this->controller;
  if (this->versionInfo.laserNotReady) {
    // A laser that was not ready at the last reset is picked up as soon as it reports ready.
    BoardVersionInfo fresh;
    if (!board.ReadBoardVersion(fresh)) {
      this->Connected = false;
    } else {
      this->versionInfo = fresh;
      if (!fresh.laserNotReady) {
        if (LaserReadable()) board.GetLaserSettings(laserSettings.data());
        SetLaserTexts();
        infoText.clear();
      }
    }
  } else {
    std::array<std::uint32_t, kLaserSettingsWords> fresh{};
    if (!board.GetLaserSettings(fresh.data())) {
      this->Connected = false;
    } else {
      this->recording.Record(laserRateChannel_, fresh[kRateWord]);
      if (fresh != laserSettings) {
        laserSettings = fresh;
        SetLaserTexts();
        changed = true;
      }
    }
  }
  if (changed) this->UpdateData();
}

// --- The document ---

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::DoDataExchange(DataExchange& dx) {
  if (TouchGate()) {
    dx.Text("TouchProbeTrip", tripText);
    dx.Text("TouchProbeCaptureX", Signed(touchCapture[0]));
    dx.Text("TouchProbeCaptureY", Signed(touchCapture[1]));
    dx.Text("TouchProbeCaptureZ", Signed(touchCapture[2]));
  }
  if (this->versionInfo.laserType > 0) {
    const LaserPoint& first = laserPoints.Points[0];
    dx.Text("LaserValue", first.Time);
    dx.Text("LaserCaptureX", Signed(first.Position[0]));
    dx.Text("LaserCaptureY", Signed(first.Position[1]));
    dx.Text("LaserCaptureZ", Signed(first.Position[2]));
    dx.Text("LaserStatus", statusText);
    dx.Text("LaserMeasurementSpeed", speedText);
    if constexpr (kForm.captureInfo) dx.Text("LaserCaptureInfo", infoText);
  }
  dx.Text("VideoCaptureX", Signed(videoCapture[0]));
  dx.Text("VideoCaptureY", Signed(videoCapture[1]));
  dx.Text("VideoCaptureZ", Signed(videoCapture[2]));
  if constexpr (kForm.sensitivitySlider) dx.Text("TPSens", sensitivityText);
}

template <class Base, const ProbesForm& kForm>
void ProbesPage<Base, kForm>::AddChannels() {
  using recorder::ValueKind;
  PageRecording& r = this->recording;
  const char* axes[] = {"X", "Y", "Z"};
  if (TouchGate()) {
    tripChannel_ = r.Add("probes.TouchProbeTrip", kTick200ms, ValueKind::kFlag, "TouchProbeTrip");
    for (std::size_t i = 0; i < 3; ++i) {
      touchChannels_[i] =
          r.Add(std::string("probes.TouchCapture.") + axes[i], kTick200ms, ValueKind::kInt32,
                std::string("TouchProbeCapture") + axes[i], "counts");
    }
  }
  if (this->versionInfo.laserType > 0) {
    laserValueChannel_ = r.Add("probes.LaserValue", kTick200ms, ValueKind::kUInt32, "LaserValue");
    for (std::size_t i = 0; i < 3; ++i) {
      laserChannels_[i] = r.Add(std::string("probes.LaserCapture.") + axes[i], kTick200ms,
                                ValueKind::kInt32, std::string("LaserCapture") + axes[i], "counts");
    }
    laserRateChannel_ =
        r.Add("probes.LaserRate", kTick1s, ValueKind::kInt32, "LaserMeasurementSpeed");
  }
  for (std::size_t i = 0; i < 3; ++i) {
    videoChannels_[i] = r.Add(std::string("probes.VideoCapture.") + axes[i], kTick200ms,
                              ValueKind::kInt32, std::string("VideoCapture") + axes[i], "counts");
  }
}

template class ProbesPage<CTabDlg, kServoProbes>;
template class ProbesPage<CTabManualVisionDlg, kManualVisionProbes>;
