// The base commands against a hand-scripted board: which form goes out for which board, and
// where each field of the reply is read from.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "link/CTavroUsb.h"
#include "link/LinkMessages.h"
#include "link/WireFormat.h"
#include "platform/Clock.h"
#include "tests/support/Recorders.h"
#include "tests/support/ScriptedBoard.h"

namespace {

using namespace testing_support;
using Bytes = std::vector<std::uint8_t>;

struct BoardSetup {
  std::u16string name = u"Auto Vision";
  float firmware = 2.30f;
  std::uint16_t protocol = 5;
  bool eepromInfoLong = true;
  std::uint32_t pageSize = 64;
  std::uint32_t maxReadWrite = 256;
  std::uint32_t machineSize = 2048;
};

// A version reply with every byte distinct where the record has no field, so that a field read
// from the wrong byte shows.
Bytes VersionReply(const BoardSetup& setup) {
  Bytes r(69);
  for (std::size_t i = 0; i < r.size(); ++i)
    r[i] = static_cast<std::uint8_t>(0x80 + i);
  wire::PutWideText(r, 1, setup.name);
  wire::PutReal(r, 33, setup.firmware);
  r[37] = 37;
  r[39] = 1;   // isServo
  r[40] = 1;   // hasLightChannels
  r[41] = 24;  // lightChannelCount
  r[43] = 0;   // isManualVision
  r[44] = 44;
  r[55] = 1;  // hasCommand72
  r[56] = 3;  // boardRevision
  r[57] = 1;  // hasWAxis
  r[58] = 0;  // platenFitted
  r[60] = 1;  // hasTouchProbe
  wire::PutWord(r, 61, setup.protocol);
  r[63] = 2;  // laserType
  r[65] = 0;  // laserNotReady
  r[66] = setup.eepromInfoLong ? 1 : 0;
  return r;
}

class BaseCommandsTest : public LinkFixture {
 protected:
  ScriptedBoard board{dir.Class1(0)};
  BoardSetup setup;
  std::array<std::uint8_t, 4096> eeprom{};

  BaseCommandsTest() {
    for (std::size_t i = 0; i < eeprom.size(); ++i)
      eeprom[i] = static_cast<std::uint8_t>(i * 7);
    board.SetHandler([this](const BoardRequest& r) { return Answer(r); });
  }

  BoardAnswer Answer(const BoardRequest& r) {
    Bytes out(r.replyLength, 0);
    switch (r.bytes.at(0)) {
      case 0x2B:
        return {.bytes = VersionReply(setup)};
      case 0x28:
        out.assign(setup.eepromInfoLong ? 32 : 18, 0);
        out[1] = 1;
        if (setup.eepromInfoLong) {
          out[2] = 9;
          wire::PutLong(out, 3, 1000);
          wire::PutLong(out, 7, setup.machineSize);
          wire::PutLong(out, 11, 3000);
          wire::PutLong(out, 15, setup.pageSize);
          wire::PutLong(out, 19, setup.maxReadWrite);
          out[23] = 1;
        } else {
          wire::PutWord(out, 2, 512);
          out[4] = 5;
          wire::PutWord(out, 5, static_cast<std::uint16_t>(setup.machineSize));
          out[7] = 1;
        }
        return {.bytes = out};
      case 0x29: {
        const bool isShort = r.replyLength == 96;
        const std::uint32_t address =
            isShort ? wire::GetWord(r.bytes, 3) : wire::GetLong(r.bytes, 7);
        const std::uint32_t length =
            isShort ? wire::GetWord(r.bytes, 5) : wire::GetLong(r.bytes, 11);
        std::memcpy(&out[32], &eeprom[address], length);
        return {.bytes = out};
      }
      default:
        return {.bytes = out};
    }
  }

