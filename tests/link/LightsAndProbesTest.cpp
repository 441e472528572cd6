// Lights, probes, laser and interrupts: the forms chosen by protocol, firmware and driver, the
// packet splits, and the limits on what a reply may make the host read.
#include <algorithm>
#include <span>
#include <vector>

#include "tests/link/ControllerFixture.h"

namespace {

using namespace testing_support;

constexpr std::uint32_t kOldDriver = 0x01020000;

using LightsTest = ControllerTest;

TEST_F(LightsTest, BoardsBeforeProtocolThreeReportOneMaximumForAllChannels) {
  version = FirstServoBoard(1.60f, 2);
  version.lightChannelCount = 5;
  replies[0x70] = {0x70, 0, 0x0F, 0xA0};
  std::uint32_t maxima[5] = {};
  ASSERT_TRUE(Servo().GetLightMaxValues(maxima));
  EXPECT_EQ(Only().bytes, (Bytes{0x70, 0}));
  for (std::uint32_t m : maxima)
    EXPECT_EQ(m, 4000u);

  const std::uint32_t values[5] = {1, 2, 3, 0x10004, 5};
  Forget();
  ASSERT_TRUE(servo_->SetLightValues(values));
  const Bytes sent = Only().bytes;
  ASSERT_EQ(sent.size(), 127u);
  EXPECT_EQ(Bytes(sent.begin() + 1, sent.begin() + 7), (Bytes{1, 1, 1, 1, 1, 0}));
  EXPECT_EQ(wire::GetWord(sent, 43 + 2 * 3), 4);  // the low 16 bits
}

TEST_F(LightsTest, AnOldDriverCarries21ChannelsAPacket) {
  driverWord = kOldDriver;
  version.lightChannelCount = 22;
  answer = [](const BoardRequest& r) {
    Bytes out(86, 0);
    for (std::size_t i = 0; i < 21; ++i)
      wire::PutLong(out, 2 + 4 * i, 100u * r.bytes.at(1) + i);
    return BoardAnswer{.bytes = out};
  };
  std::uint32_t maxima[22] = {};
  ASSERT_TRUE(Servo().GetLightMaxValues(maxima));
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].bytes[1], 0);
  EXPECT_EQ(sent[0].bytes[2], 0);
  EXPECT_EQ(sent[1].bytes[1], 21);
  EXPECT_EQ(maxima[20], 20u);
  EXPECT_EQ(maxima[21], 2100u);

  version.lightChannelCount = 21;
  answer = nullptr;
  const std::uint32_t values[21] = {};
  ASSERT_TRUE(Servo().SetLightValues(values));
  EXPECT_EQ(Only().bytes.size(), 86u);
}

TEST_F(LightsTest, ANewerDriverCarries42AndStopsAtTheFirstFailure) {
  version.lightChannelCount = 50;
  std::uint32_t values[50] = {};
  answer = [](const BoardRequest& r) {
    if (r.bytes.at(1) == 42) return BoardAnswer{.bytes = {0x3F, 0xFE}};
    Bytes out(254, 0);
    wire::PutLong(out, 2, 7);
    return BoardAnswer{.bytes = out};
  };
  ASSERT_FALSE(Servo().GetLightMaxValues(values));
  EXPECT_EQ(values[0], 7u);  // the channels fetched so far stay
  EXPECT_EQ(values[42], 0u);
  EXPECT_EQ(Sent().front().bytes[2], 1);
}

