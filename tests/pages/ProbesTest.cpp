// The Probes pages against the simulated board in virtual time: the interrupt source switch and
// its check boxes, the poll asking for capture data while a source is armed, the captures of the
// touch probe and the video trigger, the laser's settings followed once a second and a laser that
// becomes ready, the sensitivity slider of the first generation, machines without a laser or a
// probe, failed reads, and the manual-vision page.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "pages/Probes.h"
#include "sim/Board.h"
#include "sim/Machine.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

class ProbesTest : public OnePageFixture {
 protected:
  // A shown page of `Page` on a board of `profile` after its first reset; `edit` changes the
  // record the page is reset with.
  template <class Page = CTabProbesDlg>
  void Open(const std::string& profile,
            const std::function<void(BoardVersionInfo&)>& edit = nullptr) {
    Start(profile);
    BoardVersionInfo record = version_;
    if (edit) edit(record);
    controller_ = ControllerOf<Page>();
    Show<Page>(record);
  }
  ProbesPage<CTabDlg, kServoProbes>& Probes() {
    return static_cast<ProbesPage<CTabDlg, kServoProbes>&>(*page);
  }
  // The poll, asking for capture data as the main dialog does, then the 200 ms tick.
  void Tick3() {
    ASSERT_TRUE(controller_->PollStatus(status_, page->WantsCaptureData() ? 1 : 0, 1));
    page->UpdatePage(3, status_);
  }
  void Tick4() { page->UpdatePage(4, status_); }
  // The five check boxes in the order the page sets them, as '1' (checked) and '0'.
  std::string Checks() {
    std::string s;
    for (const char* id : {"LaserInterruptEnable", "TouchProbeEnable", "TouchProbeInterruptEnable",
                           "LaserEnable", "VideoInterruptEnable"})
      s += page->Doc().Checked(id) ? '1' : '0';
    return s;
  }
  // The flag bytes of the last interrupt packet: d(isable), v(ideo), t(ouch), l(aser).
  std::string LastInterruptPacket() {
    std::string s;
    for (const sim::Transfer& t : board_->TrafficSeen().recent) {
      if (t.request[0] != kInterrupts) continue;
      s.clear();
      if (t.request[1]) s += 'd';
      if (t.request[3]) s += 'v';
      if (t.request[4]) s += 't';
      if (t.request[5]) s += 'l';
    }
    return s;
  }
  std::uint16_t BoardSensitivity() {
    return static_cast<std::uint16_t>(std::stoi(board_->AtMachine(
        [](sim::Board& b) { return std::to_string(b.machine().probeSensitivity); })));
  }

  static constexpr std::uint8_t kVersion = 0x2B;
  static constexpr std::uint8_t kLaserSettings = 0x2A;
  static constexpr std::uint8_t kLaserPoints = 0x5F;
  static constexpr std::uint8_t kProbeCapture = 0x6B;
  static constexpr std::uint8_t kTouchCapture = 0x36;
  static constexpr std::uint8_t kInterrupts = 0x69;
  static constexpr std::uint8_t kSensitivityMax = 0x79;

  CTavroUsbController* controller_ = nullptr;
};

TEST(LaserSpeedTextTest, SamplesPerSecondByRateExponent) {
  const std::pair<std::uint32_t, const char*> cases[] = {
      {0, "2500.00"}, {1, "1250.00"}, {4, "156.25"}, {15, "0.08"}, {0xFFFFFFFF, "0.00"}};
  for (const auto& [exponent, text] : cases)
    EXPECT_EQ(LaserSpeedText(exponent), text) << exponent;
}

