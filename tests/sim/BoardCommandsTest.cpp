// The board's side of the base commands that the host-against-board tests cannot reach: the
// forms it refuses, diagnostic text pacing, EEPROM status bytes and set replies.
#include <tuple>

#include "SimTestSupport.h"
#include "wire/WireFormat.h"

namespace sim::testing {
namespace {

using wire::GetByte;
using wire::GetFlag;
using wire::GetWord;

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

std::string Text(const Packet& reply) {
  return std::string(reply.begin(), std::find(reply.begin(), reply.end(), 0));
}

TEST_F(SimTest, DiagTextComesInPiecesOf99BytesAndOnTheClockAndOnlyFromProtocol2) {
  StartBoard("autovision", {.diagPeriod = std::chrono::seconds(5)});
  auto client = Connect();
  RawReply r = client->Command({0x22}, 100);
  ASSERT_EQ(r.bytes.size(), 100u);
  EXPECT_EQ(Text(r.bytes), "");
  sim_->QueueDiagText(std::string(150, 'a'));
  r = client->Command({0x22}, 100);
  EXPECT_EQ(Text(r.bytes), std::string(99, 'a'));
  EXPECT_EQ(r.bytes[99], 0);
  EXPECT_EQ(Text(client->Command({0x22}, 100).bytes), std::string(51, 'a'));

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
  RawReply r = ShortRead(*client, 0, 160, 32);  // across the signature of section 1 at 162
  ASSERT_EQ(r.bytes.size(), 96u);
  EXPECT_EQ(GetByte(r.bytes, 2), 0);
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

TEST_F(SimTest, SetRepliesFollowTheProtocolAndAMissingAxisIsRefused) {
  StartBoard("servo");
  auto client = Connect();
  EXPECT_EQ(client->Command({0x3A, 2}, 2).bytes, (Packet{0x3A, 0}));
  Control("wplug out");
  EXPECT_EQ(client->Command({0x3A, 16}, 2).bytes, (Packet{0x3F, 0xFD}));  // no W axis fitted
  Control("profile servo-pv0");  // a set command has no reply at protocol 0
  const RawReply r = client->Command({0x3A, 1}, 0);
  EXPECT_EQ((std::tuple{r.status, r.count, r.bytes.size()}), (std::tuple{0u, 0u, 0u}));
}

}  // namespace
}  // namespace sim::testing
