// Each numbered fault pattern, and what the host sees of it on the socket.
#include <unistd.h>

#include "SimTestSupport.h"
#include "wire/WireFormat.h"

namespace sim::testing {
namespace {

class FaultTest : public SimTest {
 protected:
  void SetUp() override { StartConnected("autovision"); }
  std::size_t VersionBytes() { return client_->Command({0x2B}, 69).bytes.size(); }
};

bool EntryExists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

TEST_F(FaultTest, Pattern1RefusesTheTargetForItsCount) {
  Control("fault refuse 0x2B count=2 reason=-7");
  EXPECT_EQ(client_->Command({0x2B}, 69).bytes, (Packet{0x3F, 0xF9}));
  EXPECT_EQ(client_->Command({0x60}, 126).bytes.size(), 126u);  // other codes go through
  EXPECT_EQ(client_->Command({0x2B}, 69).bytes, (Packet{0x3F, 0xF9}));
  EXPECT_EQ(VersionBytes(), 69u);
  EXPECT_TRUE(sim_->Faults().empty());

  sim_->QueueDiagText("kept");  // a refused command is not executed
  Control("fault refuse 0x22 count=1");
  EXPECT_EQ(client_->Command({0x22}, 100).bytes, (Packet{0x3F, 0xFC}));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(client_->Command({0x22}, 100).bytes.data())),
            "kept");
}

TEST_F(FaultTest, Patterns2To4MakeTheReplyOneByteShortOrLongOrSwallowIt) {
  Control("fault short 0x2B count=1");
  EXPECT_EQ(VersionBytes(), 68u);
  Control("fault 3 0x2B count=1");
  const RawReply r = client_->Command({0x2B}, 69);
  EXPECT_EQ(r.count, 70u);
  ASSERT_EQ(r.bytes.size(), 70u);
  EXPECT_EQ(wire::GetWideText(r.bytes, 1), u"Auto Vision");  // the rest of the reply is intact
  EXPECT_EQ(VersionBytes(), 69u);

  Control("fault drop 0x60 count=1");
  client_->Send(5, 0x80002000, 126, {0x60});
  EXPECT_FALSE(client_->Receive(std::chrono::seconds(5)).has_value());
  EXPECT_EQ(client_->Command({0x60}, 126).bytes.size(), 126u);
}

TEST_F(FaultTest, Pattern5CompletesWithTheDriverStatus) {
  for (std::uint32_t code : {23u, 121u, 2u, 6u, 995u, 31u}) {
    Control("fault status 0x2B code=" + std::to_string(code) + " count=1");
    const RawReply r = client_->Command({0x2B}, 69);
    EXPECT_EQ(r.status, code);
    EXPECT_EQ(r.count, 0u);
    EXPECT_TRUE(r.bytes.empty());
  }
  Control("fault status link code=121 count=1");
  EXPECT_EQ(VersionBytes(), 69u);
  const RawReply link = client_->LinkOpened();
  EXPECT_EQ(link.status, 121u);
  EXPECT_EQ(link.count, 0u);
}

TEST_F(FaultTest, Pattern6AnswersAfterTheDelay) {
  Control("fault late 0x2B ms=6000 count=1");
  const auto sent = clock_.Now();
  client_->Send(9, 0x80002000, 69, {0x2B});
  EXPECT_FALSE(client_->Receive(std::chrono::seconds(5)).has_value());
  const auto r = client_->Receive(std::chrono::seconds(5));
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->tag, 9u);
  EXPECT_EQ(clock_.Now() - sent, std::chrono::seconds(6));
}

TEST_F(FaultTest, RulesForAllSpareLinkOpenedAndLastUntilClearedOneByOne) {
  Control("fault refuse");
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(client_->Command({0x60}, 126).bytes, (Packet{0x3F, 0xFC}));
  EXPECT_EQ(client_->LinkOpened().count, 0x02040000u) << "byte faults spare link-opened";
  Control("fault clear");
  EXPECT_EQ(VersionBytes(), 69u);

  EXPECT_EQ(Control("fault short 0x28"), "ok fault #2 2:short 0x28");
  Control("fault status 0x28 code=23");  // behind the first: not reached while it stands
  EXPECT_EQ(client_->Command(Request(0x28, 32), 32).bytes.size(), 31u);
  Control("fault clear 2");
  EXPECT_EQ(client_->Command(Request(0x28, 32), 32).status, 23u);
  EXPECT_EQ(sim_->Command("fault clear 2"), "error: no fault rule '2'");
}

TEST_F(FaultTest, Pattern7UnplugRemovesTheEntryAndClosesConnections) {
  const std::string entry = sim_->EntryPath();
  Control("unplug");
  EXPECT_TRUE(client_->WaitHungUp());
  EXPECT_FALSE(EntryExists(entry));
  EXPECT_FALSE(RawClient(entry).Connected());
  EXPECT_EQ(sim_->Command("unplug"), "error: already unplugged");
  EXPECT_EQ(sim_->Status().plugged, false);

  Control("replug");
  EXPECT_TRUE(EntryExists(entry));
  EXPECT_EQ(Connect()->Command({0x2B}, 69).bytes.size(), 69u);
}

TEST_F(FaultTest, Pattern8ProfileSwapChangesTheLiveBoard) {
  Control("profile manualvision");
  EXPECT_EQ(wire::GetWideText(client_->Command({0x2B}, 69).bytes, 1), u"Manual Vision");
  EXPECT_EQ(sim_->Command("profile nonesuch").rfind("error: unknown profile", 0), 0u);
  EXPECT_EQ(sim_->ProfileName(), "manualvision");
}

TEST_F(FaultTest, StopEndsAPendingLateReplyPromptly) {
  Control("fault late all ms=600000");
  client_->Send(1, 0x80002000, 69, {0x2B});
  client_->Receive(std::chrono::seconds(1));  // the board is now inside the delay
  sim_->Stop();
  EXPECT_TRUE(client_->WaitHungUp(std::chrono::seconds(1)));
  EXPECT_LT(clock_.Elapsed(), std::chrono::seconds(600));
}

}  // namespace
}  // namespace sim::testing
