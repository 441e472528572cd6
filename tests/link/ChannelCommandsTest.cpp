// The W axis and platen interfaces: the channel number in each request, the records on the wire,
// the platen's extra record, the EEPROM forms and the wait for a write to end.
#include <cstring>

#include "tests/link/ControllerFixture.h"

namespace {

using namespace testing_support;

// A W channel EEPROM description: present, user size, kind, machine size, copy flag.
Bytes WEepromReply(bool present, std::uint16_t userSize, std::uint8_t kind) {
  Bytes r(18, 0);
  r[1] = present;
  wire::PutWord(r, 2, userSize);
  r[4] = kind;
  wire::PutWord(r, 5, 77);
  r[7] = 1;
  return r;
}

using ChannelCommandsTest = ControllerTest;

TEST_F(ChannelCommandsTest, WAndPlatenShareCodesAndAreToldApartByChannelAndLength) {
  Bytes r(10, 0);
  wire::PutLong(r, 2, 1111);
  wire::PutLong(r, 6, 2222);
  replies[0x43] = r;
  CTavroUsbServo& servo = Servo();
  CTavroUsbWAxis& w = servo;
  CTavroUsbPlaten& platen = servo;
  std::uint32_t count = 0, second = 0, platenCount = 0;
  ASSERT_TRUE(w.GetPosition(count, second));
  ASSERT_TRUE(platen.GetPosition(platenCount));
  EXPECT_EQ(count, 1111u);
  EXPECT_EQ(second, 2222u);
  EXPECT_EQ(platenCount, 1111u);
  ASSERT_TRUE(w.CommandL(1, 2, 3, 0xA0B0C0D0));
  ASSERT_TRUE(platen.MovePlaten(1));
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[0].bytes, (Bytes{0x43, 16}));
  EXPECT_EQ(sent[1].bytes, (Bytes{0x43, 17}));
  EXPECT_EQ(sent[2].bytes.size(), 31u);
  EXPECT_EQ(sent[2].bytes[1], 16);
  EXPECT_EQ(wire::GetLong(sent[2].bytes, 14), 0xA0B0C0D0u);
  EXPECT_EQ(sent[3].bytes[0], sent[2].bytes[0]);
  EXPECT_EQ(sent[3].bytes.size(), 32u);
  EXPECT_EQ(sent[3].bytes[1], 17);
  EXPECT_EQ(sent[3].bytes[2], 1);
}

TEST_F(ChannelCommandsTest, IndexStateKeepsOnlyOneAndTwo) {
  CTavroUsbWAxis& w = Servo();
  bool valid = false;
  std::uint32_t state = 9, count = 0;
  for (const auto& [raw, expected] : {std::pair{1, 1u}, std::pair{2, 2u}, std::pair{3, 0u}}) {
    replies[0x4E] = {0x4E, 1, static_cast<std::uint8_t>(raw), 0, 0, 0, 8};
    ASSERT_TRUE(w.GetIndexCapture(valid, state, count));
    EXPECT_EQ(state, expected);
  }
  EXPECT_TRUE(valid);
  EXPECT_EQ(count, 8u);
}

TEST_F(ChannelCommandsTest, TuningRecordIsTenLongsInWireOrder) {
  CTavroUsbWAxis& w = Servo();
  const ChannelPid pid{1, 2, 3, 4, 5, 6, 7, 8, 9, -10};
  ASSERT_TRUE(w.SetPid(pid));
  const Bytes sent = Only().bytes;
  ASSERT_EQ(sent.size(), 42u);
  const std::uint32_t wireOrder[] = {1, 3, 2, 8, 7, 6, 9, static_cast<std::uint32_t>(-10), 4, 5};
  for (std::size_t i = 0; i < 10; ++i)
    EXPECT_EQ(wire::GetLong(sent, 2 + 4 * i), wireOrder[i]) << i;

  replies[0x74] = sent;
  ChannelPid back;
  ASSERT_TRUE(w.GetPid(back));
  EXPECT_EQ(back, pid);
}

TEST_F(ChannelCommandsTest, PlatenDefinitionHasItsExtraRecordAboveFirmware1619) {
  Bytes define(60, 0);
  wire::PutLong(define, 2, 5000);
  wire::PutLong(define, 22, 0x00028000);  // Gear 2.5
  define[48] = kNoIndexMark;
  replies[0x62] = define;
  Bytes extra(32, 0);
  wire::PutWord(extra, 5, 300);                             // Size[2]
  wire::PutWord(extra, 7, static_cast<std::uint16_t>(-4));  // Offset[0]
  wire::PutWord(extra, 13, 12);
  replies[0x68] = extra;

  CTavroUsbPlaten& platen = Servo();
  ChannelDefine d;
  ASSERT_TRUE(platen.GetDefine(d));
  EXPECT_EQ(d.Speed, 5000u);
  EXPECT_DOUBLE_EQ(d.Gear, 2.5);
  EXPECT_EQ(d.IndexType, kNoIndexMark);
  EXPECT_EQ(d.Size[2], 300);
  EXPECT_EQ(d.Offset[0], -4);
  EXPECT_EQ(d.SlowSpeedTurns, 12);
  EXPECT_EQ(Sent().at(1).bytes, (Bytes{0x68, 0}));

  Forget();
  ASSERT_TRUE(platen.SetDefine(d));
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(wire::GetLong(sent[0].bytes, 22), 0x00028000u);
  Bytes expected = extra;
  expected[0] = 0x48;
  EXPECT_EQ(sent[1].bytes, expected);
}

