// The base commands, read back from the socket at the byte offsets the host reads them from.
#include "SimTestSupport.h"
#include "link/WireFormat.h"
#include "sim/MachineImage.h"
#include "sim/Profiles.h"

namespace sim::testing {
namespace {

using wire::GetByte;
using wire::GetFlag;
using wire::GetLong;
using wire::GetWord;

class VersionRecordTest : public SimTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(VersionRecordTest, EveryFieldAtItsByte) {
  StartBoard(GetParam());
  const VersionRecord& v = FindProfile(GetParam())->version;
  const RawReply r = Connect()->Command({0x2B}, 69);
  ASSERT_EQ(r.status, 0u);
  ASSERT_EQ(r.bytes.size(), 69u);
  const wire::Bytes b = r.bytes;
  EXPECT_EQ(wire::GetWideText(b, 1), v.firmwareName);
  EXPECT_EQ(wire::GetReal(b, 33), v.firmwareVersion);
  EXPECT_EQ(GetByte(b, 37), v.byte37);
  EXPECT_EQ(GetFlag(b, 39), v.isServo);
  EXPECT_EQ(GetFlag(b, 40), v.hasLightChannels);
  EXPECT_EQ(GetByte(b, 41), v.lightChannelCount);
  EXPECT_EQ(GetFlag(b, 42), v.flag42);
  EXPECT_EQ(GetFlag(b, 43), v.isManualVision);
  EXPECT_EQ(GetByte(b, 44), v.word44);
  EXPECT_EQ(GetFlag(b, 48), v.flag48);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(GetFlag(b, 50 + i), v.flags50[i]) << i;
  EXPECT_EQ(GetFlag(b, 55), v.hasCommand72);
  EXPECT_EQ(GetByte(b, 56), v.boardRevision);
  EXPECT_EQ(GetFlag(b, 57), v.hasWAxis);
  EXPECT_EQ(GetFlag(b, 58), v.platenFitted);
  EXPECT_EQ(GetFlag(b, 59), v.flag59);
  EXPECT_EQ(GetFlag(b, 60), v.hasTouchProbe);
  EXPECT_EQ(GetWord(b, 61), v.protocolVersion);
  EXPECT_EQ(GetByte(b, 63), v.laserType);
  EXPECT_EQ(GetFlag(b, 64), v.flag64);
  EXPECT_EQ(GetFlag(b, 65), v.laserNotReady);
  EXPECT_EQ(GetFlag(b, 66), v.eepromInfoLong);
}

INSTANTIATE_TEST_SUITE_P(AllProfiles, VersionRecordTest,
                         ::testing::Values("autovision", "servo", "manualvision", "servo-pv0",
                                           "pv6", "neither"),
                         [](const ::testing::TestParamInfo<const char*>& profile) {
                           std::string n = profile.param;
                           for (char& c : n)
                             c = c == '-' ? '_' : c;
                           return n;
                         });

TEST(ProfileTable, KeyValuesOfEachBoardKind) {
  const Profile& av = *FindProfile("autovision");
  EXPECT_EQ(av.version.firmwareName, u"Auto Vision");
  EXPECT_TRUE(av.version.isServo && av.version.eepromInfoLong && av.version.hasCommand72);
  EXPECT_EQ(av.version.protocolVersion, 5);
  EXPECT_FALSE(FindProfile("manualvision")->version.isServo);
  EXPECT_TRUE(FindProfile("manualvision")->version.isManualVision);
  EXPECT_EQ(FindProfile("servo-pv0")->version.protocolVersion, 0);
  EXPECT_EQ(FindProfile("pv6")->version.protocolVersion, 6);
  EXPECT_FALSE(FindProfile("neither")->version.isServo ||
               FindProfile("neither")->version.isManualVision);
  // The host calls a driver old when byte 2 (signed) is below 3 and byte 3 below 2.
  const auto old = [](std::uint32_t w) {
    return static_cast<std::int8_t>(w >> 16) < 3 && (w >> 24) < 2;
  };
  EXPECT_FALSE(old(av.driverWord));
  EXPECT_TRUE(old(FindProfile("servo")->driverWord));
  EXPECT_EQ(FindProfile("nonesuch"), nullptr);
}

TEST(ProfileTable, ShortEepromInfoBoardsHaveTheGeometryTheHostAssumes) {
  for (const Profile& p : Profiles()) {
    SCOPED_TRACE(p.name);
    if (!p.version.eepromInfoLong) {
      EXPECT_EQ(p.eeprom.pageSize, 32u);
      EXPECT_EQ(p.eeprom.maxReadWrite, 64u);
    }
    EXPECT_LE(p.eeprom.maxReadWrite, 256u);  // the long block read carries 256 bytes at most
    EXPECT_GE(p.eeprom.machineSize, 1022u);
    EXPECT_EQ(p.eeprom.pageSize & (p.eeprom.pageSize - 1), 0u);
  }
}

TEST_F(SimTest, EepromInfoLongForm) {
  StartBoard("autovision");
  const RawReply r = Connect()->Command(Request(0x28, 32), 32);
  ASSERT_EQ(r.bytes.size(), 32u);
  const wire::Bytes b = r.bytes;
  EXPECT_TRUE(GetFlag(b, 1));
  EXPECT_EQ(GetByte(b, 2), 2);
  EXPECT_EQ(GetLong(b, 3), 4096u);
  EXPECT_EQ(GetLong(b, 7), 2048u);
  EXPECT_EQ(GetLong(b, 11), 65536u);
  EXPECT_EQ(GetLong(b, 15), 64u);
  EXPECT_EQ(GetLong(b, 19), 256u);
  EXPECT_TRUE(GetFlag(b, 23));
}

TEST_F(SimTest, EepromInfoShortFormsFollowFirmwareAndProtocol) {
  // Firmware 1.10 takes a one-byte request; later firmware a 32-byte one. Each refuses the other.
  StartBoard("servo-pv0");
  auto client = Connect();
  RawReply r = client->Command({0x28}, 18);
  ASSERT_EQ(r.bytes.size(), 18u);
  EXPECT_TRUE(GetFlag(r.bytes, 1));
  EXPECT_EQ(GetWord(r.bytes, 2), 2048);
  EXPECT_EQ(GetByte(r.bytes, 4), 1);
  EXPECT_EQ(client->Command(Request(0x28, 32), 18).bytes, (Packet{0x3F, 0xFE}));

  Control("profile servo");  // protocol 1: no machine size, no copy flag
  EXPECT_EQ(client->Command({0x28}, 18).bytes, (Packet{0x3F, 0xFE}));
  r = client->Command(Request(0x28, 32), 18);
  ASSERT_EQ(r.bytes.size(), 18u);
  EXPECT_EQ(GetWord(r.bytes, 2), 2048);
  EXPECT_EQ(GetWord(r.bytes, 5), 0);
  EXPECT_FALSE(GetFlag(r.bytes, 7));

  Control("profile manualvision");  // protocol 2 and up add them
  r = client->Command(Request(0x28, 32), 18);
  EXPECT_EQ(GetWord(r.bytes, 2), 1024);
  EXPECT_EQ(GetByte(r.bytes, 4), 3);
  EXPECT_EQ(GetWord(r.bytes, 5), 1536);
  EXPECT_TRUE(GetFlag(r.bytes, 7));
}

TEST_F(SimTest, IdentityShortBelowProtocol2AndLongFrom2) {
  StartBoard("servo");
  auto client = Connect();
  RawReply r = client->Command({0x60}, 97);
  ASSERT_EQ(r.bytes.size(), 97u);
  EXPECT_EQ(wire::GetWideText(r.bytes, 1), u"SV-07-00412");
  EXPECT_EQ(wire::GetWideText(r.bytes, 33), u"Servo 200");
  EXPECT_EQ(wire::GetWideText(r.bytes, 65), u"SV200");

  Control("profile autovision");
  r = client->Command({0x60}, 126);
  ASSERT_EQ(r.bytes.size(), 126u);
  EXPECT_EQ(wire::GetWideText(r.bytes, 1), u"AV3-24-01187");
  EXPECT_EQ(wire::GetWideText(r.bytes, 33), u"Auto Vision 300");
  EXPECT_EQ(wire::GetWideText(r.bytes, 65), u"AV300 CNC");
  EXPECT_EQ(GetWord(r.bytes, 97), 0x0203);
  EXPECT_EQ(GetLong(r.bytes, 99), 20240315u);
  EXPECT_EQ(GetLong(r.bytes, 103), 0x00C0FFEEu);
  EXPECT_FALSE(GetFlag(r.bytes, 107));
}

std::string Text(const Packet& reply) {
  return std::string(reply.begin(), std::find(reply.begin(), reply.end(), 0));
}

TEST_F(SimTest, DiagTextPendingTextInPiecesOf99Bytes) {
  StartBoard("autovision", {.diagPeriod = platform::Duration::zero()});
  auto client = Connect();
  RawReply r = client->Command({0x22}, 100);
  ASSERT_EQ(r.bytes.size(), 100u);
  EXPECT_EQ(Text(r.bytes), "");

  sim_->QueueDiagText(std::string(150, 'a'));
  r = client->Command({0x22}, 100);
  EXPECT_EQ(Text(r.bytes), std::string(99, 'a'));
  EXPECT_EQ(r.bytes[99], 0);
  EXPECT_EQ(Text(client->Command({0x22}, 100).bytes), std::string(51, 'a'));
  EXPECT_EQ(Text(client->Command({0x22}, 100).bytes), "");
}

TEST_F(SimTest, DiagTextComesOnTheClockAndOnlyFromProtocol2) {
  StartBoard("autovision", {.diagPeriod = std::chrono::seconds(5)});
  auto client = Connect();
  clock_.SleepFor(std::chrono::seconds(4));
  EXPECT_EQ(Text(client->Command({0x22}, 100).bytes), "");
  clock_.SleepFor(std::chrono::seconds(7));  // 11 s: the lines of 5 s and 10 s
  std::string text = Text(client->Command({0x22}, 100).bytes);
  text += Text(client->Command({0x22}, 100).bytes);
  EXPECT_NE(text.find("[      5.000] Auto Vision 2.30: heartbeat 1"), std::string::npos) << text;
  EXPECT_NE(text.find("[     10.000] Auto Vision 2.30: heartbeat 2"), std::string::npos) << text;

  Control("profile servo");
  EXPECT_EQ(client->Command({0x22}, 100).bytes, (Packet{0x3F, 0xFF}));
}

TEST_F(SimTest, EepromBlockLongFormReadsTheMachineImage) {
  StartBoard("autovision");
  auto client = Connect();
  const std::vector<std::uint8_t> image = BuildMachineImage(*FindProfile("autovision"));
  std::vector<std::uint8_t> read;
  // Pieces as the host splits them: up to 256 bytes from the start of a 64-byte page.
  for (std::uint32_t at = 0; at < 1022;) {
    const std::uint32_t n = std::min<std::uint32_t>(256 - at % 64, 1022 - at);
    const RawReply r = client->Command(
        Request(0x29, 32,
                {0, 0, 0, 0, 0, 0,  //
                 static_cast<std::uint8_t>(at >> 24), static_cast<std::uint8_t>(at >> 16),
                 static_cast<std::uint8_t>(at >> 8), static_cast<std::uint8_t>(at), 0, 0,
                 static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)}),
        288);
    ASSERT_EQ(r.bytes.size(), 288u);
    ASSERT_EQ(GetByte(r.bytes, 2), 0) << at;
    read.insert(read.end(), r.bytes.begin() + 32, r.bytes.begin() + 32 + n);
    at += n;
  }
  EXPECT_EQ(read, image);
  EXPECT_EQ(wire::GetWideText(read, 2), u"AV3-24-01187");
}

// Short form: word address at 3, word length at 5; reply of 96 with the data from byte 32.
RawReply ShortRead(RawClient& c, std::uint8_t area, std::uint16_t address, std::uint16_t length) {
  return c.Command(
      Request(0x29, 32,
              {0, area, static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address),
               static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)}),
      96);
}

