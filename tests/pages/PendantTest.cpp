// The Pendant pages against the simulated board in virtual time: buttons pressed at the board,
// deflections changing sign between two ticks, the accelerometer's signed word, the e-stop on a
// shown and a hidden page, a failed read, and the first generation's crossed buttons.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "pages/Pendant.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

class PendantTest : public OnePageFixture {
 protected:
  template <class Page = CTabPendantDlg>
  void Open(const std::string& profile) {
    Start(profile);
    Show<Page>(version_);
  }
  // The 200 ms tick after a poll of the board, as the main dialog runs them.
  void Tick() {
    ASSERT_TRUE(Servo().PollStatus(status_, 0, 1));
    page->UpdatePage(3, status_);
  }

  static constexpr std::uint8_t kBoardData = 0x57;
};

TEST_F(PendantTest, ButtonsPressedAtTheBoardShowTheirNumbers) {
  Open("autovision");
  Control("press b3");
  Control("press b8");
  Tick();
  EXPECT_EQ(Text("PenButton3"), "B 3");
  EXPECT_EQ(Text("PenButton8"), "B 8");
  EXPECT_EQ(Text("PenButton1"), "");
  Control("release b3");
  Tick();
  EXPECT_EQ(Text("PenButton3"), "");
  EXPECT_EQ(Text("PenButton8"), "B 8");
}

TEST_F(PendantTest, ADeflectionChangingSignInOneTickMovesToTheOtherBox) {
  Open("autovision");
  struct Step {
    const char* joystick;
    const char *xPos, *xNeg, *yPos, *yNeg;
  };
  const Step steps[] = {
      {"0.05 -0.3 0", "5", "", "", "-30"},
      {"-0.05 0.3 0", "", "-5", "30", ""},
      {"0 0 0", "", "", "", ""},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.joystick);
    Control(std::string("joystick ") + s.joystick);
    Tick();
    EXPECT_EQ(Text("PendantPosXPos"), s.xPos);
    EXPECT_EQ(Text("PendantPosXNeg"), s.xNeg);
    EXPECT_EQ(Text("PendantPosYPos"), s.yPos);
    EXPECT_EQ(Text("PendantPosYNeg"), s.yNeg);
  }
  Control("joystick 1 -1 0");
  Tick();
  EXPECT_EQ(Text("PendantReadX"), "4095");
  EXPECT_EQ(Text("PendantReadY"), "1");
  EXPECT_EQ(Text("PendantReadZ"), "2048");
}

TEST_F(PendantTest, TheAccelerometerWordIsShownSigned) {
  Open("autovision");
  Control("accel -0.5 0 1");
  Tick();
  const int x = std::stoi(Text("AccelerometerPosX"));
  const int z = std::stoi(Text("AccelerometerPosZ"));
  EXPECT_NEAR(x, -500, 5);
  EXPECT_NEAR(z, 1000, 5);
}

TEST_F(PendantTest, TheEStopShowsOnlyWhileThePageIsShown) {
  Open("autovision");
  Control("estop on");
  page->PageReady = false;
  const std::uint32_t reads = Sent(kBoardData);
  Tick();
  EXPECT_EQ(Text("EStop"), "");
  EXPECT_EQ(Sent(kBoardData), reads) << "a hidden page reads nothing";
  page->PageReady = true;
  Tick();
  EXPECT_EQ(Text("EStop"), "EStop");
  Control("estop off");
  Tick();
  EXPECT_EQ(Text("EStop"), "");
}

TEST_F(PendantTest, AFailedReadShowsNothingOfItsTickAndSilencesThePageUntilItsReset) {
  Open("autovision");
  Tick();
  Control("press b2");
  Control("fault refuse 0x57");
  Tick();
  EXPECT_FALSE(page->Connected);
  EXPECT_EQ(Text("PenButton2"), "") << "the button found in the failed tick stays unshown";
  Control("fault clear");
  ASSERT_EQ(Servo().Open(false, false), 0);
  const std::uint32_t reads = Sent(kBoardData);
  Tick();
  EXPECT_EQ(Sent(kBoardData), reads);
  page->ResetPage(version_);
  Tick();
  EXPECT_EQ(Text("PenButton2"), "B 2");
}

TEST_F(PendantTest, TheFirstGenerationPageHasTwoCrossedButtonsAndReadsNoPendant) {
  Open<CTabV1PendantDlg>("servo");
  struct Step {
    const char* control;
    const char *b1, *b2;
  };
  // b1 of the first pendant is input 3, b2 input 2; inputs 0 and 1 are no buttons of the page.
  const Step steps[] = {
      {"press 3", "B 1", ""}, {"press 2", "B 1", "B 2"}, {"release 3", "", "B 2"},
      {"press 0", "", "B 2"}, {"release 2", "", ""},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.control);
    Control(s.control);
    Tick();
    EXPECT_EQ(Text("PenButton1"), s.b1);
    EXPECT_EQ(Text("PenButton2"), s.b2);
  }
  EXPECT_FALSE(Has("PenButton3"));
  EXPECT_FALSE(Has("PendantReadZ"));
  EXPECT_FALSE(Has("AccelerometerPosX"));
  EXPECT_EQ(Text("PendantReadX"), "0") << "as the reset left it";
  EXPECT_EQ(Sent(kBoardData), 0u);
}

}  // namespace