// Each click moves to its source or, clicking the armed one, back to none. The touch and video
// boxes follow at once, the laser's at the next 1000 ms tick; only the clicked source goes to
// the board, and the poll asks for capture data while anything is armed.
TEST_F(ProbesTest, TheInterruptSourceSwitchAndItsCheckBoxes) {
  Open("autovision");
  Tick4();
  ASSERT_EQ(Checks(), "00010") << "the board's laser is on as built";
  struct Step {
    const char* click;
    InterruptSource source;
    const char* packet;       // flag bytes of the interrupt command sent
    const char* checksNow;    // after the click
    const char* checksLater;  // after the next 1000 ms tick
  };
  const Step steps[] = {
      {"VideoInterruptEnable", InterruptSource::kVideo, "v", "00011", "00011"},
      {"TouchProbeInterruptEnable", InterruptSource::kTouch, "t", "00110", "00110"},
      {"LaserInterruptEnable", InterruptSource::kLaser, "l", "00110", "10010"},
      {"LaserInterruptEnable", InterruptSource::kNone, "d", "10010", "00010"},
      {"TouchProbeInterruptEnable", InterruptSource::kTouch, "t", "00110", "00110"},
      {"TouchProbeInterruptEnable", InterruptSource::kNone, "d", "00010", "00010"},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.click);
    const std::uint32_t before = Sent(kInterrupts);
    Click(s.click);
    EXPECT_EQ(Sent(kInterrupts), before + 1);
    EXPECT_EQ(LastInterruptPacket(), s.packet);
    EXPECT_EQ(Probes().Source(), s.source);
    EXPECT_EQ(page->WantsCaptureData(), s.source != InterruptSource::kNone);
    EXPECT_EQ(Checks(), s.checksNow);
    Tick4();
    EXPECT_EQ(Checks(), s.checksLater);
  }
  Click("VideoInterruptEnable");
  page->ResetPage(version_);
  EXPECT_EQ(Probes().Source(), InterruptSource::kNone) << "a reset disarms without a word";
  EXPECT_EQ(LastInterruptPacket(), "v");
  EXPECT_FALSE(page->WantsCaptureData());
}

TEST_F(ProbesTest, TheVideoTriggerCapturesOnlyWhileArmed) {
  Open("autovision");
  Control("place x 120");
  clock.SleepFor(platform::Milliseconds(300));
  Tick3();
  EXPECT_FALSE(status_.CaptureReady);
  EXPECT_EQ(Sent(kProbeCapture), 0u);
  Click("VideoInterruptEnable");
  clock.SleepFor(platform::Milliseconds(300));
  Tick3();
  ASSERT_TRUE(status_.CaptureReady) << "the poll asked for capture data";
  EXPECT_EQ(Sent(kProbeCapture), 1u);
  EXPECT_EQ(Text("VideoCaptureX"), std::to_string(status_.LinearPosition[0]));
  EXPECT_EQ(Text("VideoCaptureY"), std::to_string(status_.LinearPosition[1]));
  EXPECT_NE(Text("VideoCaptureX"), "0");
}

// A capture of the touch probe, latched before the video trigger was armed in its place, is
// announced with the trigger armed and finds no frame of the camera: the board marks it invalid,
// and the video values stay as they were.
TEST_F(ProbesTest, AnInvalidVideoCaptureLeavesTheVideoValuesAlone) {
  Open("autovision");
  Click("VideoInterruptEnable");
  clock.SleepFor(platform::Milliseconds(300));
  Tick3();
  const std::string first = Text("VideoCaptureX");
  ASSERT_EQ(first, std::to_string(status_.LinearPosition[0]));
  Control("place x 20");
  Click("TouchProbeInterruptEnable");
  Control("probe trip");  // no time passes: no new frame
  Click("VideoInterruptEnable");
  Tick3();
  ASSERT_TRUE(status_.CaptureReady);
  EXPECT_EQ(Sent(kProbeCapture), 2u);
  EXPECT_EQ(Text("VideoCaptureX"), first);
  clock.SleepFor(platform::Milliseconds(300));
  Tick3();
  EXPECT_EQ(Text("VideoCaptureX"), std::to_string(status_.LinearPosition[0]));
  EXPECT_NE(Text("VideoCaptureX"), first);
}

TEST_F(ProbesTest, ATouchProbeTripShowsAndItsCaptureIsFetchedWhileTheProbeInterrupts) {
  Open("autovision");
  Click("TouchProbeEnable");
  EXPECT_TRUE(Probes().TouchEnabled());
  Click("TouchProbeInterruptEnable");
  Control("place y 50");
  Control("probe trip");
  Tick3();
  EXPECT_EQ(Text("TouchProbeTrip"), "Trip");
  EXPECT_EQ(Sent(kTouchCapture), 1u);
  EXPECT_EQ(Text("TouchProbeCaptureY"), std::to_string(status_.LinearPosition[1]));
  Control("probe release");
  Tick3();
  EXPECT_EQ(Text("TouchProbeTrip"), "");
  EXPECT_EQ(Sent(kTouchCapture), 1u) << "a capture is fetched once";
}

