// The pages against boards at the edges of what they must handle: a sensitivity maximum of 0 and
// other maxima, a touch probe the page switched off, a machine without a W axis, and the machine
// everyone starts, whose lights the Lights page shows whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "pages/Lights.h"
#include "pages/Probes.h"
#include "pages/Readings.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

class BoardEdges : public PageFixture {
 protected:
  // A shown page of `Page` on a board of `profile`, set up by `setUp` before the page's reset.
  template <class Page>
  Page& Open(const std::string& profile, const std::vector<std::string>& setUp = {}) {
    Start(profile);
    for (const std::string& line : setUp)
      Control(line);
    auto made = std::make_unique<Page>(&Servo(), version_);
    Page& p = *made;
    page = std::move(made);
    page->PageReady = true;
    page->ResetPage(version_);
    return p;
  }
  void Tick(std::uint32_t timer) {
    ASSERT_TRUE(Servo().PollStatus(status_, page->WantsCaptureData() ? 1 : 0, 1));
    page->UpdatePage(timer, status_);
  }
  std::string Text(const std::string& id) { return page->Doc().Text(id); }
  void Click(const std::string& id) { page->Events().Dispatch(ui::Event{.id = id}); }
  std::uint32_t Sent(std::uint8_t code) { return board_->TrafficSeen().commands[code]; }

  ServoStatus status_{};
  std::unique_ptr<CTabPage> page;
};

// The first generation's slider spans the board's own maximum. A board whose maximum is 0 has no
// sensitivity to set: the slider is left as the page made it, and the board is not asked for a
// value. A page that took 1023 for granted, or 0 for a range, fails here.
TEST_F(BoardEdges, TheSensitivitySliderSpansTheBoardsMaximumAndAMaximumOf0LeavesItAlone) {
  struct Case {
    int maximum;
    int sliderMax;
    unsigned asked;  // reads of the sensitivity
  };
  for (const Case& c : {Case{0, 1023, 0}, Case{500, 500, 1}, Case{2047, 2047, 1}}) {
    SCOPED_TRACE(c.maximum);
    Open<CTabProbesDlg>("servo", {"sensitivity max " + std::to_string(c.maximum)});
    const ui::ElementState slider = page->Doc().Snapshot().elements[kSensitivitySlider];
    EXPECT_EQ(Sent(0x79), 1u);
    EXPECT_EQ(Sent(0x78), c.asked);
    EXPECT_EQ(slider.max, c.sliderMax);
    // The board's sensitivity (512 as built) within its maximum, or nothing read.
    EXPECT_EQ(page->Doc().SliderPosition(kSensitivitySlider),
              c.asked ? std::min(512, c.maximum) : 0);
    EXPECT_EQ(Text("TPSens").empty(), c.asked == 0) << Text("TPSens");
    if (c.asked) {
      EXPECT_EQ(slider.pageStep, (c.maximum + 1) / 4);
    }
    page.reset();
    servo_.reset();
    link_.Close();
    board_->Stop();
  }
}

// The page's enable switch reaches the board: switched off, a touch shows no trip and brings no
// capture; switched on again, the touch that still stands shows, and the next one is captured.
TEST_F(BoardEdges, ATouchProbeThePageSwitchedOffNeitherTripsNorCaptures) {
  Open<CTabProbesDlg>("autovision");
  Click("TouchProbeInterruptEnable");
  Click("TouchProbeEnable");  // on (as the board powered up)
  Click("TouchProbeEnable");  // off
  Control("probe trip");
  Tick(3);
  EXPECT_EQ(Text("TouchProbeTrip"), "");
  EXPECT_FALSE(status_.TouchCaptureReady);
  Click("TouchProbeEnable");
  Tick(3);
  EXPECT_EQ(Text("TouchProbeTrip"), "Trip");
  EXPECT_EQ(Sent(0x36), 0u) << "a touch while switched off latched nothing";
  Control("probe release");
  Control("place y 61");
  Control("probe trip");
  Tick(3);
  EXPECT_EQ(Sent(0x36), 1u);
  EXPECT_EQ(Text("TouchProbeCaptureY"), std::to_string(status_.LinearPosition[1]));
}

// Without a W axis the Readings page neither asks for nor shows its temperature.
TEST_F(BoardEdges, TheReadingsPageOfAMachineWithoutAWAxisHasNoWTemperature) {
  for (const char* profile : {"autovision", "autovision-no-w"}) {
    SCOPED_TRACE(profile);
    const bool hasW = std::string(profile) == "autovision";
    Open<CTabReadingsDlg>(profile);
    Tick(4);
    unsigned asked = 0;
    for (const sim::Transfer& t : board_->TrafficSeen().recent)
      asked += t.request[0] == 0x5D && t.request[1] == 16 ? 1 : 0;
    EXPECT_EQ(asked, hasW ? 1u : 0u);
    EXPECT_EQ(Text("TempW").empty(), !hasW) << Text("TempW");
    EXPECT_FALSE(Text("Temp0").empty());
    EXPECT_TRUE(page->Connected);
    page.reset();
    servo_.reset();
    link_.Close();
    board_->Stop();
  }
}

// The machine everyone starts has its profile and coaxial channels within the page: nothing on
// the Lights page stands greyed.
TEST_F(BoardEdges, TheDefaultMachinesLightsAreShownWhole) {
  Open<CTabLightsDlg>("autovision");
  page->UpdateData();
  const int channels = std::stoi(Text("NumChannels"));
  EXPECT_LE(channels, 42);
  EXPECT_EQ(Text("CoaxChannelNum"), std::to_string(channels - 1));
  EXPECT_NE(Text("ProfileMaxValue"), "0");
  EXPECT_NE(Text("CoaxMaxValue"), "0");
  for (const char* id : {"ProfileCycle", "RawCoax", "RawProfile", "SurfaceSlider"})
    EXPECT_TRUE(page->Doc().Enabled(id)) << id;
}

}  // namespace