  void OpenBoard(CTavroUsb& usb) { ASSERT_EQ(usb.Open(true, false), 0); }
};

TEST_F(BaseCommandsTest, VersionRecordFieldsComeFromTheirBytes) {
  CTavroUsb usb;
  OpenBoard(usb);
  const BoardVersionInfo& v = usb.VersionInfo();
  EXPECT_EQ(v.firmwareName, "Auto Vision");
  EXPECT_FLOAT_EQ(v.firmwareVersion, 2.30f);
  EXPECT_EQ(v.byte37, 37);
  EXPECT_TRUE(v.isServo);
  EXPECT_TRUE(v.hasLightChannels);
  EXPECT_EQ(v.lightChannelCount, 24);
  EXPECT_FALSE(v.isManualVision);
  EXPECT_EQ(v.word44, 44);
  EXPECT_TRUE(v.hasCommand72);
  EXPECT_EQ(v.boardRevision, 3);
  EXPECT_TRUE(v.hasWAxis);
  EXPECT_FALSE(v.platenFitted);
  EXPECT_TRUE(v.hasTouchProbe);
  EXPECT_EQ(v.protocolVersion, 5);
  EXPECT_EQ(v.laserType, 2);
  EXPECT_FALSE(v.laserNotReady);
  EXPECT_TRUE(v.eepromInfoLong);
  EXPECT_TRUE(v.flag48 && v.flags50[0] && v.flag59 && v.flag64);  // 0x80+i bytes: all set

  const auto first = board.Commands().at(0);
  EXPECT_EQ(first.bytes, Bytes{0x2B});
  EXPECT_EQ(first.replyLength, 69u);
}

TEST_F(BaseCommandsTest, AFreshVersionCopiesOnlyTheLiveFieldsIntoTheObjectsRecord) {
  CTavroUsb usb;
  OpenBoard(usb);
  board.SetHandler([this](const BoardRequest& r) {
    BoardAnswer a = Answer(r);
    if (r.bytes.at(0) == 0x2B) {
      a.bytes[56] = 9;  // boardRevision changes: not live
      a.bytes[58] = 1;  // platen plugged in: live
      a.bytes[63] = 0;  // laser gone: live
      a.bytes[65] = 1;
      a.bytes[57] = 0;
    }
    return a;
  });
  BoardVersionInfo fresh;
  ASSERT_TRUE(usb.ReadBoardVersion(fresh));
  EXPECT_EQ(fresh.boardRevision, 9);
  EXPECT_EQ(usb.VersionInfo().boardRevision, 3);
  EXPECT_TRUE(usb.VersionInfo().platenFitted);
  EXPECT_EQ(usb.VersionInfo().laserType, 0);
  EXPECT_TRUE(usb.VersionInfo().laserNotReady);
  EXPECT_FALSE(usb.VersionInfo().hasWAxis);
}

TEST_F(BaseCommandsTest, EepromInformationFormsFollowTheBoard) {
  {
    CTavroUsb usb;
    OpenBoard(usb);
    const auto req = board.Commands().at(1);
    EXPECT_EQ(req.bytes.size(), 32u);
    EXPECT_EQ(req.replyLength, 32u);
    const EepromInfo& e = usb.EepromInformation();
    EXPECT_EQ(e, (EepromInfo{true, 9, 1000, 2048, 3000, 64, 256, true}));
  }
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
    setup.eepromInfoLong = false;
    setup.firmware = c.firmware;
    setup.protocol = c.protocol;
    board.ClearRequests();
    CTavroUsb usb;
    OpenBoard(usb);
    const auto req = board.Commands().at(1);
    EXPECT_EQ(req.bytes.size(), c.requestLength) << c.firmware;
    EXPECT_EQ(req.replyLength, 18u);
    EXPECT_EQ(usb.EepromInformation(), c.expected) << c.firmware;
  }
}

TEST_F(BaseCommandsTest, IdentityHasItsExtraFieldsFromProtocolTwo) {
  board.SetHandler([this](const BoardRequest& r) {
    if (r.bytes.at(0) != 0x60) return Answer(r);
    Bytes out(r.replyLength, 0xEE);
    wire::PutWideText(out, 1, u"SN-4711");
    wire::PutWideText(out, 33, u"Bench 2");
    wire::PutWideText(out, 65, u"AV 300");
    if (out.size() == 126) {
      wire::PutWord(out, 97, 0x1234);
      wire::PutLong(out, 99, 0x01020304);
      wire::PutLong(out, 103, 0xA0B0C0D0);
      out[107] = 1;
    }
    return BoardAnswer{.bytes = out};
  });
  for (std::uint16_t protocol : {5, 1}) {
    setup.protocol = protocol;
    CTavroUsb usb;
    OpenBoard(usb);
    BoardIdentity id;
    ASSERT_TRUE(usb.ReadBoardIdentity(id));
    EXPECT_EQ(board.Commands().back().replyLength, protocol >= 2 ? 126u : 97u);
    EXPECT_EQ(id.serialNumber, "SN-4711");
    EXPECT_EQ(id.machineName, "Bench 2");
    EXPECT_EQ(id.modelName, "AV 300");
    EXPECT_EQ(id.identityWord, protocol >= 2 ? 0x1234 : 0);
    EXPECT_EQ(id.identityLong2, protocol >= 2 ? 0xA0B0C0D0u : 0u);
    EXPECT_EQ(id.identityFlag, protocol >= 2);
  }
}