// The settings are followed once a second: a change the board makes by itself shows within a
// second, the texts stay empty after a reset until then, and an unchanged laser point leaves
// its "Int"/"Poll" text alone.
TEST_F(ProbesTest, TheLaserSettingsFollowTheBoardOnceASecond) {
  Open("autovision");
  clock.SleepFor(platform::Milliseconds(100));
  Tick3();
  Tick4();
  EXPECT_EQ(Text("LaserStatus"), "") << "the board's settings are those the reset read";
  EXPECT_EQ(Text("LaserMeasurementSpeed"), "");
  EXPECT_EQ(Text("LaserCaptureInfo"), "") << "no point yet: entry 0 is as the reset left it";
  struct Step {
    const char* control;
    const char *status, *speed;
  };
  const Step steps[] = {{"laser rate 0", "On", "2500.00"},
                        {"laser rate 4", "On", "156.25"},
                        {"laser off", "Off", "156.25"}};
  for (const Step& s : steps) {
    SCOPED_TRACE(s.control);
    const std::string status = Text("LaserStatus");
    const std::string speed = Text("LaserMeasurementSpeed");
    Control(s.control);
    Tick3();
    EXPECT_EQ(Text("LaserStatus"), status) << "only the 1000 ms tick reads the settings";
    EXPECT_EQ(Text("LaserMeasurementSpeed"), speed);
    Tick4();
    EXPECT_EQ(Text("LaserStatus"), s.status);
    EXPECT_EQ(Text("LaserMeasurementSpeed"), s.speed);
  }
  Click("LaserEnable");
  EXPECT_EQ(Text("LaserStatus"), "On");
  EXPECT_EQ(board_->AtMachine(
                [](sim::Board& b) { return std::to_string(b.machine().laserSettings[19]); }),
            "1");

  Control("laser points 2");
  Tick3();
  EXPECT_EQ(Text("LaserCaptureInfo"), "Poll") << "a point read without the interrupt";
  EXPECT_NE(Text("LaserValue"), "0");
  Click("LaserInterruptEnable");
  clock.SleepFor(platform::Milliseconds(100));
  Tick3();
  EXPECT_EQ(Text("LaserCaptureInfo"), "Int");
  const std::string value = Text("LaserValue");
  clock.SleepFor(platform::Milliseconds(100));
  Tick3();
  EXPECT_NE(Text("LaserValue"), value) << "the armed laser's samples keep coming";
}

// A laser that was not ready at the reset is neither read nor polled; the version record is
// read once a second, and the laser is taken up at the first second it reports ready.
TEST_F(ProbesTest, ALaserNotReadyAtTheResetIsPickedUpOnceReady) {
  Open("autovision");
  Control("laser notready");
  ASSERT_TRUE(Servo().ReadBoardVersion(version_));
  ASSERT_TRUE(version_.laserNotReady);
  Control("laser rate 4");
  page->ResetPage(version_);
  const std::uint32_t settings = Sent(kLaserSettings);
  const std::uint32_t versions = Sent(kVersion);
  Tick3();
  Tick4();
  EXPECT_EQ(Sent(kLaserPoints), 0u);
  EXPECT_EQ(Sent(kLaserSettings), settings);
  EXPECT_EQ(Sent(kVersion), versions + 1);
  EXPECT_TRUE(page->Connected);
  Control("laser ready");
  Tick4();
  EXPECT_EQ(Sent(kLaserSettings), settings + 1);
  EXPECT_EQ(Probes().LaserSettings()[1], 4u);
  Tick4();
  EXPECT_EQ(Sent(kVersion), versions + 2) << "no more version reads once ready";
  Control("laser points 1");
  Tick3();
  EXPECT_EQ(Sent(kLaserPoints), 1u);
  EXPECT_EQ(Text("LaserMeasurementSpeed"), "156.25");
  EXPECT_EQ(Text("LaserStatus"), "On");
}

// The first generation's board (machine kind 1) has a sensitivity to set; the slider follows
// its maximum and position. On an Auto Vision board it is disabled and the board is not asked.
TEST_F(ProbesTest, TheSensitivitySliderLivesOnTheFirstGenerationOnly) {
  Open("autovision");
  EXPECT_FALSE(page->Doc().Enabled(kSensitivitySlider));
  EXPECT_EQ(Sent(kSensitivityMax), 0u);
  EXPECT_EQ(Text("TPSens"), "");

  StopBoard();
  Open("servo");
  const ui::ElementState slider = page->Doc().Snapshot().elements[kSensitivitySlider];
  EXPECT_TRUE(page->Doc().Enabled(kSensitivitySlider));
  EXPECT_EQ(slider.max, 1023);
  EXPECT_EQ(slider.pageStep, 256);
  EXPECT_EQ(slider.tickSpacing, 64);
  EXPECT_EQ(Text("TPSens"), std::to_string(BoardSensitivity()));
  EXPECT_EQ(page->Doc().SliderPosition(kSensitivitySlider), BoardSensitivity());
  const std::pair<const char*, std::uint16_t> drags[] = {{"700", 700}, {"5000", 1023}, {"0", 0}};
  for (const auto& [text, value] : drags) {
    SCOPED_TRACE(text);
    page->Doc().TakeBrowserValue(kSensitivitySlider, text, std::nullopt);
    page->Events().Dispatch(
        ui::Event{.id = kSensitivitySlider, .kind = ui::EventKind::kChange, .value = text});
    EXPECT_EQ(BoardSensitivity(), value);
    EXPECT_EQ(Text("TPSens"), std::to_string(value));
  }
}

