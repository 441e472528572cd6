// The Diag Output page against the simulated board: what it reads and when, the cap of the log,
// and when the view follows the end.
#include <gtest/gtest.h>

#include "pages/UsbSerial.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

class UsbSerialTest : public PageFixture {
 protected:
  void SetUp() override { Start("autovision"); }
  // Timer 3 tick after the board queued `text`.
  void Tick(CTabUsbSerialDlg& page, const std::string& text = {}) {
    if (!text.empty()) board_->QueueDiagText(text);
    page.UpdatePage(3, status_);
  }
  static bool PagedDown(ui::Document& d) {
    for (const auto& s : d.TakeChanges().scrolls) {
      if (s.id == "UsbSerial" && s.command == ui::ScrollCommand::kPageDown) return true;
    }
    return false;
  }
  ServoStatus status_{};
};

TEST_F(UsbSerialTest, ReadsOnTimerThreeOnlyShownOrNotAndKeepsTheLogOverAReset) {
  CTabUsbSerialDlg page(&Servo(), version_);
  page.ResetPage(version_);
  board_->QueueDiagText("boot ok\r\n");
  for (unsigned timer : {1u, 2u, 4u})
    page.UpdatePage(timer, status_);
  EXPECT_EQ(page.LogText(), "");
  Tick(page);  // hidden: it reads all the same
  Tick(page, "axis x homed\r\n");
  EXPECT_EQ(page.LogText(), "boot ok\r\naxis x homed\r\n");
  EXPECT_EQ(page.Doc().Text("UsbSerial"), page.LogText());

  page.ResetPage(version_);
  EXPECT_EQ(page.LogText(), "boot ok\r\naxis x homed\r\n");
}

TEST_F(UsbSerialTest, KeepsTheNewestTwentyThousandCharacters) {
  CTabUsbSerialDlg page(&Servo(), version_);
  page.ResetPage(version_);
  // One read carries at most 99 bytes: feed the board 90 at a time.
  std::string all;
  for (int i = 0; all.size() < 20001; ++i) {
    std::string piece(90, static_cast<char>('a' + i % 26));
    if (all.size() + piece.size() > 20001) piece.resize(20001 - all.size());
    all += piece;
    Tick(page, piece);
  }
  ASSERT_EQ(all.size(), 20001u);
  EXPECT_EQ(page.LogText(), all.substr(1));
}

TEST_F(UsbSerialTest, FollowsTheEndOnlyWhenTheViewWasAtTheEnd) {
  CTabUsbSerialDlg page(&Servo(), version_);
  page.ResetPage(version_);
  ui::Document& d = page.Doc();

  // No browser has reported the view: it does not follow.
  Tick(page, "one\r\n");
  EXPECT_FALSE(PagedDown(d));
  // Less text than fills the view: nothing to scroll.
  d.TakeScrollReport("UsbSerial", {.scrollHeight = 200, .scrollTop = 0, .clientHeight = 200});
  Tick(page, "two\r\n");
  EXPECT_FALSE(PagedDown(d));
  // At the end of a longer text: the new end is brought into view.
  d.TakeScrollReport("UsbSerial", {.scrollHeight = 900, .scrollTop = 700, .clientHeight = 200});
  Tick(page, "three\r\n");
  EXPECT_TRUE(PagedDown(d));
  // Scrolled back by the user: it stays put.
  d.TakeScrollReport("UsbSerial", {.scrollHeight = 900, .scrollTop = 650, .clientHeight = 200});
  Tick(page, "four\r\n");
  EXPECT_FALSE(PagedDown(d));
  // Nothing new: no command, whatever the view.
  d.TakeScrollReport("UsbSerial", {.scrollHeight = 900, .scrollTop = 700, .clientHeight = 200});
  Tick(page);
  EXPECT_FALSE(PagedDown(d));
}

TEST_F(UsbSerialTest, AFailedReadSilencesThePageUntilReset) {
  CTabUsbSerialDlg page(&Servo(), version_);
  page.ResetPage(version_);
  Tick(page, "before\r\n");
  Control("fault refuse 0x22");
  const std::uint32_t before = board_->TrafficSeen().total;
  Tick(page, "lost?\r\n");
  EXPECT_FALSE(page.Connected);
  Tick(page);
  Tick(page);
  EXPECT_EQ(page.LogText(), "before\r\n");

  // After the link is back, ResetPage lets it read again; the board kept the refused text.
  Control("fault clear");
  ASSERT_EQ(Servo().Open(false, false), 0);
  page.ResetPage(version_);
  Tick(page);
  EXPECT_EQ(page.LogText(), "before\r\nlost?\r\n");
  EXPECT_GT(board_->TrafficSeen().total, before);
}

TEST_F(UsbSerialTest, ATickInsideATickReturnsAtOnce) {
  CTabUsbSerialDlg page(&Servo(), version_);
  page.ResetPage(version_);
  board_->QueueDiagText("queued\r\n");
  page.InTick = true;
  page.UpdatePage(3, status_);
  EXPECT_EQ(page.LogText(), "");
  EXPECT_TRUE(page.InTick) << "the outer tick still owns the guard";
  page.InTick = false;
  page.UpdatePage(3, status_);
  EXPECT_EQ(page.LogText(), "queued\r\n");
  EXPECT_FALSE(page.InTick);
}

}  // namespace
