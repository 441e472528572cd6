// The Lights pages against the simulated board in virtual time: the cycles' values tick by tick
// and which channels each cycle lights, the raw numbers accepted and refused, the sliders' ranges
// and the drag that sends at most one command a tick, the status light, the 5 s look at the
// count of channels, a count beyond the page's arrays, and a failed write.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "pages/Lights.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

class LightsTest : public OnePageFixture {
 protected:
  // A shown page of `Page` on a board of `profile` with `channels` light channels, every one with
  // the maximum `maximum` (0: as the board is built), after its first reset; `firmware` flashes
  // another release of the board's firmware first.
  template <class Page = CTabLightsDlg>
  void Open(const std::string& profile, int channels, std::uint32_t maximum = 0,
            const std::string& firmware = "") {
    Start(profile);
    Control("lights " + std::to_string(channels));
    if (maximum != 0) Control("lightmax all " + std::to_string(maximum));
    if (!firmware.empty()) Control("firmware " + firmware);
    Reconnect();  // the controller learns the count of channels when it opens
    Show<Page>(version_);
  }
  CTabLightsDlg& Lights() { return static_cast<CTabLightsDlg&>(*page); }
  void Tick(std::uint32_t timer) { page->UpdatePage(timer, status_); }
  void Ticks(std::uint32_t timer, int n) {
    for (int i = 0; i < n; ++i)
      Tick(timer);
  }
  ui::ElementState Element(const std::string& id) { return page->Doc().Snapshot().elements[id]; }
  // What a browser does when the operator leaves a raw box, or moves a slider one step.
  void Type(const std::string& id, const std::string& text) {
    page->Doc().TakeBrowserValue(id, text, std::nullopt);
    page->Events().Dispatch(ui::Event{.id = id, .kind = ui::EventKind::kChange, .value = text});
  }
  void Drag(const std::string& slider, int position) { Type(slider, std::to_string(position)); }
  // The values the board's channels hold now.
  std::vector<std::uint32_t> BoardLights() {
    const std::string answer = Control("lights");
    std::vector<std::uint32_t> values;
    std::istringstream in(answer.substr(answer.find("values=") + 7));
    std::string number;
    while (std::getline(in, number, ','))
      if (number != "-") values.push_back(static_cast<std::uint32_t>(std::stoul(number)));
    return values;
  }

  static constexpr std::uint8_t kSetLights = 0x6E;
  static constexpr std::uint8_t kStatusLight = 0x55;
};

