// The base commands: which form goes out for which board, and where each field of the reply is
// read from.
#include <array>

#include "link/LinkMessages.h"
#include "tests/link/ControllerFixture.h"

namespace {

using namespace testing_support;

class BaseCommandsTest : public ControllerTest {
 protected:
  std::array<std::uint8_t, 4096> eeprom{};

  BaseCommandsTest() {
    for (std::size_t i = 0; i < eeprom.size(); ++i)
      eeprom[i] = static_cast<std::uint8_t>(i * 7);
    answer = [this](const BoardRequest& r) {
      if (r.bytes.at(0) == 0x29) return EepromBlockRead(r, eeprom.data());
      return BoardAnswer{.bytes = Bytes(r.replyLength, 0)};
    };
  }
};

TEST_F(BaseCommandsTest, VersionRecordFieldsComeFromTheirBytes) {
  // Neighbouring flags differ, and the bytes between fields are not zero.
  version = {.firmwareName = "Servo 2",
             .firmwareVersion = 1.75f,
             .byte37 = 37,
             .isServo = false,
             .hasLightChannels = true,
             .lightChannelCount = 24,
             .flag42 = false,
             .isManualVision = true,
             .word44 = 44,
             .flag48 = true,
             .flags50 = {false, true, false, true},
             .hasCommand72 = true,
             .boardRevision = 3,
             .hasWAxis = false,
             .platenFitted = true,
             .flag59 = false,
             .hasTouchProbe = true,
             .protocolVersion = 4,
             .laserType = 2,
             .flag64 = true,
             .laserNotReady = false,
             .eepromInfoLong = true};
  replies[0x2B] = EncodeVersion(version, Distinct(69, 0x81));
  CTavroUsb& usb = Base();
  EXPECT_EQ(usb.VersionInfo(), version);
  EXPECT_EQ(Sent().at(0).bytes, Bytes{0x2B});
  EXPECT_EQ(Sent().at(0).replyLength, 69u);
}

TEST_F(BaseCommandsTest, AFreshVersionCopiesOnlyTheLiveFieldsIntoTheObjectsRecord) {
  version.platenFitted = false;
  CTavroUsb& usb = Base();
  BoardVersionInfo expected = usb.VersionInfo();
  version.boardRevision = 9;
  version.platenFitted = expected.platenFitted = true;
  version.laserType = expected.laserType = 0;
  version.laserNotReady = expected.laserNotReady = true;
  version.hasWAxis = expected.hasWAxis = false;
  BoardVersionInfo fresh;
  ASSERT_TRUE(usb.ReadBoardVersion(fresh));
  EXPECT_EQ(fresh, version);
  EXPECT_EQ(usb.VersionInfo(), expected);
}

TEST_F(BaseCommandsTest, EepromInformationFormsFollowTheBoard) {
  replies[0x28] = LongEepromInfo(2048, 64, 256);
  EXPECT_EQ(Base().EepromInformation(), (EepromInfo{true, 9, 1000, 2048, 3000, 64, 256, true}));
  EXPECT_EQ(Sent().at(1).bytes.size(), 32u);
  EXPECT_EQ(Sent().at(1).replyLength, 32u);

  Bytes shortForm(18, 0);
  shortForm[1] = 1;
  wire::PutWord(shortForm, 2, 512);
  shortForm[4] = 5;
  wire::PutWord(shortForm, 5, 2048);
  shortForm[7] = 1;
  replies[0x28] = shortForm;
  struct Case {
    float firmware;
    std::uint16_t protocol;
    std::size_t requestLength;
    EepromInfo expected;
  };
  // Below protocol 2 and at or below 1.109 the machine size and copy flag are not read.
  for (const Case& c : {Case{1.10f, 2, 1, {true, 5, 512, 0, 0, 32, 64, false}},
                        Case{1.11f, 1, 32, {true, 5, 512, 0, 0, 32, 64, false}},
                        Case{1.60f, 2, 32, {true, 5, 512, 2048, 0, 32, 64, true}}}) {
    SCOPED_TRACE(c.firmware);
    version = FirstServoBoard(c.firmware, c.protocol);
    EXPECT_EQ(Base().EepromInformation(), c.expected);
    EXPECT_EQ(Sent().at(1).bytes.size(), c.requestLength);
    EXPECT_EQ(Sent().at(1).replyLength, 18u);
  }
}

TEST_F(BaseCommandsTest, DiagnosticTextIsCutAtByte99) {
  replies[0x22] = Bytes(100, 'x');
  answer = nullptr;
  std::string text = "stale";
  ASSERT_TRUE(Base().ReadDiagText(text));
  EXPECT_EQ(text, std::string(99, 'x'));
}

TEST_F(BaseCommandsTest, EepromBlockFormsSwitchAbove64Bytes) {
  for (std::uint32_t maxRw : {64u, 65u}) {
    SCOPED_TRACE(maxRw);
    replies[0x28] = LongEepromInfo(2048, 64, maxRw);
    CTavroUsb& usb = Base();
    Forget();
    std::uint8_t data[65];
    std::uint32_t status = 99;
    ASSERT_TRUE(usb.ReadEepromBlock(0x0102, 10, status, data, true));
    EXPECT_EQ(status, 0u);
    const BoardRequest req = Only();
    ASSERT_EQ(req.bytes.size(), 32u);
    EXPECT_EQ(req.bytes[2], 1);
    if (maxRw == 64) {
      EXPECT_EQ(req.replyLength, 96u);
      EXPECT_EQ(wire::GetWord(req.bytes, 3), 0x0102);
      EXPECT_EQ(wire::GetWord(req.bytes, 5), 10);
    } else {
      EXPECT_EQ(req.replyLength, 288u);
      EXPECT_EQ(wire::GetLong(req.bytes, 7), 0x0102u);
      EXPECT_EQ(wire::GetLong(req.bytes, 11), 10u);
    }
    EXPECT_EQ(data[0], eeprom[0x0102]);
    EXPECT_EQ(data[9], eeprom[0x010B]);
    EXPECT_FALSE(usb.ReadEepromBlock(0, maxRw + 1, status, data, false));
    EXPECT_EQ(status, 1u);
  }
}

TEST_F(BaseCommandsTest, EepromReadsSplitAtPagesAndRefuseThePastTheMachineArea) {
  replies[0x28] = LongEepromInfo(2048, 64, 128);
  CTavroUsb& usb = Base();
  Forget();
  std::vector<std::uint8_t> data(1022);
  std::uint32_t status = 99;
  ASSERT_TRUE(usb.ReadEeprom(10, 300, status, data.data(), false));
  EXPECT_EQ(status, 0u);
  std::vector<std::pair<std::uint32_t, std::uint32_t>> pieces;
  for (auto& r : Sent())
    pieces.emplace_back(wire::GetLong(r.bytes, 7), wire::GetLong(r.bytes, 11));
  // No piece reaches past maxReadWrite bytes from the start of its page.
  EXPECT_EQ(pieces, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{
                        {10, 118}, {128, 128}, {256, 54}}));
  EXPECT_TRUE(std::equal(data.begin(), data.begin() + 300, eeprom.begin() + 10));