TEST_F(BaseCommandsTest, DiagnosticTextIsCutAtByte99AndAbsentBeforeProtocolTwo) {
  board.SetHandler([this](const BoardRequest& r) {
    if (r.bytes.at(0) != 0x22) return Answer(r);
    return BoardAnswer{.bytes = Bytes(100, 'x')};
  });
  std::string text = "stale";
  {
    CTavroUsb usb;
    OpenBoard(usb);
    ASSERT_TRUE(usb.ReadDiagText(text));
    EXPECT_EQ(text, std::string(99, 'x'));
  }

  setup.protocol = 1;
  CTavroUsb old;
  OpenBoard(old);
  board.ClearRequests();
  ASSERT_TRUE(old.ReadDiagText(text));
  EXPECT_EQ(text, "");
  EXPECT_TRUE(board.Commands().empty());
}

TEST_F(BaseCommandsTest, EepromBlockFormsSwitchAbove64Bytes) {
  for (std::uint32_t maxRw : {64u, 65u}) {
    setup.maxReadWrite = maxRw;
    CTavroUsb usb;
    OpenBoard(usb);
    board.ClearRequests();
    std::uint8_t data[65];
    std::uint32_t status = 99;
    ASSERT_TRUE(usb.ReadEepromBlock(0x0102, 10, status, data, true));
    EXPECT_EQ(status, 0u);
    const auto req = board.Commands().at(0);
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
  setup.pageSize = 64;
  setup.maxReadWrite = 128;
  CTavroUsb usb;
  OpenBoard(usb);
  board.ClearRequests();
  std::vector<std::uint8_t> data(1022);
  std::uint32_t status = 99;
  ASSERT_TRUE(usb.ReadEeprom(10, 300, status, data.data(), false));
  EXPECT_EQ(status, 0u);
  std::vector<std::pair<std::uint32_t, std::uint32_t>> pieces;
  for (auto& r : board.Commands())
    pieces.emplace_back(wire::GetLong(r.bytes, 7), wire::GetLong(r.bytes, 11));
  // No piece reaches past maxReadWrite bytes from the start of its page.
  EXPECT_EQ(pieces, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{
                        {10, 118}, {128, 128}, {256, 54}}));
  EXPECT_TRUE(std::equal(data.begin(), data.begin() + 300, eeprom.begin() + 10));

  board.ClearRequests();
  EXPECT_TRUE(usb.ReadEeprom(2000, 49, status, data.data(), false));
  EXPECT_EQ(status, 1u) << "the result alone does not show the failure";
  EXPECT_TRUE(board.Commands().empty());
}

TEST_F(BaseCommandsTest, OpenRefusesAProtocolAboveFiveAndClosesTheChannel) {
  setup.protocol = 6;
  CTavroUsb usb;
  EXPECT_EQ(usb.Open(true, false), 4);
  EXPECT_FALSE(usb.IsOpen());
  ASSERT_EQ(boxes.Boxes().size(), 1u);
  EXPECT_EQ(boxes.Boxes()[0].text,
            "Error: Opened \\\\.\\HnUsb, but firmware version is incompatible with this "
            "software.\r\nMachine firmware may be newer.\r\n");
  setup.protocol = 5;
  EXPECT_EQ(usb.Open(true, false), 0);
}

TEST_F(BaseCommandsTest, AFailedEepromQueryAtOpenShowsBothMessages) {
  board.SetHandler([this](const BoardRequest& r) {
    if (r.bytes.at(0) == 0x28) return BoardAnswer{.bytes = {0x3F, 1}};
    return Answer(r);
  });
  CTavroUsb usb;
  EXPECT_EQ(usb.Open(true, false), 2);
  EXPECT_FALSE(usb.IsOpen());
  ASSERT_EQ(boxes.Boxes().size(), 2u);
  EXPECT_NE(boxes.Boxes()[0].text.find("returned code: (, 1"), std::string::npos);
  EXPECT_EQ(boxes.Boxes()[1].text, usb::NoVersionInformationText());
}

}  // namespace