// The ramp of a 64-tick cycle: 0 to 968 over 32 ticks, 968 again, back to 0 on the last tick.
// A ring's delay keeps it dark before and after its ramp; a maximum near the top of a long does
// not overflow the product. (The ramp itself is what the board receives, below.)
TEST(CycleValueTest, DelayedRampAndLargeMaxima) {
  const CycleShape ring{.Total = 320, .Ramp = 64, .Delay = 128};
  EXPECT_EQ(CycleValue(ring, 127, 1000), 0u);
  EXPECT_EQ(CycleValue(ring, 128 + 31, 1000), 968u);
  EXPECT_EQ(CycleValue(ring, 192, 1000), 0u);
  EXPECT_EQ(CycleValue({.Total = 64, .Ramp = 64, .Delay = 0}, 31, 4'000'000'000u), 3'875'000'000u);
}

TEST(RawTextTest, AcceptsDigitsWithinTheMaximumAndRefusesEverythingElse) {
  struct Case {
    const char* text;
    bool accepted;
    std::uint32_t value;
  };
  const Case cases[] = {
      {" 12 ", true, 12}, {"12", true, 12},
      {"", true, 0},      {"   ", true, 0},
      {"\t7", true, 7},   {"1000", true, 1000},
      {"0007", true, 7},  {"1001", false, 0},
      {"12a", false, 0},  {"1 2", false, 0},
      {"-5", false, 0},   {"+5", false, 0},
      {"0x10", false, 0}, {"1e3", false, 0},
      {"12.0", false, 0}, {"123456789012345678901234567890", false, 0},
  };
  for (const Case& c : cases) {
    std::uint32_t out = 99;
    EXPECT_EQ(ParseRawText(c.text, 1000, out), c.accepted) << '"' << c.text << '"';
    if (c.accepted) {
      EXPECT_EQ(out, c.value) << '"' << c.text << '"';
    }
  }
  std::uint32_t out = 0;
  EXPECT_TRUE(ParseRawText("4294967295", 4294967295u, out));
  EXPECT_EQ(out, 4294967295u);
  EXPECT_FALSE(ParseRawText("4294967296", 4294967295u, out));
}

// The page step turns coarse above 16384.
TEST(SliderStepsTest, PageStepTurnsCoarseAbove16384) {
  EXPECT_EQ(LightSliderSteps(16384).page, 16);
  EXPECT_EQ(LightSliderSteps(16385).page, 256);
  EXPECT_EQ(LightSliderSteps(16385).tick, 1024);
}

TEST_F(LightsTest, ChannelsMaximaAndSlidersAsTheBoardTellsThem) {
  Open("autovision", 10, 1000);
  Control("lightmax 8 2000");  // after the page read them: the page keeps its own
  page->UpdateData();
  EXPECT_EQ(Text("NumChannels"), "10");
  EXPECT_EQ(Text("ProfileChannelNum"), "8");
  EXPECT_EQ(Text("CoaxChannelNum"), "9");
  EXPECT_EQ(Text("SurfaceChannelNums"), "0 - 7");
  EXPECT_EQ(Text("ProfileMaxValue"), "1000");
  EXPECT_EQ(Text("SurfaceMaxValue"), "1000");
  const ui::ElementState profile = Element("ProfileSlider");
  EXPECT_EQ(profile.min, 0);
  EXPECT_EQ(profile.max, 1000);
  EXPECT_EQ(profile.lineStep, 1);
  EXPECT_EQ(profile.pageStep, 16);
  EXPECT_EQ(profile.tickSpacing, 62);
  const ui::ElementState led = Element("RawLedWORD2Slider");
  EXPECT_EQ(led.max, 65535);
  EXPECT_EQ(led.pageStep, 256);
  EXPECT_EQ(led.tickSpacing, 4096);
}

TEST_F(LightsTest, ProfileCycleSendsTheRampTickByTickAndEndsWithZero) {
  Open("autovision", 10, 1000);
  Click("ProfileCycle");
  const std::uint32_t before = Sent(kSetLights);
  std::vector<std::uint32_t> sent;
  for (int tick = 0; tick < 64; ++tick) {
    EXPECT_TRUE(Lights().Cycling) << tick;
    Tick(1);
    sent.push_back(BoardLights()[8]);
  }
  EXPECT_FALSE(Lights().Cycling);
  EXPECT_EQ(Sent(kSetLights) - before, 64u);
  // 0 to 968 over 32 ticks, 968 again, back to 0 on the last tick.
  EXPECT_EQ(sent.front(), 0u);
  EXPECT_EQ(sent[1], 31u);
  EXPECT_EQ(sent[31], 968u);
  EXPECT_EQ(sent[32], 968u);
  EXPECT_EQ(sent.back(), 0u);
  for (std::size_t tick = 0; tick < 32; ++tick)
    EXPECT_EQ(sent[tick], sent[63 - tick]) << tick;
  // Every other channel got the cycle's values, which are 0: not the raw ones.
  EXPECT_EQ(BoardLights()[9], 0u);
  Tick(1);
  EXPECT_EQ(Sent(kSetLights) - before, 64u) << "a finished cycle sends nothing more";
}

TEST_F(LightsTest, CyclesNeedAPageShownAndALiveLink) {
  Open("autovision", 10, 1000);
  page->PageReady = false;
  Click("CoaxCycle");
  const std::uint32_t before = Sent(kSetLights);
  Ticks(1, 5);
  EXPECT_EQ(Sent(kSetLights), before);
  page->PageReady = true;
  Tick(1);
  EXPECT_EQ(Sent(kSetLights), before + 1);
}

// Five rings of eight surface channels, 64 ticks each, whether their channels are there or not:
// the profile and coaxial channels, the last two, are in none.
TEST_F(LightsTest, RingCycleLightsOneRingAfterTheOtherAndLastsFiveRings) {
  struct Case {
    std::uint32_t channels;
    int ticks;  // to the top of the ramp of the ring whose channels are lit
    std::uint32_t firstLit, endLit;
  };
  for (const Case c : {Case{10, 32, 0, 8}, Case{42, 4 * 64 + 32, 32, 40}}) {
    SCOPED_TRACE(c.channels);
    Open("autovision", c.channels, 1000);
    Click("SurfaceCycleRing");
    for (std::uint32_t ch = 0; ch < c.channels; ++ch)
      EXPECT_EQ(Lights().ChannelCyclingOf(ch), ch + 2 < c.channels) << ch;
    Ticks(1, c.ticks);
    const std::vector<std::uint32_t> values = BoardLights();
    ASSERT_EQ(values.size(), c.channels);
    for (std::uint32_t ch = 0; ch < c.channels; ++ch)
      EXPECT_EQ(values[ch], ch >= c.firstLit && ch < c.endLit ? 968u : 0u) << ch;
    Ticks(1, 319 - c.ticks);
    EXPECT_EQ(BoardLights()[0], 0u);
    EXPECT_TRUE(Lights().Cycling);
    Tick(1);
    EXPECT_FALSE(Lights().Cycling);
    StopBoard();
  }
}

TEST_F(LightsTest, OctantsLightOneChannelAfterTheOtherOver512Ticks) {
  Open("autovision", 10, 1000);
  Click("SurfaceCycleOctant");
  for (std::uint32_t octant = 0; octant < 8; ++octant) {
    Ticks(1, 32);  // to the top of this octant's ramp
    const std::vector<std::uint32_t> values = BoardLights();
    for (std::uint32_t c = 0; c < 8; ++c)
      EXPECT_EQ(values[c], c == octant ? 968u : 0u) << "octant " << octant << " channel " << c;
    Ticks(1, 32);
  }
  EXPECT_FALSE(Lights().Cycling);
}

TEST_F(LightsTest, AButtonDuringACycleAddsItsChannelsAndRestartsThoseAlreadyIn) {
  Open("autovision", 10, 1000);
  Click("ProfileCycle");
  Ticks(1, 40);
  Click("CoaxCycle");
  Click("ProfileCycle");  // starts again from tick 0
  Ticks(1, 32);
  EXPECT_EQ(BoardLights()[8], 968u);
  EXPECT_EQ(BoardLights()[9], 968u);
}

TEST_F(LightsTest, OneChannelLeavesEveryCycleButtonIdle) {
  Open("autovision", 1, 1000);
  page->UpdateData();
  EXPECT_EQ(Text("ProfileChannelNum"), "0");
  EXPECT_EQ(Text("CoaxChannelNum"), "0");
  for (const char* button :
       {"ProfileCycle", "CoaxCycle", "SurfaceCycle", "SurfaceCycleRing", "SurfaceCycleOctant"}) {
    Click(button);
    EXPECT_FALSE(Lights().Cycling) << button;
  }
}

TEST_F(LightsTest, TwoChannelsCycleProfileAndCoaxButNoSurface) {
  Open("autovision", 2, 1000);
  page->UpdateData();
  EXPECT_EQ(Text("SurfaceChannelNums"), "");
  EXPECT_FALSE(Has("SurfaceMaxValue"));
  Click("SurfaceCycle");
  EXPECT_FALSE(Lights().Cycling);
  Click("ProfileCycle");
  EXPECT_TRUE(Lights().Cycling);
  EXPECT_TRUE(Lights().ChannelCyclingOf(0));
}

TEST_F(LightsTest, RawTextsSetTheirChannelsOrGoBackToTheLastAcceptedNumber) {
  Open("autovision", 10, 1000);
  struct Step {
    const char* box;
    const char* typed;
    const char* shown;
    std::uint32_t profile, coax, surface;
  };
  const Step steps[] = {
      {"RawProfile", " 12 ", " 12 ", 12, 0, 0},
      {"RawProfile", "12a", "12", 12, 0, 0},
      {"RawProfile", "1001", "12", 12, 0, 0},
      {"RawProfile", "1000", "1000", 1000, 0, 0},
      {"RawProfile", "123456789012345678901234567890", "1000", 1000, 0, 0},
      {"RawProfile", "", "", 0, 0, 0},
      {"RawCoax", "-5", "0", 0, 0, 0},
      {"RawCoax", "+5", "0", 0, 0, 0},
      {"RawCoax", "77", "77", 0, 77, 0},
      {"RawSurface", "5 5", "0", 0, 77, 0},
      {"RawSurface", "300", "300", 0, 77, 300},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(std::string(s.box) + " <- \"" + s.typed + "\"");
    Type(s.box, s.typed);
    EXPECT_EQ(Text(s.box), s.shown);
    const std::vector<std::uint32_t> values = BoardLights();
    EXPECT_EQ(values[8], s.profile);
    EXPECT_EQ(values[9], s.coax);
    EXPECT_EQ(values[0], s.surface);
    EXPECT_EQ(values[7], s.surface);
    EXPECT_EQ(page->Doc().SliderPosition("ProfileSlider"), static_cast<std::int32_t>(s.profile));
  }
  EXPECT_EQ(page->Doc().SliderPosition("SurfaceSlider"), 300);
}

// A drag reports every position; the board gets the first at once, at most one more a tick, and
// always the last.
TEST_F(LightsTest, ADragSendsAtMostOneCommandATickAndAlwaysTheLastPosition) {
  Open("autovision", 10, 1000);
  Tick(1);
  const std::uint32_t before = Sent(kSetLights);
  for (int position : {100, 150, 200, 250})
    Drag("ProfileSlider", position);
  EXPECT_EQ(Sent(kSetLights) - before, 1u);
  EXPECT_EQ(BoardLights()[8], 100u);
  EXPECT_EQ(Text("RawProfile"), "250");
  Tick(1);
  EXPECT_EQ(Sent(kSetLights) - before, 2u);
  EXPECT_EQ(BoardLights()[8], 250u);
  Drag("ProfileSlider", 300);  // a move in the tick after a send waits for the next one
  EXPECT_EQ(Sent(kSetLights) - before, 2u);
  Tick(1);
  Tick(1);
  EXPECT_EQ(Sent(kSetLights) - before, 3u);
  EXPECT_EQ(BoardLights()[8], 300u);
  Drag("ProfileSlider", 310);  // after a quiet tick a move goes at once
  EXPECT_EQ(Sent(kSetLights) - before, 4u);

  // The words' sliders in the same way, each pair its own command.
  const std::uint32_t words = Sent(kStatusLight);
  for (int position : {1, 2, 3})
    Drag("RawLedWORD1Slider", position);
  Drag("RawPendWORD1Slider", 9);
  EXPECT_EQ(Sent(kStatusLight) - words, 2u);
  Tick(1);
  EXPECT_EQ(Sent(kStatusLight) - words, 3u);
  EXPECT_NE(Control("statuslight").find("led=3,0,9,0"), std::string::npos);
}

TEST_F(LightsTest, SliderPositionsOutsideTheRangeAreCutToIt) {
  Open("autovision", 10, 1000);
  Drag("ProfileSlider", 5000);
  EXPECT_EQ(Text("RawProfile"), "1000");
  Drag("CoaxSlider", -3);
  EXPECT_EQ(Text("RawCoax"), "0");
  Type("SurfaceSlider", "not a number");
  EXPECT_EQ(Text("RawSurface"), "0");
}

TEST_F(LightsTest, StatusLightButtonsSendTheColourAndClearTheRawWords) {
  Open("autovision", 10, 1000);
  Drag("RawLedWORD1Slider", 500);
  Drag("RawLedWORD2Slider", 600);  // held for the next tick ...
  Click("StatusLightAmber");       // ... and dropped by the clearing
  Tick(1);
  EXPECT_NE(Control("statuslight").find("statuslight=amber led=500,0,0,0"), std::string::npos);
  EXPECT_EQ(Text("RawLedWORD1"), "");
  EXPECT_EQ(Text("RawLedWORD2"), "");
  EXPECT_EQ(page->Doc().SliderPosition("RawLedWORD1Slider"), 0);
}

TEST_F(LightsTest, StatusLightBelowItsReleaseSendsNothingAndStillClearsTheWords) {
  Open("autovision", 10, 1000, "2.17");
  Drag("RawPendWORD1Slider", 42);
  EXPECT_EQ(Text("RawPendWORD1"), "42");
  const std::uint32_t before = Sent(kStatusLight);
  Click("StatusLightRed");
  EXPECT_EQ(Sent(kStatusLight), before);
  EXPECT_EQ(Text("RawPendWORD1"), "");
  EXPECT_EQ(page->Doc().SliderPosition("RawPendWORD1Slider"), 0);
}

TEST_F(LightsTest, ACountChangeIsSeenWithinFiveSecondsAndClearsCyclesAndRawValues) {
  Open("autovision", 10, 1000);
  Type("RawCoax", "500");
  Click("SurfaceCycle");
  Control("lights 12");
  Ticks(3, 24);
  EXPECT_EQ(Lights().ChannelCount, 10u);
  Tick(3);  // the 25th: 5 s
  EXPECT_EQ(Lights().ChannelCount, 12u);
  EXPECT_FALSE(Lights().Cycling);
  EXPECT_EQ(Lights().RawValue(9), 0u);
  EXPECT_EQ(Text("NumChannels"), "12");
  EXPECT_EQ(Text("ProfileChannelNum"), "10");
  EXPECT_EQ(Text("RawCoax"), "");
  // The sliders keep the ranges of the start.
  EXPECT_EQ(Element("CoaxSlider").max, 1000);
  // And the next look is 5 s later again.
  const std::uint32_t versions = Sent(0x2B);
  Ticks(3, 24);
  EXPECT_EQ(Sent(0x2B), versions);
  Tick(3);
  EXPECT_EQ(Sent(0x2B), versions + 1);
}

TEST_F(LightsTest, ChannelsBeyondThePageArraysAreNeverDriven) {
  Open("autovision", 48, 1000);
  page->UpdateData();
  EXPECT_EQ(Text("NumChannels"), "48");
  EXPECT_EQ(Text("ProfileChannelNum"), "46");
  EXPECT_EQ(Text("ProfileMaxValue"), "0");
  EXPECT_FALSE(page->Doc().Enabled("ProfileCycle"));
  EXPECT_FALSE(page->Doc().Enabled("RawCoax"));
  EXPECT_TRUE(page->Doc().Enabled("SurfaceSlider"));
  Click("ProfileCycle");  // a browser that clicks anyway
  EXPECT_FALSE(Lights().Cycling);
  Type("RawSurface", "700");
  const std::vector<std::uint32_t> values = BoardLights();
  for (std::uint32_t c = 0; c < 48; ++c)
    EXPECT_EQ(values[c], c < 42 ? 700u : 0u) << c;
  Type("RawProfile", "5");
  EXPECT_EQ(Text("RawProfile"), "0");
  Click("SurfaceCycleRing");
  EXPECT_TRUE(Lights().ChannelCyclingOf(39));
  EXPECT_FALSE(Lights().ChannelCyclingOf(40)) << "a sixth ring has no row";
  Ticks(1, 320);
  EXPECT_FALSE(Lights().Cycling);
}

TEST_F(LightsTest, AFailedWriteEndsTheCycleAndSilencesThePageUntilItsReset) {
  Open("autovision", 10, 1000);
  Click("ProfileCycle");
  Tick(1);
  Control("fault status 0x6E");
  Tick(1);
  Control("fault clear");
  EXPECT_FALSE(page->Connected);
  EXPECT_FALSE(Lights().Cycling);
  Control("lights 12");
  const std::uint32_t versions = Sent(0x2B);
  Ticks(3, 30);
  EXPECT_EQ(Sent(0x2B), versions) << "no look at the count while silent";
  page->ResetPage(version_);
  EXPECT_TRUE(page->Connected);
}

TEST_F(LightsTest, TheFirstGenerationPageHasNoStatusLightsAndPushesOnReset) {
  Open<CTabV1LightsDlg>("servo", 5);
  EXPECT_FALSE(page->Events().Has("StatusLightRed", ui::EventKind::kClick));
  EXPECT_FALSE(page->Events().Has("RawLedWORD1Slider", ui::EventKind::kChange));
  EXPECT_EQ(Text("NumChannels"), "5") << "the reset of a shown page pushes";
  Type("RawProfile", "100");
  EXPECT_EQ(BoardLights()[3], 100u);
}

TEST_F(LightsTest, ManualVisionLightsCycleOnItsOwnController) {
  Open<CTabManualVisionLightsDlg>("manualvision", 16);
  EXPECT_EQ(Text("CoaxChannelNum"), "15");
  EXPECT_FALSE(page->Events().Has("StatusLightOff", ui::EventKind::kClick));
  Click("CoaxCycle");
  Ticks(1, 32);
  EXPECT_EQ(BoardLights()[15], (4095u - 5 * 15) * 31 / 32);
}

}  // namespace
