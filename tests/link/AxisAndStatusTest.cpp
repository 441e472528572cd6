// Axis operations, the status poll and the board data queries: which form goes out for which
// board, and where each field of the reply is read from.
#include "tests/link/ControllerFixture.h"

namespace {

using namespace testing_support;

using AxisCommandsTest = ControllerTest;

TEST_F(AxisCommandsTest, AxisThreeIsTheLastThatReachesTheBoard) {
  replies[0x63] = {0x63, 3, 0xFF, 0xFF, 0xFF, 0xFE};
  CTavroUsbServo& servo = Servo();
  std::uint32_t count = 0;
  ASSERT_TRUE(servo.GetRotaryPosition(3, count));
  EXPECT_EQ(static_cast<std::int32_t>(count), -2);
  EXPECT_EQ(Only().bytes, (Bytes{0x63, 3}));

  Forget();
  bool valid = false, captured = false;
  AxisPid pid;
  AxisDefine define;
  EXPECT_FALSE(servo.GetRotaryPosition(4, count));
  EXPECT_FALSE(servo.GetIndexCapture(4, valid, captured, count));
  EXPECT_FALSE(servo.GetAxisPid(4, pid));
  EXPECT_FALSE(servo.SetAxisPid(4, pid));
  EXPECT_FALSE(servo.SyncAxis(4));
  EXPECT_FALSE(servo.GetAxisDefine(4, define));
  EXPECT_TRUE(Sent().empty());
}

TEST_F(AxisCommandsTest, TuningRecordTravelsInWireOrderBothWays) {
  Bytes reply(26, 0);
  // Kp, Ki, Kd, Dt, Kaff, Kvff, Kout, Mb as words from 2; Il, Fe as longs from 18.
  const std::uint16_t words[] = {101, 102, 103, 104, 105, 106, 107, 0xFFF6};
  for (std::size_t i = 0; i < 8; ++i)
    wire::PutWord(reply, 2 + 2 * i, words[i]);
  wire::PutLong(reply, 18, 200001);
  wire::PutLong(reply, 22, 300002);
  replies[0x74] = reply;
  CTavroUsbServo& servo = Servo();

  AxisPid pid;
  ASSERT_TRUE(servo.GetAxisPid(2, pid));
  EXPECT_EQ(pid, (AxisPid{101, 103, 102, 200001, 300002, 106, 105, 104, 107, -10}));
  ASSERT_TRUE(servo.SetAxisPid(2, pid));
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].bytes, (Bytes{0x74, 2}));
  Bytes expected = reply;
  expected[0] = 0x73;
  expected[1] = 2;
  EXPECT_EQ(sent[1].bytes, expected);
}

TEST_F(AxisCommandsTest, SyncAxisNeedsFirmwareAbove1119) {
  version = FirstServoBoard(1.119f, 1);
  EXPECT_TRUE(Servo().SyncAxis(1));
  EXPECT_TRUE(Sent().empty());
  version = FirstServoBoard(1.12f, 1);
  EXPECT_TRUE(Servo().SyncAxis(1));
  EXPECT_EQ(Only().bytes, (Bytes{0x3A, 1}));
}

TEST_F(AxisCommandsTest, OnlyTheOldestServoBoardsAreReadWithoutAValidFlag) {
  version = FirstServoBoard(1.10f, 0);
  replies[0x4E] = {0x4E, 0, 1, 0, 0, 0x12, 0x34};
  CTavroUsbServo& servo = Servo();
  bool valid = false, captured = false;
  std::uint32_t count = 0;
  ASSERT_TRUE(servo.GetIndexCapture(0, valid, captured, count));
  EXPECT_TRUE(valid);
  EXPECT_TRUE(captured);
  EXPECT_EQ(count, 0x1234u);

  // A manual-vision board takes its valid flag from the reply at every level.
  version = ManualVisionBoard(0);
  CTavroUsbManualVision& manual = ManualVision();
  valid = true;
  ASSERT_TRUE(manual.GetIndexCapture(0, valid, captured, count));
  EXPECT_FALSE(valid);
}

// ---- the status poll ----------------------------------------------------------------------------

using StatusPollTest = ControllerTest;

