#include "pages/CTabDlg.h"

#include "platform/WindowProbe.h"

namespace {

struct DocumentOfId {
  std::uint32_t htmlId;
  const char* path;
};

// The documents of the pages there are, by resource id.
constexpr DocumentOfId kDocuments[] = {
    {104, "/pages/BoardInformation.html"},
    {105, "/pages/UsbSerial.html"},
    {106, "/pages/Stage.html"},
    {107, "/pages/Lights.html"},
    {108, "/pages/Readings.html"},
    {109, "/pages/Pendant.html"},
    {110, "/pages/V1BoardInformation.html"},
    {111, "/pages/V1Pendant.html"},
    {112, "/pages/Probes.html"},
    {113, "/pages/ManualVisionBoardInformation.html"},
    {114, "/pages/ManualVisionStage.html"},
    {115, "/pages/Readings.html"},  // the same elements; the page sets its own labels
    {117, "/pages/V1Lights.html"},
    {141, "/pages/V1Stage.html"},
};

}  // namespace

std::string PageDocumentPath(std::uint32_t htmlId) {
  for (const auto& d : kDocuments) {
    if (d.htmlId == htmlId) return d.path;
  }
  return {};
}

CTabPage::CTabPage(std::uint32_t /*templateId*/, std::uint32_t htmlId,
                   const BoardVersionInfo& version)
    : ui::HtmlPage(PageDocumentPath(htmlId)), versionInfo(version) {}

void CTabPage::UpdateData() {
  DataExchange dx(Doc());
  DoDataExchange(dx);
}

bool CTabPage::UpdateWarning(Banner state) {
  const bool running = platform::FindWindowOfClass(kMeasuringAppWindowClass);
  return ShowWarning(running, state);
}

bool CTabPage::ShowWarning(bool running, Banner state) {
  // The document model keeps the style even before a browser has loaded the page, so a banner
  // raised on the first tick is there when the document arrives.
  if (running && state == Banner::kDown) Doc().SetDisplay("WarningLabel", "inline");
  if (!running && state == Banner::kFading) Doc().SetDisplay("WarningLabel", "none");
  return running;
}
