// The Board Information members against the simulated board: what they leave alone, how they stop
// at the first failed read, and when a hidden page fills its document. What each family shows
// for each profile is compared with the simulator's own account by the browser test.
#include <gtest/gtest.h>

#include "pages/BoardInformation.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

using BoardInformationTest = OnePageFixture;

TEST_F(BoardInformationTest, AChipThatVanishesKeepsItsOldNumbersBesideNA) {
  Start("autovision");
  Show<CTabBoardInformationDlg>(version_);
  ASSERT_EQ(page->Doc().Text("PMDFamily1"), "5");

  // The board comes back with firmware too old to report chips or an FPGA.
  board_->AtMachine([](sim::Board& b) {
    b.mutableProfile().version.firmwareVersion = 1.5f;
    return std::string();
  });
  ASSERT_TRUE(Servo().Close());
  ASSERT_EQ(Servo().Open(false, false), 0);
  BoardVersionInfo fresh;
  ASSERT_TRUE(Servo().ReadBoardVersion(fresh));
  page->ResetPage(fresh);
  EXPECT_TRUE(page->Connected);
  ui::Document& d = page->Doc();
  EXPECT_EQ(d.Text("FirmwareVersion"), "1.5");
  EXPECT_EQ(d.Text("PMDName"), "N/A");
  EXPECT_EQ(d.Text("PMDName1"), "N/A");
  EXPECT_EQ(d.Text("PMDFamily1"), "5");
  EXPECT_EQ(d.Text("PMDVersion1"), "2.41");
  EXPECT_EQ(d.Text("FPGAVersion"), "N/A");
}

TEST_F(BoardInformationTest, TheFirstFailedReadEndsTheReading) {
  Start("autovision");
  Control("fault refuse 0x60");  // the identity
  const std::uint32_t later = Sent(0x2C) + Sent(0x57) + Sent(0x28);
  Show<CTabBoardInformationDlg>(version_);
  EXPECT_FALSE(page->Connected);
  EXPECT_EQ(Sent(0x2C) + Sent(0x57) + Sent(0x28), later) << "nothing read after the failure";
  ui::Document& d = page->Doc();
  EXPECT_EQ(d.Text("SerialNumber"), "");
  EXPECT_EQ(d.Text("FPGAVersion"), "N/A");
  EXPECT_EQ(d.Text("EEPROMUser"), "0");
  EXPECT_EQ(d.Text("FirmwareName"), "Auto Vision");  // from the record, not a read
}

TEST_F(BoardInformationTest, AHiddenPageFillsItsDocumentOnlyWhenTheDocumentLoads) {
  Start("autovision");
  CTabBoardInformationDlg hidden(&Servo(), version_);
  hidden.ResetPage(version_);  // not shown anywhere yet
  EXPECT_TRUE(hidden.Doc().Snapshot().elements.empty());
  static_cast<ui::HtmlPage&>(hidden).OnDocumentComplete();
  EXPECT_EQ(hidden.Doc().Text("PMDName"), "MC5240");
}

}  // namespace
