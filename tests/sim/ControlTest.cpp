// The control language, the control socket, device entries and start-up failures.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "SimTestSupport.h"
#include "platform/DeviceIo.h"
#include "platform/WindowProbe.h"
#include "sim/Control.h"
#include "sim/DeviceEntry.h"

namespace sim::testing {
namespace {

TEST_F(SimTest, ControlAnswersAndErrors) {
  int quits = 0;
  StartBoard("autovision", {.diagPeriod = platform::Duration::zero(), .onQuit = [&] { ++quits; }});
  const struct {
    const char* line;
    const char* answer;  // the answer begins with this
  } cases[] = {
      {"profiles", "ok autovision servo manualvision servo-pv0 pv6 neither"},
      {"profile", "ok autovision"},
      {"status", "ok profile=autovision plugged=yes entry="},
      {"fault late 0x22 ms=100 count=3", "ok fault #1 6:late 0x22 ms=100 count=3"},
      {"fault 5 link code=995", "ok fault #2 5:status link code=995"},
      {"faults", "ok 2 fault rule(s): #1 6:late 0x22 ms=100 count=3; #2 5:status link code=995"},
      {"fault", "error: fault needs a kind"},
      {"fault melt", "error: unknown fault 'melt'"},
      {"fault refuse 0x100", "error: bad target '0x100'"},
      {"fault refuse 0x2B 0x60", "error: bad target '0x60'"},
      {"fault refuse colour=red", "error: bad number in 'colour=red'"},
      {"fault refuse speed=3", "error: unknown or out-of-range setting 'speed=3'"},
      {"count 0x2B", "ok 0"},
      {"count nothing", "error: count takes"},
      {"diag \"open", "error: quoted text without its closing quote"},
      {"", "error: empty command"},
      {"launch", "error: unknown command 'launch' (try help)"},
      {"help", "ok commands: help | status"},
      {"quit", "ok bye"},
  };
  for (const auto& c : cases) {
    const std::string answer = sim_->Command(c.line);
    EXPECT_EQ(answer.rfind(c.answer, 0), 0u) << c.line << " -> " << answer;
  }
  EXPECT_GE(quits, 1);
}

// The recent transfers carry when each came, so that a host's timing can be read from outside.
TEST_F(SimTest, RecentTransfersShowWhenEachCameAndFilterByCommand) {
  StartBoard("autovision", {.diagPeriod = platform::Duration::zero()});
  auto client = Connect();
  client->Command(Packet{0x2B}, 0);
  clock_.SleepFor(std::chrono::milliseconds(250));
  client->Command(Packet{0x2B}, 0);
  client->Command(Packet{0x5A, 0x01}, 0);
  const std::string answer = Control("recent 0x2B");
  unsigned seq1 = 0, seq2 = 0;
  long long us1 = 0, us2 = 0;
  char bytes1[8] = {}, bytes2[8] = {};
  ASSERT_EQ(std::sscanf(answer.c_str(), "ok %u:%lld:%7s %u:%lld:%7s", &seq1, &us1, bytes1, &seq2,
                        &us2, bytes2),
            6)
      << answer;
  EXPECT_LT(seq1, seq2);
  EXPECT_EQ(us2 - us1, 250'000) << "the board's clock, to the microsecond";
  EXPECT_STREQ(bytes1, "2b") << "the packet's bytes, no more";
  EXPECT_EQ(answer.find("5a01"), std::string::npos) << "only the command named";
  EXPECT_TRUE(Control("recent").ends_with(":5a01")) << "every command, the last one last";
  ExpectRefused({"recent 0x100"});
}

TEST_F(SimTest, PosesAsTheMeasuringApplicationInItsDeviceFolder) {
  StartBoard("autovision");
  platform::SetDeviceDirectory(dir_);  // where TavroTest against this board looks
  EXPECT_FALSE(platform::FindWindowOfClass("MiravaAppFrame"));
  EXPECT_EQ(sim_->Command("app on"), "ok the measuring application runs");
  EXPECT_TRUE(platform::FindWindowOfClass("MiravaAppFrame"));
  EXPECT_EQ(sim_->Command("app on"), "ok the measuring application runs") << "already on";
  EXPECT_EQ(sim_->Command("app off"), "ok the measuring application ended");
  EXPECT_FALSE(platform::FindWindowOfClass("MiravaAppFrame"));
  EXPECT_EQ(sim_->Command("app maybe"), "error: app takes on or off");
  EXPECT_EQ(sim_->Command("quit"), "error: quit is not available here") << "no quit handler";

  // A second board in the same folder cannot hold the same window.
  ASSERT_TRUE(sim_->PoseAsApplication(true));
  Simulator other({.deviceDir = dir_, .entry = "class1:1"});
  std::string why;
  EXPECT_FALSE(other.PoseAsApplication(true, &why));
  EXPECT_NE(why.find("held by another program"), std::string::npos);
  platform::SetDeviceDirectory("");
}

TEST_F(SimTest, DiagTextTakesQuotesEscapesAndALineEnd) {
  StartBoard("autovision", {.diagPeriod = platform::Duration::zero()});
  Control(R"(diag raw "a\tb\x41\"")");
  Control(R"(diag two words)");
  const RawReply r = Connect()->Command({0x22}, 100);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(r.bytes.data())), "a\tbA\"two words\r\n");
  std::vector<std::string> words;
  std::string why;
  EXPECT_FALSE(SplitControlWords(R"(diag "\q")", words, why));
  EXPECT_FALSE(SplitControlWords(R"(diag "\x4")", words, why));
}

// Reads from a stream socket until `lines` line ends arrived (virtual time).
std::string ReadLines(int fd, int lines) {
  std::string text;
  platform::Clock& clock = platform::Clock::Current();
  while (std::count(text.begin(), text.end(), '\n') < lines) {
    if (clock.WaitReadable(fd, clock.Deadline(std::chrono::seconds(5))) != 1) break;
    char chunk[256];
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n <= 0) break;
    text.append(chunk, static_cast<std::size_t>(n));
  }
  return text;
}

