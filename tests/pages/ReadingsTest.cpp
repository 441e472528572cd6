// The Readings pages against the simulated board in virtual time: the colour limits of a voltage,
// the temperature texts, rails walked out of their tolerance, a hidden page, a failed read, boards
// that answer no voltages, and the manual-vision page's constants.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "pages/Readings.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

// A deviation exactly at a limit takes the milder colour. The pairs are exact in binary, so the
// limits are met exactly, not a rounding either side of them.
TEST(VoltageColourTest, RedAboveTenPercentYellowAboveFiveElseWhite) {
  struct Case {
    double volts, nominal;
    const char* colour;
  };
  const Case cases[] = {
      {20.0, 20.0, kVoltageWhite},   {21.0, 20.0, kVoltageWhite},  {19.0, 20.0, kVoltageWhite},
      {21.01, 20.0, kVoltageYellow}, {18.9, 20.0, kVoltageYellow}, {22.0, 20.0, kVoltageYellow},
      {18.0, 20.0, kVoltageYellow},  {22.01, 20.0, kVoltageRed},   {17.9, 20.0, kVoltageRed},
      {0.0, 24.0, kVoltageRed},
  };
  for (const Case& c : cases)
    EXPECT_STREQ(VoltageColour(c.volts, c.nominal), c.colour) << c.volts << " of " << c.nominal;
}

TEST(TemperatureTextTest, EmptyUnlessRawAndScaleAreAboveZero) {
  struct Case {
    std::int32_t raw;
    double scale;
    const char* text;
  };
  const Case cases[] = {{2512, 0.01, "25.12 C"}, {1, 0.01, " 0.01 C"}, {0, 0.01, ""},
                        {-250, 0.01, ""},        {2512, 0.0, ""},      {2512, -0.01, ""}};
  for (const Case& c : cases)
    EXPECT_EQ(TemperatureText(c.raw, c.scale), c.text) << c.raw << " x " << c.scale;
}

TEST(VoltsPerCountTest, FullScaleIsTheNominalOverTheDividerAndSpareChannelsCountRaw) {
  EXPECT_DOUBLE_EQ(VoltsPerCount(kAutoVisionReadings.channels[4]) * 65535, 1.2 / 0.3636);
  EXPECT_DOUBLE_EQ(VoltsPerCount(kManualVisionReadings.channels[7]) * 65535, 2.5 / 0.88);
  for (unsigned i = 8; i < kVoltageChannels; ++i)
    EXPECT_EQ(VoltsPerCount(kManualVisionReadings.channels[i]), 1.0) << i;
}

class ReadingsTest : public OnePageFixture {
 protected:
  // A shown page of `Page` on a board of `profile` after its first reset; `firmware` flashes
  // another release first.
  template <class Page = CTabReadingsDlg>
  void Open(const std::string& profile, const std::string& firmware = "") {
    Start(profile);
    if (!firmware.empty()) {
      Control("firmware " + firmware);
      Reconnect();
    }
    Show<Page>(version_);
  }
  void Tick() { page->UpdatePage(4, status_); }
  std::string Colour(unsigned channel) {
    return page->Doc().Snapshot().elements[IndexedId("Analog", channel, false)].background.value_or(
        "");
  }
  double Volts(unsigned channel) { return std::stod(Text(IndexedId("Analog", channel, false))); }

  static constexpr std::uint8_t kBoardData = 0x57;
  static constexpr std::uint8_t kTemperature = 0x5D;
};

TEST_F(ReadingsTest, EveryRailAndSensorOfTheBoardAsBuilt) {
  Open("autovision");
  Tick();
  for (unsigned i = 0; i < kVoltageChannels; ++i) {
    SCOPED_TRACE(i);
    const double nominal = kAutoVisionReadings.channels[i].nominal;
    EXPECT_NEAR(Volts(i), nominal * 0.99, nominal * 0.01) << "1 % low as built";
    EXPECT_EQ(Colour(i), kVoltageWhite);
    EXPECT_EQ(page->Doc().Text(IndexedId("AnalogLabel", i, false)),
              kAutoVisionReadings.channels[i].label);
  }
  EXPECT_EQ(Text("Temp0").substr(0, 3), "24.");
  EXPECT_EQ(Text("Temp0").substr(Text("Temp0").size() - 2), " C");
  EXPECT_EQ(Text("Temp6"), "") << "a sensor that is not fitted reads 0";
  EXPECT_EQ(Text("TempW").substr(0, 3), "29.");
}

// A rail walked away from its nominal turns its cell yellow beyond 5 % and red beyond 10 %, either
// way, and back to white within them. The FPGA's 1.2 V rail, as its divider lets the converter
// read it up to 2.75 times its nominal.
TEST_F(ReadingsTest, ARailOutOfToleranceChangesItsColour) {
  Open("autovision");
  Tick();
  struct Step {
    const char* percent;
    const char* colour;
  };
  const Step steps[] = {{"4", kVoltageWhite},  {"7", kVoltageYellow},  {"12", kVoltageRed},
                        {"-3", kVoltageWhite}, {"-7", kVoltageYellow}, {"-12", kVoltageRed},
                        {"0", kVoltageWhite}};
  for (const Step& s : steps) {
    SCOPED_TRACE(s.percent);
    Control(std::string("supply 4 ") + s.percent);
    Tick();
    EXPECT_EQ(Colour(4), s.colour);
    EXPECT_NEAR(Volts(4), 1.2 * (1 + std::stod(s.percent) / 100), 0.02);
    EXPECT_EQ(Colour(5), kVoltageWhite) << "its neighbour stays as it was";
  }
}