TEST_F(StatusPollTest, LongFormReadsEveryFieldFromItsOffset) {
  Bytes r(221, 0);
  r[1] = 1;                                                        // EStop
  r[4] = 0x83;                                                     // TouchCaptureReady, raw
  r[7] = 0x40;                                                     // Sleep, a flag reduced to 1
  r[26] = 1;                                                       // Moving[3]
  r[27] = 0xFF;                                                    // Limit[0] negative
  r[30] = 1;                                                       // Limit[3] positive
  r[42] = 1;                                                       // Failed[3]
  wire::PutLong(r, 55, 0xA1B2C3D4);                                // AuxLong
  wire::PutLong(r, 59 + 12, static_cast<std::uint32_t>(-123456));  // LinearPosition[3]
  r[75 + 15] = 1;                                                  // Inputs[15]
  r[107] = 1;                                                      // Footswitch
  wire::PutWord(r, 112, 0xBEEF);                                   // AuxWord
  r[129] = 1;                                                      // AuxMoving[1]
  r[138] = 0xFE;                                                   // WLimit[2]
  wire::PutLong(r, 151 + 8, 77);                                   // WLongB[2]
  r[166] = 1;                                                      // PlatenLimit open
  wire::PutLong(r, 171, 99);                                       // PlatenLongB
  replies[0x59] = r;

  ServoStatus s;
  ASSERT_TRUE(Servo().PollStatus(s, 1, 2));
  EXPECT_EQ(Only().bytes[1], 1);
  EXPECT_EQ(Only().bytes[2], 2);
  EXPECT_TRUE(s.EStop);
  EXPECT_EQ(s.TouchCaptureReady, 0x83);
  EXPECT_TRUE(s.Sleep);
  EXPECT_TRUE(s.Moving[3] && !s.Moving[0]);
  EXPECT_EQ(s.Limit[0], -1);
  EXPECT_EQ(s.Limit[3], 1);
  EXPECT_TRUE(s.Failed[3]);
  EXPECT_EQ(s.AuxLong, 0xA1B2C3D4u);
  EXPECT_EQ(s.LinearPosition[3], -123456);
  EXPECT_TRUE(s.Inputs[15]);
  EXPECT_TRUE(s.Footswitch);
  EXPECT_EQ(s.AuxWord, 0xBEEF);
  EXPECT_TRUE(s.AuxMoving[1] && !s.WMoving);
  EXPECT_EQ(s.WLimit[2], -2);
  EXPECT_EQ(s.WLongB[2], 77u);
  EXPECT_EQ(s.PlatenLimit, 1);
  EXPECT_EQ(s.PlatenLongB, 99u);
}

TEST_F(StatusPollTest, CompactFormSharesItsChannelBytesBetweenWAndPlaten) {
  version = FirstServoBoard(1.60f, 1);
  Bytes r(62, 0);
  r[28] = 1;  // Inputs[2]
  r[31] = 1;  // Inputs2[3]
  r[34] = 1;
  r[37] = 0xFF;
  wire::PutLong(r, 42, 5);
  wire::PutLong(r, 46 + 4, 4242);  // LinearPosition[1]
  replies[0x59] = r;
  ServoStatus s;
  s.Sleep = true;  // a short form zeroes what it does not carry
  ASSERT_TRUE(Servo().PollStatus(s, 0, 1));
  EXPECT_TRUE(s.Inputs[2] && !s.Inputs[0] && s.Inputs2[3]);
  EXPECT_TRUE(s.WMoving && s.PlatenMoving);
  EXPECT_EQ(s.WLimit[0], -1);
  EXPECT_EQ(s.PlatenLimit, -1);
  EXPECT_EQ(s.WLongB[0], 5u);
  EXPECT_EQ(s.PlatenLongB, 5u);
  EXPECT_EQ(s.LinearPosition[1], 4242);
  EXPECT_FALSE(s.Sleep);
}

TEST_F(StatusPollTest, OldestBoardsAreAskedFor28BytesWithByteTwoClear) {
  version = FirstServoBoard(1.10f, 0);
  Bytes r(28, 1);
  replies[0x59] = r;
  ServoStatus s;
  ASSERT_TRUE(Servo().PollStatus(s, 1, 1));
  EXPECT_EQ(Only().bytes[1], 1);
  EXPECT_EQ(Only().bytes[2], 0);
  EXPECT_EQ(Only().replyLength, 28u);
  EXPECT_TRUE(s.WSettled);
  EXPECT_FALSE(s.WMoving);
  // Before firmware 1.119 no axis reports failure, whatever the bytes say.
  EXPECT_FALSE(s.Failed[0]);
  EXPECT_TRUE(s.Stalled[0]);
}

TEST_F(StatusPollTest, ManualVisionPicksItsFormByProtocolFiveAndAlwaysReadsFailed) {
  for (const auto& [protocol, length] : {std::pair{4, 62u}, std::pair{5, 221u}}) {
    version = ManualVisionBoard(static_cast<std::uint16_t>(protocol));
    version.firmwareVersion = 1.0f;
    Bytes r(length, 0);
    r[protocol == 5 ? 39 : 24] = 1;  // Failed[0]
    replies[0x59] = r;
    ServoStatus s;
    ASSERT_TRUE(ManualVision().PollStatus(s, 0, 1));
    EXPECT_EQ(Only().bytes[2], 1);
    EXPECT_TRUE(s.Failed[0]) << protocol;
  }
}

// ---- machine status and board data -----------------------------------------------------------

using BoardDataTest = ControllerTest;

