#include "pages/StageManualVision.h"

#include "pages/StageParts.h"

using namespace stage_parts;

CTabManualVisionStageDlg::CTabManualVisionStageDlg(CTavroUsbManualVision* owner,
                                                   const BoardVersionInfo& version)
    : CTabManualVisionDlg(103, 114, owner, version) {}

void CTabManualVisionStageDlg::ResetPage(const BoardVersionInfo& record) {
  Connected = true;
  versionInfo = record;
  Linear.fill(0);
  Index.fill(0);
  IndexValid.fill(0);
  PreviousStatus = ServoStatus{};
  for (auto* texts : {&MovingText, &SettledText, &StalledText}) {
    for (auto& t : *texts)
      t.clear();
  }
  EStopText.clear();
  FootswitchText.clear();
  CachedEStop = 0;
  CachedFootswitch = 0;
  if (PageReady) UpdateData();
}

void CTabManualVisionStageDlg::UpdatePage(std::uint32_t timerId, const ServoStatus& status) {
  TickGuard guard(*this);
  if (!guard.Entered() || timerId != TickId(Tick::k200ms)) return;
  // The poll's fields are recorded whether a browser shows the page or not; the page's own
  // reads happen only while one does.
  RecordStatus(status);
  if (!Connected || !PageReady) return;
  bool dirty = RefreshAxes(status);
  if (!Connected) return;
  if (versionInfo.hasWAxis) {
    dirty |= RefreshW(status);
    if (!Connected) return;
  }
  PreviousStatus = status;
  if (CachedEStop != status.EStop) {
    dirty = true;
    CachedEStop = status.EStop;
    EStopText = status.EStop ? "EStop" : "";
  }
  if (CachedFootswitch != status.Footswitch) {
    dirty = true;
    CachedFootswitch = status.Footswitch;
    FootswitchText = status.Footswitch ? "On" : "";
  }
  if (dirty) UpdateData();
}

bool CTabManualVisionStageDlg::RefreshAxes(const ServoStatus& status) {
  bool dirty = false;
  for (unsigned i = 0; i < 4; ++i)
    dirty |= TakeValue(status.LinearPosition[i], Linear[i]);
  for (std::uint16_t i = 0; i < 4; ++i) {
    if (!ReadIndex(*controller, i, IndexValid[i], Index[i], dirty)) {
      Connected = false;
      break;
    }
    if (IndexValid[i]) recording.Record(indexChannels_[i], Index[i]);
  }
  // Only the zoom has motion flags on this machine; they follow even after a failed read.
  constexpr unsigned zoom = 3;
  FollowFlag(PreviousStatus.Moving[zoom], status.Moving[zoom], MovingText[zoom], "Moving");
  FollowFlag(PreviousStatus.Settled[zoom], status.Settled[zoom], SettledText[zoom], "Settled");
  FollowFlag(PreviousStatus.Stalled[zoom], status.Stalled[zoom], StalledText[zoom], "Stall");
  return dirty;
}

bool CTabManualVisionStageDlg::RefreshW(const ServoStatus& status) {
  bool dirty = false;
  CTavroUsbWAxis& w = *controller;
  if (!ReadW(w, Linear[kWSlot], IndexValid[kWSlot], Index[kWSlot], dirty)) {
    Connected = false;
    return dirty;
  }
  recording.Record(wChannel_, Linear[kWSlot]);
  if (IndexValid[kWSlot]) recording.Record(indexChannels_[kWSlot], Index[kWSlot]);
  FollowWFlags(PreviousStatus, status, MovingText[kWSlot], SettledText[kWSlot],
               StalledText[kWSlot]);
  return dirty;
}

void CTabManualVisionStageDlg::DoDataExchange(DataExchange& dx) {
  for (unsigned i = 0; i < 4; ++i) {
    dx.Text(Id("Linear", i), Linear[i]);
    IndexText(dx, Id("Index", i), IndexValid[i], Index[i]);
  }
  constexpr unsigned zoom = 3;
  dx.Text("MovingZoom", MovingText[zoom]);
  dx.Text("SettledZoom", SettledText[zoom]);
  dx.Text("StalledZoom", StalledText[zoom]);
  if (versionInfo.hasWAxis) {
    dx.Text("RotaryW", Linear[kWSlot]);
    IndexText(dx, "IndexW", IndexValid[kWSlot], Index[kWSlot]);
    dx.Text("MovingW", MovingText[kWSlot]);
    dx.Text("SettledW", SettledText[kWSlot]);
    dx.Text("StalledW", StalledText[kWSlot]);
  }
  dx.Text("EStop", EStopText);
  dx.Text("Footswitch", FootswitchText);
}

void CTabManualVisionStageDlg::AddChannels() {
  using recorder::ValueKind;
  for (unsigned i = 0; i < 4; ++i) {
    linearChannels_[i] = recording.Add("status.LinearPosition." + std::string(kSlotNames[i]),
                                       kTick200ms, ValueKind::kInt32, Id("Linear", i), "counts");
    indexChannels_[i] = recording.Add("stage.IndexCapture." + std::string(kSlotNames[i]),
                                      kTick200ms, ValueKind::kInt32, Id("Index", i), "counts");
  }
  const char* flags[] = {"Moving", "Settled", "Stalled"};
  for (unsigned f = 0; f < 3; ++f) {
    flagChannels_[f] = recording.Add(std::string("status.") + flags[f] + ".Zoom", kTick200ms,
                                     ValueKind::kFlag, std::string(flags[f]) + "Zoom");
  }
  if (versionInfo.hasWAxis) {
    for (unsigned f = 0; f < 3; ++f) {
      flagChannels_[3 + f] = recording.Add(std::string("status.W") + flags[f], kTick200ms,
                                           ValueKind::kFlag, std::string(flags[f]) + "W");
    }
    wChannel_ =
        recording.Add("stage.RotaryPosition.W", kTick200ms, ValueKind::kInt32, "RotaryW", "counts");
    indexChannels_[kWSlot] =
        recording.Add("stage.IndexCapture.W", kTick200ms, ValueKind::kInt32, "IndexW", "counts");
  }
  estopChannel_ = recording.Add("status.EStop", kTick200ms, ValueKind::kFlag, "EStop");
  footswitchChannel_ =
      recording.Add("status.Footswitch", kTick200ms, ValueKind::kFlag, "Footswitch");
}

void CTabManualVisionStageDlg::RecordStatus(const ServoStatus& status) {
  constexpr unsigned zoom = 3;
  for (unsigned i = 0; i < 4; ++i)
    recording.Record(linearChannels_[i], status.LinearPosition[i]);
  const bool flags[6] = {status.Moving[zoom], status.Settled[zoom], status.Stalled[zoom],
                         status.WMoving,      status.WSettled,      status.WStalled};
  for (unsigned f = 0; f < 6; ++f)
    recording.Record(flagChannels_[f], flags[f]);
  recording.Record(estopChannel_, status.EStop);
  recording.Record(footswitchChannel_, status.Footswitch);
}
