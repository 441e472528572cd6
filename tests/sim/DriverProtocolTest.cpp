// The driver framing: headers, tags, order, clipping, and what happens to bad datagrams.
#include "SimTestSupport.h"

namespace sim::testing {
namespace {

constexpr std::uint32_t kNormal = 0x80002000;
constexpr std::uint32_t kCapture = 0x80002008;

TEST_F(SimTest, TagsAreEchoedRequestsAnsweredInOrderAndRepliesClippedToTheBuffer) {
  StartBoard("autovision");
  auto client = Connect();
  const struct {
    std::uint32_t tag, code, replyLength;
    Packet packet;
    std::size_t size;
  } cases[] = {
      {7, kNormal, 69, {0x2B}, 69},   {0xFFFFFFFF, 0x80002010, 0, {}, 0},
      {3, kNormal, 126, {0x60}, 126}, {0, kCapture, 100, {0x22}, 100},
      {42, kNormal, 2, {0x7F}, 2},    {8, kNormal, 10, {0x2B}, 10},
      {9, kNormal, 300, {0x2B}, 69},  {10, kNormal, 0, {0x2B}, 0},
  };
  for (const auto& c : cases)
    client->Send(c.tag, c.code, c.replyLength, c.packet);
  for (const auto& c : cases) {
    const auto r = client->Receive();
    ASSERT_TRUE(r.has_value()) << c.tag;
    EXPECT_EQ(r->tag, c.tag);
    EXPECT_EQ(r->status, 0u) << c.tag;
    EXPECT_EQ(r->bytes.size(), c.size) << c.tag;
    if (c.code == kNormal) {
      EXPECT_EQ(r->count, c.size) << c.tag;
    }
  }
}

TEST_F(SimTest, MalformedDatagramsAreDroppedAndTheConnectionLives) {
  StartBoard("autovision");
  auto client = Connect();
  client->SendDatagram({});
  client->SendDatagram({1});
  client->SendDatagram(Packet(11, 0xAA));
  EXPECT_FALSE(client->Receive(std::chrono::seconds(1)).has_value());
  EXPECT_EQ(client->Command({0x2B}, 69).bytes.size(), 69u);
  EXPECT_EQ(sim_->TrafficSeen().malformed, 3u);
}

TEST_F(SimTest, BadPacketsAndCodesGetDriverErrors) {
  StartBoard("autovision");
  auto client = Connect();
  const auto status = [&](std::uint32_t code, std::uint32_t replyLength, const Packet& p) {
    client->Send(1, code, replyLength, p);
    const auto r = client->Receive();
    EXPECT_TRUE(r.has_value());
    return r ? r->status : ~0u;
  };
  EXPECT_EQ(status(kNormal, 2, {}), 87u);                   // no packet
  EXPECT_EQ(status(kNormal, 2, Request(0x7F, 301)), 87u);   // over 300 bytes
  EXPECT_EQ(status(kNormal, 301, {0x2B}), 87u);             // reply over 300
  EXPECT_EQ(status(kNormal, 2, Request(0x7F, 300)), 0u);    // 300 is allowed
  EXPECT_EQ(status(kCapture, 2, Request(0x7F, 1022)), 0u);  // and 1022 for captures
  EXPECT_EQ(status(kCapture, 2, Request(0x7F, 1023)), 87u);
  EXPECT_EQ(status(0x80002004, 0, {0x2B}), 1u);  // no such io code
}

TEST_F(SimTest, SeveralConnectionsAreServedAtOnce) {
  StartBoard("autovision");
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 3; ++i)
    clients.push_back(Connect());
  for (std::uint32_t i = 0; i < 3; ++i)
    clients[i]->Send(10 + i, kNormal, 69, {0x2B});
  for (std::uint32_t i = 3; i-- > 0;) {
    const auto r = clients[i]->Receive();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->tag, 10 + i);
  }
  EXPECT_EQ(sim_->Status().connections, 3u);
  clients[1].reset();
  EXPECT_EQ(clients[2]->Command({0x60}, 126).bytes.size(), 126u);
}

}  // namespace
}  // namespace sim::testing