TEST_F(BoardDataTest, GatedQueriesGiveZerosWithoutSending) {
  version = FirstServoBoard(1.60f, 1);
  CTavroUsbServo& servo = Servo();
  PmdVersion pmd{1, 1, 1, 1, 1, 1, 1};
  std::int32_t raw = 5;
  double scale = 5;
  std::uint16_t fpga = 7;
  EXPECT_TRUE(servo.GetPmdVersion(pmd, 1));  // one motion chip on the first generation
  EXPECT_EQ(pmd, PmdVersion{});
  EXPECT_TRUE(servo.GetTemperature(0, raw, scale));
  EXPECT_EQ(raw, 0);
  EXPECT_EQ(scale, 0.0);
  EXPECT_TRUE(servo.GetFpgaVersion(fpga));
  EXPECT_EQ(fpga, 0);
  EXPECT_TRUE(servo.ClearSleep());
  EXPECT_TRUE(servo.SetStatusLight(2));
  EXPECT_TRUE(servo.SetLedWords(0, 1, 2));
  EXPECT_TRUE(Sent().empty());

  version = FirstServoBoard(1.50f, 1);
  pmd = {1, 1, 1, 1, 1, 1, 1};
  EXPECT_TRUE(Servo().GetPmdVersion(pmd, 0));
  EXPECT_EQ(pmd, PmdVersion{});
  EXPECT_TRUE(Sent().empty());

  version = AutoVisionBoard();
  version.firmwareVersion = 2.21f;
  CTavroUsbServo& av = Servo();
  EXPECT_TRUE(av.ClearSleep());
  EXPECT_TRUE(av.SetLedWords(1, 1, 2));
  EXPECT_TRUE(Sent().empty());
  EXPECT_TRUE(av.SetStatusLight(3));  // from 2.179
  EXPECT_EQ(Only().bytes, (Bytes{0x55, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(BoardDataTest, CurrentBoardsSendTheirSelectorsAndDecodeFromByteOne) {
  Bytes data(63, 0);
  wire::PutWord(data, 1, 0x0208);
  wire::PutLong(data, 17, static_cast<std::uint32_t>(-300));  // PendantPos[0]
  wire::PutWord(data, 33 + 6, 512);                           // Accelerometer[3]
  replies[0x57] = data;
  CTavroUsbServo& servo = Servo();
  std::uint16_t fpga = 0;
  ASSERT_TRUE(servo.GetFpgaVersion(fpga));
  EXPECT_EQ(fpga, 0x0208);
  PendantState pendant;
  ASSERT_TRUE(servo.GetPendant(pendant));
  EXPECT_EQ(pendant.PendantPos[0], -300);
  EXPECT_EQ(pendant.Accelerometer[3], 512);
  std::uint16_t analog[16] = {};
  ASSERT_TRUE(servo.GetAnalogInputs(analog));
  EXPECT_EQ(analog[0], 0x0208);
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(wire::GetWord(sent[0].bytes, 1), 2);
  EXPECT_EQ(wire::GetWord(sent[1].bytes, 1), 1);
  EXPECT_EQ(wire::GetWord(sent[2].bytes, 1), 3);

  ASSERT_TRUE(servo.SetLedWords(1, 0x1234, 0xABCD));
  EXPECT_EQ(Sent().back().bytes[1], 130);
  EXPECT_EQ(wire::GetWord(Sent().back().bytes, 3), 0x1234);
  EXPECT_EQ(wire::GetWord(Sent().back().bytes, 5), 0xABCD);
  Forget();
  ASSERT_TRUE(servo.ClearSleep());
  EXPECT_EQ(Only().bytes[1], 1);
}

TEST_F(BoardDataTest, ManualVisionGatesTheFpgaOnProtocolAndAnalogInputsOnFirmware) {
  std::uint16_t fpga = 9;
  std::uint16_t analog[16] = {1};
  version = ManualVisionBoard(5);
  version.firmwareVersion = 1.0f;
  CTavroUsbManualVision& manual = ManualVision();
  ASSERT_TRUE(manual.GetFpgaVersion(fpga));
  EXPECT_EQ(Sent().size(), 1u);
  version.firmwareVersion = 2.01f;
  ASSERT_TRUE(ManualVision().GetAnalogInputs(analog));
  EXPECT_TRUE(Sent().empty());
  EXPECT_EQ(analog[0], 0);
  version.firmwareVersion = 2.02f;
  ASSERT_TRUE(ManualVision().GetAnalogInputs(analog));
  EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(BoardDataTest, ExtentsHaveTwoArraysBeforeProtocolFourAndFourFromIt) {
  Bytes r(120, 0);
  r[1] = 1;  // X valid; Y not
  for (std::size_t k = 0; k < 4; ++k)
    wire::PutLong(r, 5 + 16 * k, 1000 * (k + 1));
  replies[0x5E] = r;
  AxisExtents e;
  e.Extent1[1] = 55;
  ASSERT_TRUE(Servo().GetAxisExtents(e));
  EXPECT_EQ(e.Extent1[0], 1000u);
  EXPECT_EQ(e.Extent4[0], 4000u);
  EXPECT_EQ(e.Extent1[1], 55u);

  version.protocolVersion = 3;
  replies[0x5E] = Bytes(r.begin(), r.begin() + 37);
  ASSERT_TRUE(Servo().GetAxisExtents(e));
  EXPECT_EQ(e.Extent3[0], 1000u);
  EXPECT_EQ(e.Extent4[0], 2000u);
}

}  // namespace
