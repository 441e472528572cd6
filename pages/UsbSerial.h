// The Diag Output page, last tab of every family: a running log of the text the board's firmware
// hands out on request. It reads on every 200 ms tick whether shown or not, so nothing is lost
// while another tab is on top, and keeps the newest 20000 characters.
#pragma once

#include <cstddef>
#include <string>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "pages/CTabDlg.h"

inline constexpr std::size_t kDiagLogLimit = 20000;  // characters, not bytes

template <class Base>
class UsbSerialPage : public Base {
 public:
  template <class Controller>
  UsbSerialPage(Controller* owner, const BoardVersionInfo& version)
      : Base(103, 105, owner, version) {
    this->Doc().WatchScroll("UsbSerial");
  }

  // Keeps the log: it survives a reconnection.
  void ResetPage(const BoardVersionInfo& record) override;
  void UpdatePage(std::uint32_t timerId, const ServoStatus& status) override;

  const std::string& LogText() const { return logText; }

 protected:
  void DoDataExchange(DataExchange& dx) override { dx.Text("UsbSerial", logText); }

 private:
  // Whether the view shows the end of the text: its content is taller than the view and the
  // part below the top of the view fits in it. Unknown (no browser reported yet): no.
  bool ViewFollowsEnd();

  std::string logText;
};

class CTabUsbSerialDlg final : public UsbSerialPage<CTabDlg> {
 public:
  using UsbSerialPage::UsbSerialPage;
};

class CTabManualVisionUsbSerialDlg final : public UsbSerialPage<CTabManualVisionDlg> {
 public:
  using UsbSerialPage::UsbSerialPage;
};

extern template class UsbSerialPage<CTabDlg>;
extern template class UsbSerialPage<CTabManualVisionDlg>;