  Forget();
  EXPECT_TRUE(usb.ReadEeprom(2000, 49, status, data.data(), false));
  EXPECT_EQ(status, 1u) << "the result alone does not show the failure";
  EXPECT_TRUE(Sent().empty());
}

TEST_F(BaseCommandsTest, OpenRefusesAProtocolAboveFiveAndAFailedEepromQuery) {
  version.protocolVersion = 6;
  Plug();
  {
    CTavroUsb usb;
    EXPECT_EQ(usb.Open(true, false), 4);
    EXPECT_FALSE(usb.IsOpen());
    ASSERT_EQ(boxes.Boxes().size(), 1u);
    EXPECT_EQ(boxes.Boxes()[0].text,
              "Error: Opened \\\\.\\HnUsb, but firmware version is incompatible with this "
              "software.\r\nMachine firmware may be newer.\r\n");
    version.protocolVersion = 5;
    EXPECT_EQ(usb.Open(true, false), 0);
  }

  // A refused EEPROM query closes the channel as well, with its dialog and the version's.
  replies[0x28] = {0x3F, 1};
  Plug();
  CTavroUsb usb;
  EXPECT_EQ(usb.Open(true, false), 2);
  EXPECT_FALSE(usb.IsOpen());
  ASSERT_EQ(boxes.Boxes().size(), 3u);
  EXPECT_NE(boxes.Boxes()[1].text.find("returned code: (, 1"), std::string::npos);
  EXPECT_EQ(boxes.Boxes()[2].text, usb::NoVersionInformationText());
}

}  // namespace
