#include "pages/UsbSerial.h"

#include <cstdint>

#include "util/Text.h"

template <class Base>
void UsbSerialPage<Base>::ResetPage(const BoardVersionInfo& record) {
  this->Connected = true;
  this->versionInfo = record;
  if (this->PageReady) this->UpdateData();
}

template <class Base>
void UsbSerialPage<Base>::UpdatePage(std::uint32_t timerId, const ServoStatus&) {
  typename Base::TickGuard guard(*this);
  if (!guard.Entered() || timerId != TickId(Tick::k200ms) || !this->Connected) return;

  std::string received;
  if (!this->controller->ReadDiagText(received)) {
    this->Connected = false;
    return;
  }
  if (received.empty()) return;
  logText += received;
  text::KeepLastCharacters(logText, kDiagLogLimit);

  // Decide before the new text goes in, from the view as the user left it.
  const bool follow = ViewFollowsEnd();
  // Only this element is touched, not the page's whole update.
  this->Doc().SetText("UsbSerial", logText);
  if (follow) this->Doc().PageDown("UsbSerial");
}

template <class Base>
bool UsbSerialPage<Base>::ViewFollowsEnd() {
  const auto scroll = this->Doc().Scroll("UsbSerial");
  if (!scroll) return false;
  // In 64 bits: the sizes come from a browser, and their difference need not fit an int.
  return scroll->scrollHeight > scroll->clientHeight &&
         std::int64_t{scroll->scrollHeight} - scroll->scrollTop <= scroll->clientHeight;
}

template class UsbSerialPage<CTabDlg>;
template class UsbSerialPage<CTabManualVisionDlg>;
