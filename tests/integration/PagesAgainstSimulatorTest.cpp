// Every page of every family against the simulated board: the real main dialog with its timers
// and pages, a browser that shows each tab in turn for some seconds of virtual time, and the
// board's record of every transfer. Each read a page makes must go out in the form the board's
// generation speaks: a wrong length, a command the board does not know or one on the wrong io
// code comes back refused or cut, which the board's record of its transfers shows even when the
// dialog has reconnected by the time the test looks.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/integration/DialogRig.h"

namespace {

using namespace testing_support;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint32_t kLinkOpenedCode = 0x80002010;
constexpr std::uint8_t kPoll = 0x59;

// What a page must at least read while it is shown, by the command bytes of its reads.
struct PageReads {
  const char* title;
  const char* document;
  std::set<std::uint8_t> codes;
};

struct Family {
  const char* profile;
  bool manualVision;
  std::vector<PageReads> pages;  // in tab order
};

// Status poll 0x59, board data 0x57 (the voltages among it), temperature 0x5D, laser points 0x5F,
// laser settings 0x2A, touch capture 0x36, probe capture 0x6B, diagnostic text 0x22. Where a page
// has nothing of its own to read on a board, the poll stands in.
PageReads Probes(std::set<std::uint8_t> codes) {
  return {"Probes", "/pages/Probes.html", std::move(codes)};
}
PageReads Diag(std::uint8_t code) {
  return {"Diag Output", "/pages/UsbSerial.html", {code}};
}
// The first generation's pages before its probes, and the manual-vision family's.
const std::vector<PageReads> kV1Pages = {
    {"Board Information", "/pages/V1BoardInformation.html", {0x59}},
    {"Stage", "/pages/V1Stage.html", {0x59}},
    {"Pendant", "/pages/V1Pendant.html", {0x59}},
    {"Lights", "/pages/V1Lights.html", {0x59}}};
const std::vector<PageReads> kManualVisionPages = {
    {"Board Information", "/pages/ManualVisionBoardInformation.html", {0x59}},
    {"Stage", "/pages/ManualVisionStage.html", {0x59}},
    {"Lights", "/pages/V1Lights.html", {0x59}}};

std::vector<PageReads> Pages(std::vector<PageReads> first, std::vector<PageReads> rest) {
  first.insert(first.end(), rest.begin(), rest.end());
  return first;
}

const Family kFamilies[] = {
    {"autovision",
     false,
     {{"Board Information", "/pages/BoardInformation.html", {0x59}},
      {"Stage", "/pages/Stage.html", {0x59}},
      {"Pendant", "/pages/Pendant.html", {0x57}},
      {"Lights", "/pages/Lights.html", {0x59}},
      {"Readings", "/pages/Readings.html", {0x5D, 0x57}},
      Probes({0x5F, 0x2A, 0x36, 0x6B}),
      Diag(0x22)}},
    {"servo", false, Pages(kV1Pages, {Probes({0x36, 0x6B}), Diag(0x59)})},
    // The first generation with a laser: the packed form of its points.
    {"servo-laser", false, Pages(kV1Pages, {Probes({0x5F, 0x36, 0x6B}), Diag(0x59)})},
    {"manualvision", true,
     Pages(kManualVisionPages, {{"Readings", "/pages/Readings.html", {0x5D, 0x57}},
                                Probes({0x5F, 0x2A, 0x36, 0x6B}),
                                Diag(0x22)})},
    // Older generations: protocol 0, whose set commands answer nothing; the laser's 20- and
    // 17-byte forms; manual-vision boards without voltages or without a laser.
    {"servo-pv0", false, Pages(kV1Pages, {Probes({0x6B}), Diag(0x59)})},
    {"servo-pv3", false, Pages(kV1Pages, {Probes({0x5F, 0x36, 0x6B}), Diag(0x59)})},
    {"servo-pv2", false, Pages(kV1Pages, {Probes({0x5F, 0x2A, 0x36, 0x6B}), Diag(0x22)})},
    {"manualvision-pv4", true,
     Pages(kManualVisionPages, {{"Readings", "/pages/Readings.html", {0x5D}},
                                Probes({0x5F, 0x2A, 0x36, 0x6B}),
                                Diag(0x22)})},
    {"manualvision-pv0", true,
     Pages(kManualVisionPages,
           {{"Readings", "/pages/Readings.html", {0x5D}}, Probes({0x36, 0x6B}), Diag(0x59)})},
};

class PagesAgainstSimulator : public DialogRig, public ::testing::WithParamInterface<Family> {
 protected:
  void SetUp() override {
    OpenDialog(GetParam().profile, GetParam().manualVision);
    seen_ = board_->TrafficSeen().total;
  }