TEST_F(ChannelCommandsTest, OlderPlatenFirmwareHasNoExtraRecordToReadOrWrite) {
  version = FirstServoBoard(1.61f, 1);
  ChannelDefine d;
  d.Size[0] = 5;
  d.SlowSpeedTurns = 5;
  ASSERT_TRUE(static_cast<CTavroUsbPlaten&>(Servo()).GetDefine(d));
  EXPECT_EQ(d.Size[0], 0);
  EXPECT_EQ(d.SlowSpeedTurns, 0);
  EXPECT_EQ(Only().bytes, (Bytes{0x62, 17}));

  // Nor does a refused first packet (tried three times) get a second one.
  version = AutoVisionBoard();
  replies[0x61] = {0x3F, 0xFE};
  EXPECT_FALSE(static_cast<CTavroUsbPlaten&>(Servo()).SetDefine(d));
  for (const BoardRequest& r : Sent())
    EXPECT_EQ(r.bytes[0], 0x61);
}

TEST_F(ChannelCommandsTest, SerialRecordTravelsWithItsChannelNumber) {
  const BoardIdentity id{"SN-1", "Machine", "Model", 0x0102, 3, 4, true};
  CTavroUsbWAxis& w = Servo();
  ASSERT_TRUE(w.SetSerial(id));
  Bytes sent = Only().bytes;
  ASSERT_EQ(sent.size(), 126u);
  EXPECT_EQ(text::ToUtf8(wire::GetWideText(sent, 33)), "Machine");
  EXPECT_EQ(wire::GetWord(sent, 97), 0x0102);
  EXPECT_EQ(wire::GetLong(sent, 103), 4u);
  EXPECT_EQ(sent[107], 1);
  EXPECT_EQ(sent[108], 16);
  replies[0x7D] = sent;
  BoardIdentity back;
  ASSERT_TRUE(w.GetSerial(back));
  EXPECT_EQ(back, id);
}

TEST_F(ChannelCommandsTest, GatedChannelCommandsSendNothing) {
  version = FirstServoBoard(1.72f, 1);
  CTavroUsbWAxis& w = Servo();
  std::int32_t raw = 1;
  double scale = 1;
  float r = 1;
  std::uint32_t a = 1, b = 1, c = 1;
  EXPECT_FALSE(w.CommandHash());  // protocol below 2
  EXPECT_TRUE(w.GetTemperature(raw, scale));
  EXPECT_TRUE(w.ReadQ(r, a, b, c));
  EXPECT_EQ(raw, 0);
  EXPECT_EQ(a, 0u);
  EXPECT_TRUE(Sent().empty());
}

// ---- the W axis's EEPROM ----------------------------------------------------------------------

using WEepromTest = ControllerTest;

TEST_F(WEepromTest, DescriptionIsCopiedIntoTheControllersRecordButNotItsProgress) {
  replies[0x65] = WEepromReply(false, 2048, 0);
  CTavroUsbServo& servo = Servo();
  EXPECT_EQ(servo.WEepromInformation(), (EepromInfo{false, 0, 2048, 77, 0, 32, 64, true}));

  replies[0x65] = WEepromReply(true, 1024, 5);
  EepromInfo progress;
  ASSERT_TRUE(static_cast<CTavroUsbWAxis&>(servo).GetEepromInfo(progress));
  EXPECT_TRUE(progress.present);
  EXPECT_EQ(progress.kind, 5);
  EXPECT_EQ(servo.WEepromInformation().userSize, 1024u);
  EXPECT_FALSE(servo.WEepromInformation().present);
  EXPECT_EQ(servo.WEepromInformation().kind, 0);

  // The platen's description has no transfer sizes and is not copied.
  ASSERT_TRUE(static_cast<CTavroUsbPlaten&>(servo).GetEepromInfo(progress));
  EXPECT_EQ(progress.maxReadWrite, 0u);
  EXPECT_EQ(Sent().back().bytes[1], 17);

  // A manual-vision controller fills its record only when that very record is asked for.
  version = ManualVisionBoard(5);
  replies[0x65] = WEepromReply(false, 512, 0);
  CTavroUsbManualVision& manual = ManualVision();
  EXPECT_EQ(manual.WEepromInformation().userSize, 512u);
  replies[0x65] = WEepromReply(false, 256, 0);
  ASSERT_TRUE(static_cast<CTavroUsbWAxis&>(manual).GetEepromInfo(progress));
  EXPECT_EQ(manual.WEepromInformation().userSize, 512u);
}

