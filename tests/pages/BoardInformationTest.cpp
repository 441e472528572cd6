// The Board Information members against the simulated board: what each shows, which elements it
// has, what it leaves alone, and how it stops at the first failed read.
#include <gtest/gtest.h>

#include "pages/BoardInformation.h"
#include "tests/pages/PageFixture.h"

namespace {

using namespace testing_support;

class BoardInformationTest : public PageFixture {
 protected:
  std::uint32_t Count(std::uint8_t code) { return board_->TrafficSeen().commands[code]; }
  // What the board says, read by the controller itself.
  struct Truth {
    BoardIdentity identity;
    EepromInfo eeprom;
    std::uint16_t fpga = 0;
  };
  Truth Read(CTavroUsbController& c) {
    Truth t;
    EXPECT_TRUE(c.ReadBoardIdentity(t.identity));
    EXPECT_TRUE(c.ReadEepromInfo(t.eeprom));
    EXPECT_TRUE(c.GetFpgaVersion(t.fpga));
    return t;
  }
  static void ExpectCommonFields(ui::Document& d, const Truth& t) {
    EXPECT_EQ(d.Text("SerialNumber"), t.identity.serialNumber);
    EXPECT_EQ(d.Text("MachineName"), t.identity.machineName);
    EXPECT_EQ(d.Text("ModelName"), t.identity.modelName);
    EXPECT_EQ(d.Text("EEPROMUser"), std::to_string(t.eeprom.userSize));
    EXPECT_EQ(d.Text("EEPROMMachine"), std::to_string(t.eeprom.machineSize));
    EXPECT_EQ(d.Text("EEPROMUpdate"), std::to_string(t.eeprom.updateSize));
    EXPECT_EQ(d.Text("EEPROMPage"), std::to_string(t.eeprom.pageSize));
    EXPECT_EQ(d.Text("EEPROMMaxRW"), std::to_string(t.eeprom.maxReadWrite));
    EXPECT_EQ(d.Checked("EEPROMCopy"), t.eeprom.hasCopy);
  }
};

TEST_F(BoardInformationTest, AutoVisionShowsTwoChipsTheFpgaAndTheIdentity) {
  Start("autovision");
  CTabBoardInformationDlg page(&Servo(), version_);
  page.PageReady = true;
  page.ResetPage(version_);
  EXPECT_TRUE(page.Connected);

  ui::Document& d = page.Doc();
  EXPECT_EQ(d.Text("FirmwareName"), "Auto Vision");
  EXPECT_EQ(d.Text("FirmwareVersion"), "2.3");
  EXPECT_EQ(d.Text("BoardRevision"), "4");
  const Truth t = Read(Servo());
  ASSERT_NE(t.fpga, 0);
  EXPECT_EQ(d.Text("FPGAVersion"), std::to_string(t.fpga));
  ExpectCommonFields(d, t);
  EXPECT_FALSE(t.identity.serialNumber.empty());

  // Chip names are MC<family><motor><axes>0; the second chip's ids end in 1.
  EXPECT_EQ(d.Text("PMDName"), "MC5240");
  EXPECT_EQ(d.Text("PMDFamily"), "5");
  EXPECT_EQ(d.Text("PMDMotor"), "2");
  EXPECT_EQ(d.Text("PMDAxes"), "4");
  EXPECT_EQ(d.Text("PMDAttributes"), "17");
  EXPECT_EQ(d.Text("PMDCustomer"), "0");
  EXPECT_EQ(d.Text("PMDVersion"), "2.40");
  EXPECT_EQ(d.Text("PMDName1"), "MC5240");
  EXPECT_EQ(d.Text("PMDVersion1"), "2.41");
}

TEST_F(BoardInformationTest, FirstGenerationHasOneUnnumberedChipAndNoFpga) {
  Start("servo");
  const std::uint32_t chipReads = Count(0x2C);
  CTabV1BoardInformationDlg page(&Servo(), version_);
  page.PageReady = true;
  page.ResetPage(version_);
  EXPECT_TRUE(page.Connected);
  EXPECT_EQ(Count(0x2C) - chipReads, 1u) << "a second chip is never asked for";

  const auto snapshot = page.Doc().Snapshot().elements;
  EXPECT_EQ(page.Doc().Text("PMDName"), "MC5240");
  EXPECT_EQ(page.Doc().Text("FirmwareName"), "Servo");
  EXPECT_EQ(page.Doc().Text("FirmwareVersion"), "1.6");
  EXPECT_EQ(snapshot.count("PMDName1"), 0u);
  EXPECT_EQ(snapshot.count("FPGAVersion"), 0u);
  ExpectCommonFields(page.Doc(), Read(Servo()));
}

TEST_F(BoardInformationTest, ManualVisionHasNoChipsAndAnFpgaFromProtocolFive) {
  for (const char* profile : {"manualvision", "manualvision-pv4"}) {
    SCOPED_TRACE(profile);
    Start(profile);
    CTabManualVisionBoardInformationDlg page(&Manual(), version_);
    page.PageReady = true;
    page.ResetPage(version_);
    EXPECT_TRUE(page.Connected);
    const Truth t = Read(Manual());
    const auto snapshot = page.Doc().Snapshot().elements;
    for (const auto& [id, state] : snapshot)
      EXPECT_NE(id.rfind("PMD", 0), 0u) << id;
    // Below protocol 5 the board has no FPGA word to give: "N/A".
    EXPECT_EQ(page.Doc().Text("FPGAVersion"), t.fpga == 0 ? "N/A" : std::to_string(t.fpga));
    EXPECT_EQ(t.fpga == 0, std::string(profile) == "manualvision-pv4");
    ExpectCommonFields(page.Doc(), t);
    manual_.reset();
    link_.Close();
    board_.reset();
  }
}

TEST_F(BoardInformationTest, OldFirmwareGivesNoChipAndNoFpga) {
  // Below 1.51 the chip records are zero without a transfer; the name says "N/A" and the
  // chip's other elements are never set.
  Start("servo-pv0");
  const std::uint32_t chipReads = Count(0x2C);
  CTabV1BoardInformationDlg page(&Servo(), version_);
  page.PageReady = true;
  page.ResetPage(version_);
  EXPECT_TRUE(page.Connected);
  EXPECT_EQ(Count(0x2C), chipReads);
  EXPECT_EQ(page.Doc().Text("PMDName"), "N/A");
  EXPECT_EQ(page.Doc().Snapshot().elements.count("PMDFamily"), 0u);
}

TEST_F(BoardInformationTest, AChipThatVanishesKeepsItsOldNumbersBesideNA) {
  Start("autovision");
  CTabBoardInformationDlg page(&Servo(), version_);
  page.PageReady = true;
  page.ResetPage(version_);
  ASSERT_EQ(page.Doc().Text("PMDFamily1"), "5");

  // The board comes back with firmware too old to report chips or an FPGA.
  board_->AtMachine([](sim::Board& b) {
    b.mutableProfile().version.firmwareVersion = 1.5f;
    return std::string();
  });
  ASSERT_TRUE(Servo().Close());
  ASSERT_EQ(Servo().Open(false, false), 0);
  BoardVersionInfo fresh;
  ASSERT_TRUE(Servo().ReadBoardVersion(fresh));
  page.ResetPage(fresh);
  EXPECT_TRUE(page.Connected);
  EXPECT_EQ(page.Doc().Text("FirmwareVersion"), "1.5");
  EXPECT_EQ(page.Doc().Text("PMDName"), "N/A");
  EXPECT_EQ(page.Doc().Text("PMDName1"), "N/A");
  EXPECT_EQ(page.Doc().Text("PMDFamily1"), "5");
  EXPECT_EQ(page.Doc().Text("PMDVersion1"), "2.41");
  EXPECT_EQ(page.Doc().Text("FPGAVersion"), "N/A");
}

TEST_F(BoardInformationTest, TheFirstFailedReadEndsTheReading) {
  Start("autovision");
  Control("fault refuse 0x60");  // the identity
  const std::uint32_t before = board_->TrafficSeen().total;
  const std::uint32_t later = Count(0x2C) + Count(0x57) + Count(0x28);
  CTabBoardInformationDlg page(&Servo(), version_);
  page.PageReady = true;
  page.ResetPage(version_);
  EXPECT_FALSE(page.Connected);
  EXPECT_EQ(Count(0x2C) + Count(0x57) + Count(0x28), later) << "nothing read after the failure";
  EXPECT_GT(board_->TrafficSeen().total, before);
  EXPECT_EQ(page.Doc().Text("SerialNumber"), "");
  EXPECT_EQ(page.Doc().Text("FPGAVersion"), "N/A");
  EXPECT_EQ(page.Doc().Text("EEPROMUser"), "0");
  EXPECT_EQ(page.Doc().Text("FirmwareName"), "Auto Vision");  // from the record, not a read
}

TEST_F(BoardInformationTest, AHiddenPageFillsItsDocumentOnlyWhenTheDocumentLoads) {
  Start("autovision");
  CTabBoardInformationDlg page(&Servo(), version_);
  page.ResetPage(version_);  // not shown anywhere yet
  EXPECT_TRUE(page.Doc().Snapshot().elements.empty());
  static_cast<ui::HtmlPage&>(page).OnDocumentComplete();
  EXPECT_EQ(page.Doc().Text("PMDName"), "MC5240");
}

}  // namespace