  // Runs `span` of machine time in 20 ms steps, looking at every transfer the board saw: each
  // must have been answered with status 0 and exactly the bytes the host asked for. Notes the
  // command bytes of the transfers with their io codes, and the polls that asked for capture data.
  struct Seen {
    std::map<std::uint8_t, std::set<std::uint32_t>> codes;
    unsigned captureAsks = 0;
  };
  void Run(platform::Duration span, Seen& seen) {
    const auto end = clock.Now() + span;
    while (clock.Now() < end) {
      clock.SleepFor(milliseconds(20));
      const sim::Traffic t = board_->TrafficSeen();
      ASSERT_FALSE(t.recent.empty());
      ASSERT_LE(t.recent.front().sequence, seen_ + 1) << "transfers went by unseen";
      for (const sim::Transfer& x : t.recent) {
        if (x.sequence <= seen_) continue;
        seen_ = x.sequence;
        if (x.code == kLinkOpenedCode) continue;
        seen.codes[x.request[0]].insert(x.code);
        if (x.request[0] == kPoll && x.request[1] != 0) ++seen.captureAsks;
        EXPECT_TRUE(x.answered && x.status == 0 && x.bytesReturned == x.replyLength)
            << "command 0x" << std::hex << int{x.request[0]} << " of " << std::dec
            << x.requestLength << " bytes: status " << x.status << ", " << x.bytesReturned << " of "
            << x.replyLength << " bytes";
      }
    }
  }

  // Whether the dialog and every page are connected, as the UI thread sees them.
  bool AllConnected() {
    bool all = true;
    OnUi([&] {
      all = dlg->IsConnected() && dlg->Title().find("Disconnected") == std::string::npos;
      for (int p = 0; p < dlg->PageCount(); ++p)
        all = all && PageAt(p).Connected;
    });
    return all;
  }
  std::map<std::string, ui::ElementState> Elements(ui::Document& doc) {
    std::map<std::string, ui::ElementState> elements;
    OnUi([&] { elements = doc.Snapshot().elements; });
    return elements;
  }
  bool WantsCapture(int tab) {
    bool wants = false;
    OnUi([&] { wants = PageAt(tab).WantsCaptureData(); });
    return wants;
  }

  CTabPage& PageAt(int tab) {
    CTabPage* page = dlg->Page(tab);
    if (!page) throw std::out_of_range("no page at tab " + std::to_string(tab));
    return *page;
  }