// Without a laser (the first generation's board) or a touch probe, their clicks do nothing at
// all and their elements stay blank.
TEST_F(ProbesTest, ClicksOfAMissingLaserOrProbeDoNothing) {
  Open("servo", [](BoardVersionInfo& v) { v.hasTouchProbe = false; });
  const std::uint32_t before = board_->TrafficSeen().total;
  for (const char* id :
       {"LaserEnable", "LaserInterruptEnable", "TouchProbeEnable", "TouchProbeInterruptEnable"})
    Click(id);
  EXPECT_EQ(board_->TrafficSeen().total, before);
  EXPECT_EQ(Probes().Source(), InterruptSource::kNone);
  EXPECT_FALSE(Probes().TouchEnabled());
  page->UpdateData();
  for (const char* id : {"LaserStatus", "LaserValue", "TouchProbeCaptureX", "TouchProbeTrip"})
    EXPECT_EQ(Text(id), "") << id;
  EXPECT_EQ(Text("VideoCaptureX"), "0");
}

// A failed read of any tick clears Connected without a word; the page then reads nothing until
// its reset.
TEST_F(ProbesTest, AFailedReadSilencesThePageUntilItsReset) {
  struct Case {
    const char* arm;  // the interrupt box clicked first, if any
    std::uint8_t code;
    std::uint32_t timer;
  };
  const Case cases[] = {{"", kLaserPoints, 3},
                        {"", kLaserSettings, 4},
                        {"VideoInterruptEnable", kProbeCapture, 3},
                        {"TouchProbeInterruptEnable", kTouchCapture, 3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    Open("autovision");
    if (*c.arm) Click(c.arm);
    Control("probe trip");
    clock.SleepFor(platform::Milliseconds(300));
    Control("fault refuse " + std::to_string(c.code));
    c.timer == 3 ? Tick3() : Tick4();
    EXPECT_FALSE(page->Connected);
    Control("fault clear");
    ASSERT_EQ(Servo().Open(false, false), 0);
    const std::uint32_t before = board_->TrafficSeen().total;
    page->UpdatePage(3, status_);
    Tick4();
    EXPECT_EQ(board_->TrafficSeen().total, before);
    const std::uint32_t points = Sent(kLaserPoints);
    page->ResetPage(version_);
    EXPECT_TRUE(page->Connected);
    Tick3();
    EXPECT_EQ(Sent(kLaserPoints), points + 1);
    EXPECT_TRUE(boxes.Boxes().empty());
    StopBoard();
  }
}

TEST_F(ProbesTest, TheManualVisionPageHasNoSliderNorCaptureInfoAndReadsTheSettingsTwice) {
  Open<CTabManualVisionProbesDlg>("manualvision");
  const std::uint32_t settings = Sent(kLaserSettings);
  page->ResetPage(version_);
  EXPECT_EQ(Sent(kLaserSettings), settings + 2);
  EXPECT_EQ(page->Doc().Snapshot().elements[kSensitivitySlider].display, "none");
  Control("laser points 1");
  Control("laser rate 1");
  clock.SleepFor(platform::Milliseconds(100));
  Tick3();
  Tick4();
  EXPECT_NE(Text("LaserValue"), "0");
  EXPECT_EQ(Text("LaserCaptureInfo"), "");
  EXPECT_EQ(Text("TPSens"), "");
  EXPECT_EQ(Text("LaserMeasurementSpeed"), "1250.00");
  Click("VideoInterruptEnable");
  EXPECT_EQ(Checks(), "00011");
  clock.SleepFor(platform::Milliseconds(300));
  Tick3();
  EXPECT_EQ(Text("VideoCaptureZ"), std::to_string(status_.LinearPosition[2]));
  EXPECT_NE(Text("VideoCaptureZ"), "0");
}

}  // namespace