// A temperature of 0 or below shows an empty text; the W sensor is read as well.
TEST_F(ReadingsTest, TemperaturesOfZeroOrBelowShowNothing) {
  Open("autovision");
  Tick();
  struct Step {
    const char* control;
    const char* id;
    double celsius;  // 0: the text is empty
  };
  const Step steps[] = {{"temp 2 41", "Temp2", 41}, {"temp 2 -5", "Temp2", 0},
                        {"temp 3 55", "Temp3", 55}, {"temp 3 -200", "Temp3", 0},
                        {"temp w 33", "TempW", 33}, {"temp w -1", "TempW", 0}};
  for (const Step& s : steps) {
    SCOPED_TRACE(s.control);
    Control(s.control);
    Tick();
    if (s.celsius == 0) {
      EXPECT_EQ(Text(s.id), "");
    } else {
      EXPECT_NEAR(std::stod(Text(s.id)), s.celsius, 0.1);
    }
  }
}

TEST_F(ReadingsTest, AHiddenPageReadsNothing) {
  Open("autovision");
  page->PageReady = false;
  Tick();
  EXPECT_EQ(Sent(kTemperature), 0u);
  EXPECT_EQ(Sent(kBoardData), 0u);
  EXPECT_EQ(Text("Analog3"), "");
  page->PageReady = true;
  for (std::uint32_t timer : {1u, 2u, 3u})
    page->UpdatePage(timer, status_);
  EXPECT_EQ(Sent(kTemperature), 0u) << "only the 1000 ms tick reads";
  Tick();
  EXPECT_EQ(Sent(kTemperature), 9u) << "eight sensors and the W axis's";
  EXPECT_EQ(Sent(kBoardData), 1u);
}

// A failed read keeps what was read before it but shows nothing, and the page stays silent
// until its reset, after which the first tick repaints everything.
TEST_F(ReadingsTest, AFailedReadSilencesThePageUntilItsReset) {
  for (const std::uint8_t code : {kTemperature, kBoardData}) {
    SCOPED_TRACE(code);
    Open("autovision");
    Control("fault refuse " + std::to_string(code));
    Tick();
    EXPECT_FALSE(page->Connected);
    EXPECT_EQ(Text("Temp0"), "");
    EXPECT_EQ(Text("Analog0"), "");
    Control("fault clear");
    ASSERT_EQ(Servo().Open(false, false), 0);
    const std::uint32_t before = board_->TrafficSeen().total;
    Tick();
    EXPECT_EQ(board_->TrafficSeen().total, before);
    page->ResetPage(version_);
    Tick();
    EXPECT_NE(Text("Temp0"), "");
    EXPECT_NE(Text("Analog0"), "");
    EXPECT_TRUE(boxes.Boxes().empty());
    StopBoard();
  }
}

// After a reset the first tick repaints every reading, even one whose raw value is unchanged.
TEST_F(ReadingsTest, AResetEmptiesTheTextsAndTheNextTickFillsThemAgain) {
  Open("autovision");
  Tick();
  page->ResetPage(version_);
  EXPECT_EQ(Text("Analog5"), "");
  EXPECT_EQ(Text("Temp1"), "");
  Tick();
  EXPECT_NE(Text("Analog5"), "");
  EXPECT_NE(Text("Temp1"), "");
}

// Boards whose firmware has no converter readings answer zeros: no text, no colour.
TEST_F(ReadingsTest, BoardsWithoutVoltageReadingsShowNone) {
  struct Case {
    const char* profile;
    const char* firmware;
    bool manualVision;
  };
  const Case cases[] = {{"autovision", "2.05", false}, {"manualvision-pv4", "", true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.profile);
    if (c.manualVision) {
      Open<CTabManualVisionReadingsDlg>(c.profile, c.firmware);
    } else {
      Open(c.profile, c.firmware);
    }
    Tick();
    EXPECT_TRUE(page->Connected);
    for (unsigned i = 0; i < kVoltageChannels; ++i) {
      EXPECT_EQ(Text(IndexedId("Analog", i, false)), "") << i;
      EXPECT_EQ(Colour(i), "") << i;
    }
    EXPECT_NE(Text("Temp0"), "");
    StopBoard();
  }
}

// The manual-vision board's own labels and rails; its spare channels show the raw count, red
// against their nominal of 1.
TEST_F(ReadingsTest, TheManualVisionPageShowsItsRailsAndTheSpareInputsRaw) {
  Open<CTabManualVisionReadingsDlg>("manualvision");
  Tick();
  EXPECT_EQ(page->Doc().Text("AnalogLabel0"), "AUX 24V");
  EXPECT_EQ(page->Doc().Text("AnalogLabel8"), "Unused");
  EXPECT_EQ(page->Doc().Text("AnalogLabel9"), "");
  for (unsigned i = 0; i < 8; ++i) {
    SCOPED_TRACE(i);
    const double nominal = kManualVisionReadings.channels[i].nominal;
    EXPECT_NEAR(Volts(i), nominal * 0.99, nominal * 0.01);
    EXPECT_EQ(Colour(i), kVoltageWhite);
  }
  for (unsigned i = 8; i < kVoltageChannels; ++i) {
    SCOPED_TRACE(i);
    const std::string text = Text(IndexedId("Analog", i, false));
    ASSERT_GE(text.size(), 3u);
    EXPECT_EQ(text.substr(text.size() - 3), ".00") << "a whole count";
    EXPECT_EQ(Colour(i), kVoltageRed);
  }
  Control("supply 1 -8");
  Tick();
  EXPECT_EQ(Colour(1), kVoltageYellow);
  EXPECT_NE(Text("TempW"), "");
}

}  // namespace
