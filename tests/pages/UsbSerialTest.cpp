// The Diag Output page against the simulated board: what it reads and when, the cap of the log,
// and when the view follows the end.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>

#include "pages/UsbSerial.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

class UsbSerialTest : public OnePageFixture {
 protected:
  void SetUp() override {
    Start("autovision");
    serial = std::make_unique<CTabUsbSerialDlg>(&Servo(), version_);
    serial->ResetPage(version_);
  }
  // Timer 3 tick after the board queued `text`.
  void Tick(const std::string& text = {}) {
    if (!text.empty()) board_->QueueDiagText(text);
    serial->UpdatePage(3, status_);
  }
  bool PagedDown() {
    for (const auto& s : serial->Doc().TakeChanges().scrolls) {
      if (s.id == "UsbSerial" && s.command == ui::ScrollCommand::kPageDown) return true;
    }
    return false;
  }
  std::unique_ptr<CTabUsbSerialDlg> serial;
};

TEST_F(UsbSerialTest, ReadsOnTimerThreeOnlyShownOrNotAndKeepsTheLogOverAReset) {
  board_->QueueDiagText("boot ok\r\n");
  for (unsigned timer : {1u, 2u, 4u})
    serial->UpdatePage(timer, status_);
  EXPECT_EQ(serial->LogText(), "");
  Tick();  // hidden: it reads all the same
  Tick("axis x homed\r\n");
  EXPECT_EQ(serial->LogText(), "boot ok\r\naxis x homed\r\n");
  EXPECT_EQ(serial->Doc().Text("UsbSerial"), serial->LogText());

  serial->ResetPage(version_);
  EXPECT_EQ(serial->LogText(), "boot ok\r\naxis x homed\r\n");
}

TEST_F(UsbSerialTest, KeepsTheNewestTwentyThousandCharacters) {
  // One read carries at most 99 bytes: feed the board 90 at a time.
  std::string all;
  for (int i = 0; all.size() < 20001; ++i) {
    std::string piece(std::min<std::size_t>(90, 20001 - all.size()),
                      static_cast<char>('a' + i % 26));
    all += piece;
    Tick(piece);
  }
  EXPECT_EQ(serial->LogText(), all.substr(1));
}

TEST_F(UsbSerialTest, FollowsTheEndOnlyWhenTheViewWasAtTheEnd) {
  struct Case {
    const char* what;
    std::optional<ui::ScrollInfo> view;
    std::string text;
    bool follows;
  };
  const Case cases[] = {
      {"no browser reported the view", std::nullopt, "one\r\n", false},
      {"less text than fills the view", ui::ScrollInfo{200, 0, 200}, "two\r\n", false},
      {"at the end of a longer text", ui::ScrollInfo{900, 700, 200}, "three\r\n", true},
      {"scrolled back by the user", ui::ScrollInfo{900, 650, 200}, "four\r\n", false},
      {"nothing new", ui::ScrollInfo{900, 700, 200}, "", false},
      {"sizes whose difference does not fit an int",
       ui::ScrollInfo{std::numeric_limits<std::int32_t>::max(),
                      std::numeric_limits<std::int32_t>::min(), 200},
       "five\r\n", false},
  };
  for (const Case& c : cases) {
    if (c.view) serial->Doc().TakeScrollReport("UsbSerial", *c.view);
    Tick(c.text);
    EXPECT_EQ(PagedDown(), c.follows) << c.what;
  }
}

TEST_F(UsbSerialTest, AFailedReadSilencesThePageUntilReset) {
  Tick("before\r\n");
  Control("fault refuse 0x22");
  Tick("lost?\r\n");
  EXPECT_FALSE(serial->Connected);
  const std::uint32_t sent = board_->TrafficSeen().total;
  Tick();
  EXPECT_EQ(board_->TrafficSeen().total, sent) << "no more reads";
  EXPECT_EQ(serial->LogText(), "before\r\n");

  // After the link is back, ResetPage lets it read again; the board kept the refused text.
  Control("fault clear");
  ASSERT_EQ(Servo().Open(false, false), 0);
  serial->ResetPage(version_);
  Tick();
  EXPECT_EQ(serial->LogText(), "before\r\nlost?\r\n");
}

}  // namespace
