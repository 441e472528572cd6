// The Probes page: the machine's three ways of catching a position, the touch probe, the laser
// probe and the camera's video trigger. It shows whether the touch probe is tripped, the last
// captures, the laser's reading and settings, and lets the operator switch each on and off and
// choose which one interrupts the board.
//
// One class template over the table ProbesForm; CTabProbesDlg serves both servo families and has
// the touch probe's sensitivity slider, CTabManualVisionProbesDlg has neither the slider nor the
// "Int"/"Poll" text. Everything runs on the UI thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "pages/CTabDlg.h"

struct ProbesForm {
  std::uint32_t htmlId;
  // The sensitivity slider and its TPSens text (servo controllers only).
  bool sensitivitySlider;
  // LaserCaptureInfo is bound and filled.
  bool captureInfo;
  // ResetPage reads the laser settings a second time, without the page's own gate.
  bool settingsReadTwice;
};

inline constexpr ProbesForm kServoProbes{
    .htmlId = 112, .sensitivitySlider = true, .captureInfo = true, .settingsReadTwice = false};
inline constexpr ProbesForm kManualVisionProbes{
    .htmlId = 112, .sensitivitySlider = false, .captureInfo = false, .settingsReadTwice = true};

// The slider's element. The document of both families has it; only the servo page shows it.
inline constexpr const char* kSensitivitySlider = "TPSensSlider";
// The slider's top before the board has told its maximum: a 10-bit sensitivity.
inline constexpr std::uint16_t kDefaultSensitivityMax = 1023;

// Which source interrupts the board. Each click of a source's interrupt box moves to that source,
// or back to kNone when it was the armed one; a reset moves to kNone without telling the board,
// which starts fresh after a reconnection anyway.
enum class InterruptSource : std::uint8_t {
  kNone,   // nothing armed: the poll asks for no capture data
  kTouch,  // the touch probe's trip interrupts
  kLaser,  // each laser sample interrupts
  kVideo,  // the camera's frame trigger interrupts and latches the position
};

// The laser's samples per second as shown: "%.2lf" of 2500 / 2^exponent.
std::string LaserSpeedText(std::uint32_t rateExponent);

template <class Base, const ProbesForm& kForm>
class ProbesPage : public Base {
 public:
  template <class Controller>
  ProbesPage(Controller* owner, const BoardVersionInfo& version)
      : Base(kForm.sensitivitySlider ? 120 : 103, kForm.htmlId, owner, version) {
    OnInitDialog();
  }

  bool WantsCaptureData() override { return source_ != InterruptSource::kNone; }
  void ResetPage(const BoardVersionInfo& record) override;
  void UpdatePage(std::uint32_t timerId, const ServoStatus& status) override;

  InterruptSource Source() const { return source_; }
  bool TouchEnabled() const { return touchEnabled; }
  bool ChecksDirty() const { return checksDirty; }
  std::uint32_t Sensitivity() const { return sensitivity; }
  const std::array<std::uint32_t, kLaserSettingsWords>& LaserSettings() const {
    return laserSettings;
  }

 protected:
  void DoDataExchange(DataExchange& dx) override;
  void AddChannels() override;

 private:
  // The laser's words this page reads and writes.
  static constexpr std::size_t kRateWord = 1;
  static constexpr std::size_t kLaserOnWord = 19;

  bool TouchGate() const { return this->versionInfo.hasTouchProbe; }
  bool LaserGate() const { return this->versionInfo.laserType != 0; }
  bool LaserReadable() const {
    return this->Connected && this->versionInfo.laserType > 0 && !this->versionInfo.laserNotReady;
  }

  // What the page does once its window exists: the first look at the laser settings, the
  // slider's start range, the click rows.
  void OnInitDialog();
  void ListEvents();
  void OnTouchEnable();
  void OnLaserEnable();
  void SwitchInterrupt(InterruptSource source);
  void OnSensitivityScroll();
  void SetLaserTexts();
  void SetChecks();
  void ResetSlider();
  // The 200 ms and 1000 ms steps; each clears Connected on a failed read.
  void TickCaptures(const ServoStatus& status);
  void TickLaserSettings();

  std::array<std::uint32_t, 4> touchCapture{};
  LaserPoints laserPoints{};
  std::array<std::uint32_t, 4> videoCapture{};
  std::array<std::uint32_t, kLaserSettingsWords> laserSettings{};
  bool touchEnabled = false;
  InterruptSource source_ = InterruptSource::kNone;
  bool checksDirty = true;
  ServoStatus cachedStatus{};
  std::uint32_t sensitivity = 0;
  std::int32_t sliderMax_ = kDefaultSensitivityMax;  // the slider's top as last set
  std::string tripText, statusText, speedText, infoText, sensitivityText;

  recorder::ChannelId tripChannel_ = recorder::kNoChannel;
  recorder::ChannelId laserValueChannel_ = recorder::kNoChannel;
  recorder::ChannelId laserRateChannel_ = recorder::kNoChannel;
  // X, Y, Z of each capture.
  std::array<recorder::ChannelId, 3> touchChannels_ = NoChannels<3>();
  std::array<recorder::ChannelId, 3> laserChannels_ = NoChannels<3>();
  std::array<recorder::ChannelId, 3> videoChannels_ = NoChannels<3>();
};

class CTabProbesDlg final : public ProbesPage<CTabDlg, kServoProbes> {
 public:
  using ProbesPage::ProbesPage;
};

class CTabManualVisionProbesDlg final
    : public ProbesPage<CTabManualVisionDlg, kManualVisionProbes> {
 public:
  using ProbesPage::ProbesPage;
};

extern template class ProbesPage<CTabDlg, kServoProbes>;
extern template class ProbesPage<CTabManualVisionDlg, kManualVisionProbes>;