// The count of channels is a byte of the board's record: whatever it says, no form goes past its
// two packets, and nothing past the caller's entries is read or written.
TEST_F(LightsTest, NoCountOfChannelsTakesAFormPastItsPacketsOrTheCallerPastItsEntries) {
  constexpr std::uint32_t kSentinel = 0xDEADBEEF;
  struct Case {
    const char* form;
    BoardVersionInfo board;
    std::uint32_t driver;
    std::size_t entries;               // the caller's array
    std::vector<std::uint8_t> firsts;  // first channel of each packet, both operations
    std::size_t filled;                // entries the read fills
  };
  const Case cases[] = {
      {"one word", FirstServoBoard(1.60f, 2), 0x02040000, 255, {0}, 255},
      {"one word, 42 entries", FirstServoBoard(1.60f, 2), 0x02040000, 42, {0}, 42},
      {"old driver", AutoVisionBoard(), kOldDriver, 255, {0, 21}, 42},
      {"newer driver", AutoVisionBoard(), 0x02040000, 255, {0, 42}, 84},
      {"newer driver, 42 entries", AutoVisionBoard(), 0x02040000, 42, {0}, 42},
      {"newer driver, 50 entries", AutoVisionBoard(), 0x02040000, 50, {0, 42}, 50},
  };
  answer = [](const BoardRequest& r) {
    Bytes out(r.replyLength, 0);
    for (std::size_t at = 2; at + 4 <= out.size() && r.bytes[0] == 0x70; at += 4)
      wire::PutLong(out, at, 1000);
    if (r.replyLength == 4) wire::PutWord(out, 2, 1000);  // the one-word form
    return BoardAnswer{.bytes = out};
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.form);
    version = c.board;
    version.lightChannelCount = 255;
    driverWord = c.driver;
    std::vector<std::uint32_t> values(c.entries + 1, kSentinel);
    ASSERT_TRUE(Servo().GetLightMaxValues(std::span(values).first(c.entries)));
    const auto firsts = [&] {
      std::vector<std::uint8_t> out;
      for (const BoardRequest& r : Sent())
        out.push_back(r.bytes.size() > 2 ? r.bytes[1] : 0);
      return out;
    };
    EXPECT_EQ(firsts(), c.firsts) << "read";
    EXPECT_EQ(static_cast<std::size_t>(std::count(values.begin(), values.end(), 1000u)), c.filled);
    EXPECT_EQ(values.back(), kSentinel);

    Forget();
    ASSERT_TRUE(servo_->SetLightValues(std::span(values).first(c.entries)));
    if (c.board.protocolVersion < 3) {
      const Bytes sent = Only().bytes;
      EXPECT_EQ(std::count(sent.begin() + 1, sent.begin() + 43, 1), 42) << "flags at most 42";
      continue;
    }
    EXPECT_EQ(firsts(), c.firsts) << "write";
    for (const BoardRequest& r : Sent()) {
      for (std::size_t at = 2; at + 4 <= r.bytes.size(); at += 4)
        ASSERT_NE(wire::GetLong(r.bytes, at), kSentinel) << "read past the caller's entries";
    }
  }
}

// ---- probes ----------------------------------------------------------------------------------

using ProbesTest = ControllerTest;

TEST_F(ProbesTest, ProbeCapturePositionsNeedBothFlags) {
  Bytes r(92, 0);
  r[0] = r[4] = 1;  // source 0 available and valid
  r[1] = 1;         // source 1 available only
  r[8] = 0x81;
  wire::PutLong(r, 12 + 8, 333);   // Position[0][2]
  wire::PutLong(r, 12 + 16, 444);  // Position[1][0], not taken
  wire::PutLong(r, 76 + 12, 555);  // Extra[3]
  replies[0x6B] = r;
  const std::uint8_t want[4] = {1, 2, 3, 4};
  const std::uint16_t select[4] = {0x105, 6, 7, 8};
  ProbeCapture c;
  c.Position[1][0] = 9;
  ASSERT_TRUE(Servo().GetProbeCapture(want, select, c));
  EXPECT_EQ(Only().code, usb::kGetCapturePositionCode);
  EXPECT_EQ(Only().bytes, (Bytes{0x6B, 1, 2, 3, 4, 0x05, 6, 7, 8}));
  EXPECT_EQ(c.Kind[0], 0x81);
  EXPECT_EQ(c.Position[0][2], 333u);
  EXPECT_EQ(c.Position[1][0], 9u);
  EXPECT_EQ(c.Extra[3], 555u);
}

TEST_F(ProbesTest, LaserRequestsAreLimitedToWhatTheFormCarries) {
  struct Case {
    float firmware;
    const char* name;
    std::uint16_t wanted;
    std::uint8_t sent;
    std::uint32_t replyLength;
  };
  for (const Case& c : {Case{1.81f, "Servo", 10, 6, 127}, Case{1.82f, "Servo", 40, 30, 601},
                        Case{2.30f, "Auto Vision", 40, 30, 633}, Case{1.84f, "Servo", 2, 2, 37}}) {
    version = AutoVisionBoard();
    version.firmwareName = c.name;
    version.firmwareVersion = c.firmware;
    LaserPoints points;
    ASSERT_TRUE(Servo().GetLaserPoints(c.wanted, points));
    EXPECT_EQ(Only().bytes[1], c.sent) << c.firmware;
    EXPECT_EQ(Only().replyLength, c.replyLength) << c.firmware;
  }
}