TEST_F(SimTest, EepromBlockShortFormAndItsStatusByte) {
  StartBoard("manualvision");
  auto client = Connect();
  const std::vector<std::uint8_t> image = BuildMachineImage(*FindProfile("manualvision"));
  RawReply r = ShortRead(*client, 0, 160, 32);  // across the signature of section 1 at 162
  ASSERT_EQ(r.bytes.size(), 96u);
  EXPECT_EQ(GetByte(r.bytes, 2), 0);
  EXPECT_TRUE(std::equal(image.begin() + 160, image.begin() + 192, r.bytes.begin() + 32));
  EXPECT_EQ(r.bytes[34], 0x01);
  EXPECT_EQ(r.bytes[35], 0x01);

  EXPECT_EQ(GetByte(ShortRead(*client, 0, 1536 - 16, 32).bytes, 2), 1);  // past machineSize
  EXPECT_EQ(GetByte(ShortRead(*client, 0, 40, 64).bytes, 2), 2);  // 64 bytes from page offset 8
  EXPECT_EQ(GetByte(ShortRead(*client, 2, 0, 8).bytes, 2), 3);    // no such area
  r = ShortRead(*client, 1, 0, 8);                                // the user area is erased
  EXPECT_EQ(GetByte(r.bytes, 2), 0);
  EXPECT_EQ(r.bytes[32], 0xFF);

  Control("profile servo");  // below protocol 2 there is no block read
  EXPECT_EQ(ShortRead(*client, 0, 0, 8).bytes, (Packet{0x3F, 0xFF}));
}

TEST_F(SimTest, SetRepliesAndRefusals) {
  StartBoard("servo");
  auto client = Connect();
  EXPECT_EQ(client->Command({0x3A, 2}, 2).bytes, (Packet{0x3A, 0}));
  EXPECT_EQ(client->Command({0x3A, 16}, 2).bytes, (Packet{0x3F, 0xFD}));  // no W axis fitted
  EXPECT_EQ(client->Command({0x7F}, 2).bytes, (Packet{0x3F, 0xFF}));      // unknown code
  EXPECT_EQ(client->Command({0x2B, 0}, 69).bytes, (Packet{0x3F, 0xFE}));  // wrong length
  Control("profile servo-pv0");  // a set command has no reply at protocol 0
  const RawReply r = client->Command({0x3A, 1}, 0);
  EXPECT_EQ(r.status, 0u);
  EXPECT_EQ(r.count, 0u);
  EXPECT_TRUE(r.bytes.empty());
}

}  // namespace
}  // namespace sim::testing