TEST_F(SimTest, ControlSocketAnswersEachLine) {
  const std::string path = dir_ + "/ctl";
  StartBoard("servo", {.controlPath = path});
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof addr.sun_path);
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
  const std::string first = "profile\r\nunplug\nprof";  // a command split over two writes
  ASSERT_EQ(::send(fd, first.data(), first.size(), 0), static_cast<ssize_t>(first.size()));
  ASSERT_EQ(::send(fd, "ile\n", 4, 0), 4);
  EXPECT_EQ(ReadLines(fd, 3), "ok servo\nok unplugged\nok servo\n");
  sim_->Stop();  // ends the control connection too
  EXPECT_EQ(ReadLines(fd, 1), "");
  ::close(fd);
}

TEST_F(SimTest, ServesAtTheEntryPathsTheHostSearches) {
  std::string why;
  EXPECT_EQ(DeviceEntryPath("/d", "class1:0", why), "/d/{9A231617-FEC3-48CF-816B-3AA928B12D1D}/0");
  EXPECT_EQ(DeviceEntryPath("/d/", "class2:3", why), "/d/{EEE31489-92D6-4E60-9809-CB54981F8CC5}/3");
  EXPECT_EQ(DeviceEntryPath("/d", "HnUsba3", why), "/d/HnUsba3");
  for (const char* bad : {"class3:0", "class1:10", "class1:x", "HnUsbc0", "HnUsba", "hnusba0"}) {
    EXPECT_EQ(DeviceEntryPath("/d", bad, why), "") << bad;
  }
  StartBoard("autovision", {.entry = "HnUsbb2"});
  EXPECT_EQ(sim_->EntryPath(), dir_ + "/HnUsbb2");
  EXPECT_EQ(Connect()->Command({0x2B}, 69).bytes.size(), 69u);
}

TEST_F(SimTest, StartFailsCleanly) {
  std::string why;
  Simulator unknown({.profile = "nonesuch", .deviceDir = dir_});
  EXPECT_FALSE(unknown.Start(&why));
  EXPECT_EQ(why.rfind("unknown profile 'nonesuch'", 0), 0u) << why;

  Simulator tooLong({.deviceDir = dir_ + "/" + std::string(120, 'x')});
  EXPECT_FALSE(tooLong.Start(&why));

  StartBoard("autovision");  // an entry that a running board serves is not taken over
  Simulator second({.deviceDir = dir_});
  EXPECT_FALSE(second.Start(&why));
  EXPECT_NE(why.find("already served"), std::string::npos) << why;
  // A control socket that cannot be served gives up the device entry again; a socket of
  // another kind at the control path is left alone.
  Simulator third({.deviceDir = dir_, .entry = "class2:0", .controlPath = sim_->EntryPath()});
  EXPECT_FALSE(third.Start(&why));
  EXPECT_FALSE(third.Plugged());
  EXPECT_EQ(Connect()->Command({0x2B}, 69).bytes.size(), 69u);
}

}  // namespace
}  // namespace sim::testing