TEST_F(WEepromTest, BlockFormsFollowProtocolAndTransferSize) {
  replies[0x65] = WEepromReply(false, 4096, 0);
  answer = [](const BoardRequest& r) {
    Bytes out(r.replyLength, 0);
    if (r.bytes[0] == 0x66 && out.size() > 36) out[32] = 0xAB;
    if (r.bytes[0] == 0x66 && out.size() == 68) out[4] = 0xCD;
    return BoardAnswer{.bytes = out};
  };
  CTavroUsbWAxis& w = Servo();
  std::uint8_t data[64] = {};
  std::uint32_t status = 9;
  ASSERT_TRUE(w.ReadEepromBlock(0x0102, 64, status, data, true));
  EXPECT_EQ(status, 0u);
  EXPECT_EQ(data[0], 0xAB);
  Bytes sent = Only().bytes;
  EXPECT_EQ(sent.size(), 32u);
  EXPECT_EQ(Bytes(sent.begin(), sent.begin() + 7), (Bytes{0x66, 2, 1, 0x01, 0x02, 0, 64}));
  EXPECT_EQ(Only().replyLength, 96u);
  EXPECT_FALSE(w.ReadEepromBlock(0, 65, status, data, false));
  EXPECT_EQ(status, 1u);

  Forget();
  const std::uint8_t in[3] = {7, 8, 9};
  ASSERT_TRUE(w.WriteEepromBlock(0x10, 3, in, false));
  sent = Only().bytes;
  EXPECT_EQ(sent.size(), 96u);
  EXPECT_EQ(wire::GetWord(sent, 3), 0x10);
  EXPECT_EQ(sent[33], 8);

  version = FirstServoBoard(1.60f, 1);
  CTavroUsbWAxis& old = Servo();
  ASSERT_TRUE(old.ReadEepromBlock(0x20, 2, status, data, false));
  EXPECT_EQ(Only().bytes, (Bytes{0x66, 0, 0x20, 0, 2}));
  EXPECT_EQ(data[0], 0xCD);
  Forget();
  ASSERT_TRUE(old.WriteEepromBlock(0x20, 3, in, false));
  EXPECT_EQ(Only().bytes.size(), 69u);
  EXPECT_EQ(Only().bytes[5], 7);
}

TEST_F(WEepromTest, WithoutAWAxisReadsAreErasedAndWritesGoNowhere) {
  version.hasWAxis = false;
  CTavroUsbServo& servo = Servo();
  CTavroUsbWAxis& w = servo;
  EXPECT_EQ(servo.WEepromInformation(), EepromInfo{});
  std::uint8_t data[4] = {};
  std::uint32_t status = 0;
  // Nothing fits an EEPROM of size 0.
  EXPECT_TRUE(w.ReadEeprom(0, 4, status, data, false));
  EXPECT_EQ(status, 1u);
  EXPECT_TRUE(w.ReadEepromBlock(0, 0, status, data, false));
  EXPECT_EQ(status, 6u);
  EXPECT_TRUE(Sent().empty());
}

TEST_F(WEepromTest, AWriteWaitsForEachPieceAndReportsTheBoardsResult) {
  int busyPolls = 0;
  int writes = 0;
  replies[0x65] = WEepromReply(false, 4096, 0);
  answer = [&](const BoardRequest& r) {
    if (r.bytes[0] == 0x67) {
      ++writes;
      busyPolls = 3;
      return BoardAnswer{.bytes = Bytes(2, 0)};
    }
    // Busy for three looks after each piece; the second piece fails with 4.
    const bool busy = busyPolls-- > 0;
    return BoardAnswer{.bytes = WEepromReply(busy, 4096, busy || writes < 2 ? 0 : 4)};
  };
  CTavroUsbWAxis& w = Servo();
  std::uint8_t data[200] = {};
  std::uint32_t status = 0;
  ASSERT_TRUE(w.WriteEeprom(100, 200, status, data, false));
  EXPECT_EQ(status, 4u);
  EXPECT_EQ(writes, 2);
  const auto sent = Sent();
  EXPECT_EQ(wire::GetWord(sent.front().bytes, 3), 100);
  EXPECT_EQ(wire::GetWord(sent.front().bytes, 5), 64);
  EXPECT_EQ(sent.size(), 2u + 2 * 4);

  EXPECT_TRUE(w.WriteEeprom(4000, 200, status, data, false));
  EXPECT_EQ(status, 1u);
}

TEST_F(ChannelCommandsTest, ParametersAreReadSerialDefineTuningAndStopAtAFailure) {
  replies[0x62] = {0x3F, 0xFE};
  WAxisParameters p;
  EXPECT_FALSE(static_cast<CTavroUsbWAxis&>(Servo()).ReadParameters(p));
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 1u + 3);  // a refusal is tried three times
  EXPECT_EQ(sent[0].bytes[0], 0x7D);
  EXPECT_EQ(sent.back().bytes[0], 0x62);
}

}  // namespace
