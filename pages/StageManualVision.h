// The Stage page of a manual-vision machine: read-only, without tests.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "link/CTavroUsbManualVision.h"
#include "pages/CTabDlg.h"
#include "pages/Stage.h"

// The manual-vision machine's view: positions and index captures, the motion flags of zoom and W,
// e-stop and footswitch. Its W position element RotaryW shows slot 4 of Linear.
class CTabManualVisionStageDlg final : public CTabManualVisionDlg {
 public:
  CTabManualVisionStageDlg(CTavroUsbManualVision* owner, const BoardVersionInfo& version);

  void ResetPage(const BoardVersionInfo& record) override;
  void UpdatePage(std::uint32_t timerId, const ServoStatus& status) override;

 protected:
  void DoDataExchange(DataExchange& dx) override;
  void AddChannels() override;

 private:
  bool RefreshAxes(const ServoStatus& status);
  bool RefreshW(const ServoStatus& status);
  void RecordStatus(const ServoStatus& status);

  std::array<std::int32_t, kStageSlots> Linear{};
  std::array<std::int32_t, kStageSlots> Index{};
  std::array<std::uint8_t, kStageSlots> IndexValid{};
  ServoStatus PreviousStatus{};
  std::array<std::string, kStageSlots> MovingText, SettledText, StalledText;
  std::uint8_t CachedEStop = 0;
  std::string EStopText;
  std::uint8_t CachedFootswitch = 0;
  std::string FootswitchText;

  // Recorded channels (UI thread): the poll's on its 200 ms tick, and the reads.
  std::array<recorder::ChannelId, 4> linearChannels_ = NoChannels<4>();
  std::array<recorder::ChannelId, kStageSlots> indexChannels_ = NoChannels<kStageSlots>();
  // Moving, settled, stalled of the zoom, then of W.
  std::array<recorder::ChannelId, 6> flagChannels_ = NoChannels<6>();
  recorder::ChannelId wChannel_ = recorder::kNoChannel;
  recorder::ChannelId estopChannel_ = recorder::kNoChannel;
  recorder::ChannelId footswitchChannel_ = recorder::kNoChannel;
};
