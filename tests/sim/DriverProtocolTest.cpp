// The driver framing: headers, tags, order, reply lengths, and what happens to bad datagrams.
#include "SimTestSupport.h"

namespace sim::testing {
namespace {

constexpr std::uint32_t kNormal = 0x80002000;
constexpr std::uint32_t kCapture = 0x80002008;

TEST_F(SimTest, TagsAreEchoedAndRequestsOfOneConnectionAnsweredInOrder) {
  StartBoard("autovision");
  auto client = Connect();
  const std::uint32_t tags[] = {7, 0xFFFFFFFF, 3, 0};
  client->Send(tags[0], kNormal, 69, {0x2B});
  client->Send(tags[1], 0x80002010, 0, {});
  client->Send(tags[2], kNormal, 126, {0x60});
  client->Send(tags[3], kNormal, 100, {0x22});
  for (std::uint32_t tag : tags) {
    const auto r = client->Receive();
    ASSERT_TRUE(r.has_value()) << tag;
    EXPECT_EQ((std::pair{r->tag, r->status}), (std::pair{tag, 0u}));
  }
}

// The board answers with its own form's length whatever buffer the host offers, and the driver
// passes that on: a host that asks for another length fails, never reads a reply cut to fit.
TEST_F(SimTest, ABufferOfAnotherLengthThanTheFormsFailsTheTransfer) {
  struct Case {
    const char* profile;
    std::uint32_t code, replyLength;
    Packet packet;
    bool answered;
    std::uint32_t status, count;
  };
  const Case cases[] = {
      {"autovision", kNormal, 69, {0x2B}, true, 0, 69},
      {"autovision", kNormal, 300, {0x2B}, true, 0, 69},   // larger: the reply's own length
      {"autovision", kNormal, 10, {0x2B}, true, 234, 10},  // smaller: filled, more data
      {"autovision", kNormal, 0, {0x2B}, true, 234, 0},
      {"autovision", kNormal, 62, Request(0x59, 16), true, 234, 62},     // the long poll is 221
      {"autovision", kNormal, 18, Request(0x28, 32), true, 234, 18},     // the long form is 32
      {"autovision", kNormal, 0, Request(0x73, 26, {9}), true, 234, 0},  // a refusal is 2 bytes
      {"autovision", kNormal, 2, Request(0x3A, 2, {1}), true, 0, 2},
      {"autovision", kNormal, 0, Request(0x3A, 2, {1}), true, 234, 0},
      {"manualvision-pv0", kNormal, 0, Request(0x4D, 6, {16}), true, 234, 0},  // always 2
      {"servo-pv0", kNormal, 0, Request(0x3A, 2, {1}), true, 0, 0},   // a set answers nothing
      {"servo-pv0", kNormal, 2, Request(0x3A, 2, {1}), false, 0, 0},  // and is never answered
      {"autovision", kCapture, 92, Request(0x6B, 9), true, 0, 92},
      {"autovision", kNormal, 92, Request(0x6B, 9), true, 0, 2},  // refused on the normal way
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.profile << " 0x" << std::hex << int{c.packet.at(0)}
                                      << std::dec << " asking " << c.replyLength);
    StartBoard(c.profile);
    auto client = Connect();
    client->Send(1, c.code, c.replyLength, c.packet);
    const auto r = client->Receive(std::chrono::seconds(30));
    ASSERT_EQ(r.has_value(), c.answered);
    if (!r) continue;
    EXPECT_EQ((std::pair{r->status, r->count}), (std::pair{c.status, c.count}));
    EXPECT_EQ(r->bytes.size(), c.count);
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
  EXPECT_EQ(status(kNormal, 2, Request(0x7F, 300)), 0u);    // 300 is allowed: refused, 2 bytes
  EXPECT_EQ(status(kCapture, 2, Request(0x7F, 1022)), 0u);  // and 1022 for captures
  EXPECT_EQ(status(kCapture, 2, Request(0x7F, 1023)), 87u);
  EXPECT_EQ(status(0x80002004, 0, {0x2B}), 1u);  // no such io code
}

// The describe request says who answers; a driver older than it fails it as an unknown code,
// which a host takes for "no mark". Fault rules on the board's commands leave it alone.
TEST_F(SimTest, TheDescribeRequestNamesTheProfileUnlessTheDriverIsOlderThanIt) {
  constexpr std::uint32_t kDescribe = 0x80002018;
  StartBoard("servo-pv3");
  auto client = Connect();
  const auto ask = [&](std::uint32_t replyLength, const Packet& packet = {}) {
    client->Send(5, kDescribe, replyLength, packet);
    const auto r = client->Receive();
    EXPECT_TRUE(r.has_value());
    return r.value_or(RawReply{});
  };
  Control("fault status all code=121");
  RawReply r = ask(128);
  EXPECT_EQ((std::pair{r.tag, r.status}), (std::pair{5u, 0u}));
  EXPECT_EQ(std::string(r.bytes.begin(), r.bytes.end()), "simulated servo-pv3");
  EXPECT_EQ(r.count, r.bytes.size());
  Control("fault clear");
  Control("profile neither");
  r = ask(9);  // a smaller buffer is filled, as for any reply
  EXPECT_EQ((std::pair{r.status, std::string(r.bytes.begin(), r.bytes.end())}),
            (std::pair{234u, std::string("simulated")}));
  EXPECT_EQ(ask(129).status, 87u) << "over the limit";
  EXPECT_EQ(ask(128, {0x2B}).status, 87u) << "it takes no request bytes";

  Control("describe off");
  r = ask(128);
  EXPECT_EQ((std::pair{r.status, r.count}), (std::pair{1u, 0u}));
  EXPECT_TRUE(r.bytes.empty());
  EXPECT_NE(Control("status").find(" describe=off"), std::string::npos);
  EXPECT_EQ(Control("count describe"), "ok 5");
  Control("describe on");
  EXPECT_EQ(ask(128).status, 0u);
  EXPECT_EQ(sim_->Command("describe maybe"), "error: describe takes on or off");
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