TEST_F(ProbesTest, LaserPointsDoNotFollowACountBeyondWhatWasAsked) {
  // Form C: Count at 0, Pending word at 1, points of 21 bytes from 3.
  Bytes r(21 * 2 + 3, 0);
  r[0] = 200;
  wire::PutWord(r, 1, 0x0102);
  r[3 + 21] = 1;                          // point 1 valid
  wire::PutLong(r, 3 + 21 + 1, 0xEE);     // its Extra
  wire::PutLong(r, 3 + 21 + 5, 12345);    // its Time
  wire::PutLong(r, 3 + 21 + 9 + 8, 678);  // its Position[2]
  replies[0x5F] = r;
  LaserPoints points;
  ASSERT_TRUE(Servo().GetLaserPoints(2, points));
  EXPECT_EQ(points.Count, 200);
  EXPECT_EQ(points.Pending, 0x0102);
  EXPECT_FALSE(points.Points[0].Valid);
  EXPECT_TRUE(points.Points[1].Valid);
  EXPECT_EQ(points.Points[1].Extra, 0xEEu);
  EXPECT_EQ(points.Points[1].Time, 12345u);
  EXPECT_EQ(points.Points[1].Position[2], 678u);
  EXPECT_EQ(points.Points[2].Time, 0u);

  r[0] = 0;
  replies[0x5F] = r;
  ASSERT_TRUE(servo_->GetLaserPoints(2, points));
  EXPECT_EQ(points.Pending, 0x0102);
  EXPECT_FALSE(points.Points[1].Valid);
}

TEST_F(ProbesTest, FormAFillsEveryAskedPointAndTheOldestLaserFirmwareGetsZeros) {
  version = FirstServoBoard(1.81f, 2);
  Bytes r(127, 0);
  r[0] = 1;
  r[1] = 9;
  wire::PutLong(r, 7 + 4, 111);        // Time of point 1
  wire::PutLong(r, 31 + 16 + 4, 222);  // Position[1] of point 1
  replies[0x5F] = r;
  LaserPoints points;
  ASSERT_TRUE(Servo().GetLaserPoints(3, points));
  EXPECT_EQ(points.Pending, 9);
  EXPECT_TRUE(points.Points[2].Valid);
  EXPECT_EQ(points.Points[1].Time, 111u);
  EXPECT_EQ(points.Points[1].Position[1], 222u);
  EXPECT_FALSE(points.Points[3].Valid);

  version = FirstServoBoard(1.80f, 2);
  ASSERT_TRUE(Servo().GetLaserPoints(3, points));
  version = AutoVisionBoard();
  version.laserNotReady = true;
  std::uint32_t settings[21] = {1};
  ASSERT_TRUE(Servo().GetLaserPoints(3, points));
  ASSERT_TRUE(servo_->GetLaserSettings(settings));
  ASSERT_TRUE(servo_->SetLaserSettings(settings));
  EXPECT_EQ(settings[0], 0u);
  EXPECT_TRUE(Sent().empty());
}

TEST_F(ProbesTest, InterruptsHaveOneByteCodesOnOldFirmware) {
  version = FirstServoBoard(1.82f, 2);
  CTavroUsbServo& old = Servo();
  EXPECT_FALSE(old.EnableLaserInterrupt());
  EXPECT_TRUE(Sent().empty());
  ASSERT_TRUE(old.DisableInterrupts());
  ASSERT_TRUE(old.EnableVideoInterrupt());
  ASSERT_TRUE(old.EnableTouchProbeInterrupt());
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].bytes, Bytes{0x6A});
  EXPECT_EQ(sent[1].bytes, Bytes{0x69});
  EXPECT_EQ(sent[2].bytes, Bytes{0x64});

  version = FirstServoBoard(1.83f, 2);
  ASSERT_TRUE(Servo().EnableLaserInterrupt());
  EXPECT_EQ(Only().bytes.size(), 16u);
  EXPECT_EQ(Only().bytes[0], 0x69);
  EXPECT_EQ(Only().bytes[5], 1);
}

TEST_F(ProbesTest, TouchProbeCommandsOfTheOldestBoardsFailWithoutSending) {
  version = FirstServoBoard(1.10f, 0);
  std::uint32_t a[4], b[4];
  EXPECT_FALSE(Servo().SetTouchProbeEnable(true));
  EXPECT_FALSE(servo_->GetTouchProbeCapture(a, b));
  EXPECT_TRUE(Sent().empty());

  version = ManualVisionBoard(0);
  Bytes r(62, 0);
  wire::PutLong(r, 4 + 12, 41);
  wire::PutLong(r, 20, 42);
  replies[0x36] = r;
  ASSERT_TRUE(ManualVision().GetTouchProbeCapture(a, b));
  EXPECT_EQ(a[3], 41u);
  EXPECT_EQ(b[0], 42u);
}

}  // namespace