  std::uint32_t seen_ = 0;
};

TEST_P(PagesAgainstSimulator, EveryPageShownInTurnReadsInItsGenerationsForms) {
  const Family& f = GetParam();
  ASSERT_EQ(dlg->PageCount(), static_cast<int>(f.pages.size()));
  op.Connect();
  for (int tab = 0; tab < dlg->PageCount(); ++tab)
    op.Load(tab);
  for (int tab = 0; tab < dlg->PageCount(); ++tab) {
    const PageReads& expected = f.pages[static_cast<std::size_t>(tab)];
    SCOPED_TRACE(expected.title);
    EXPECT_EQ(PageAt(tab).DocumentPath(), expected.document);
    op.Show(tab);
    Seen seen;
    Run(seconds(3), seen);
    const bool probes = expected.title == std::string("Probes");
    if (!probes) {
      EXPECT_EQ(seen.captureAsks, 0u) << "no source is armed";
    }
    if (probes) {
      // Each source armed in turn, with something to catch: the touch probe trips, the camera
      // triggers every 250 ms, the laser has points waiting.
      Control("laser points 5");
      for (const char* box : {"TouchProbeInterruptEnable", "VideoInterruptEnable",
                              "LaserInterruptEnable", "LaserInterruptEnable"}) {
        op.Click(tab, box);
        Run(milliseconds(100), seen);  // the board arms the source before the probe touches
        Control("probe trip");
        Run(seconds(1), seen);
        Control("probe release");
        Run(milliseconds(500), seen);
      }
      EXPECT_GT(seen.captureAsks, 0u) << "the poll asks for capture data while a source is armed";
      // Without a laser the video trigger stays armed: disarmed, the poll asks for nothing more.
      if (WantsCapture(tab)) op.Click(tab, "VideoInterruptEnable");
      Run(milliseconds(300), seen);
      EXPECT_FALSE(WantsCapture(tab));
    }
    for (std::uint8_t code : expected.codes)
      EXPECT_TRUE(seen.codes.count(code)) << "no command 0x" << std::hex << int{code};
    // The capture commands go on the capture code, everything else on the normal one.
    for (const auto& [code, ioCodes] : seen.codes) {
      const bool capture = code == 0x6B || code == 0x5F;
      EXPECT_EQ(ioCodes, std::set<std::uint32_t>{capture ? 0x80002008u : 0x80002000u})
          << "command 0x" << std::hex << int{code};
    }
    EXPECT_TRUE(AllConnected());
  }
  EXPECT_TRUE(log.Entries().empty()) << log.Entries().front();
  EXPECT_TRUE(op.Dialogs().empty()) << op.Dialogs().front().text;
}

// The Readings page of the families that have it fills every voltage and colours a rail walked
// out of tolerance; the Probes page shows the video trigger's capture.
TEST_P(PagesAgainstSimulator, ReadingsAndCapturesReachTheDocuments) {
  const Family& f = GetParam();
  op.Connect();
  for (int tab = 0; tab < dlg->PageCount(); ++tab)
    op.Load(tab);
  Seen seen;
  for (int tab = 0; tab < dlg->PageCount(); ++tab) {
    const std::string title = f.pages[static_cast<std::size_t>(tab)].title;
    ui::Document& doc = PageAt(tab).Doc();
    op.Show(tab);
    if (title == "Readings" && f.pages[static_cast<std::size_t>(tab)].codes.count(0x57)) {
      Control("supply 0 -7");
      Run(milliseconds(1100), seen);
      const auto elements = Elements(doc);
      for (unsigned i = 0; i < 16; ++i)
        EXPECT_NE(elements.at("Analog" + std::to_string(i)).value.value_or(""), "") << i;
      EXPECT_EQ(elements.at("Analog0").background, "#ffff00");
      EXPECT_EQ(elements.at("Analog1").background, "#ffffff");
    }
    if (title == "Probes") {
      Control("place x 100");
      op.Click(tab, "VideoInterruptEnable");
      Run(milliseconds(600), seen);
      const std::string axis = board_->Command("axis x");
      const std::size_t at = axis.find("counts=") + 7;
      const auto elements = Elements(doc);
      EXPECT_EQ(elements.at("VideoCaptureX").value, axis.substr(at, axis.find(' ', at) - at));
      EXPECT_EQ(elements.at("VideoInterruptEnable").checked, true);
    }
  }
  EXPECT_TRUE(AllConnected());
}

INSTANTIATE_TEST_SUITE_P(Families, PagesAgainstSimulator, ::testing::ValuesIn(kFamilies),
                         [](const ::testing::TestParamInfo<Family>& param) {
                           std::string name = param.param.profile;
                           std::erase(name, '-');
                           return name;
                         });

}  // namespace
