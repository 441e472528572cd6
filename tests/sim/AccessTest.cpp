// Who can reach the simulated board: its owner (and the group the device entry is for) only. Any
// local user who could connect could move the stage or press e-stop without TavroTest's token.
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "SimTestSupport.h"

namespace sim::testing {
namespace {

constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;

unsigned ModeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0xFFFF;
}

std::string ParentOf(const std::string& path) {
  return path.substr(0, path.find_last_of('/'));
}

// In a child that has become uid 65534 (in `group`): 'y' when it can see and connect to `path`,
// 'n' when it sees it but is refused for want of permission, else what went wrong.
char ConnectAsNobody(const std::string& path, int type, gid_t group) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(group) != 0 || ::setuid(kNobody) != 0) {
      ::_exit('u');
    }
    struct stat st {};
    if (::stat(addr.sun_path, &st) != 0) ::_exit('s');  // the folders must not be what stops it
    const int fd = ::socket(AF_UNIX, type, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) ::_exit('y');
    ::_exit(errno == EACCES ? 'n' : 'e');
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? static_cast<char>(WEXITSTATUS(status)) : '?';
}

class AccessTest : public SimTest {
 protected:
  void StartWithControl(int deviceGroup = -1) {
    // Every folder on the way may be searched by anyone: only the sockets' own modes decide.
    ASSERT_EQ(::chmod(dir_.c_str(), 0755), 0);
    StartBoard("autovision", {.controlPath = dir_ + "/ctl/control.sock",
                              .deviceGroup = deviceGroup,
                              .diagPeriod = platform::Duration::zero()});
  }
};

TEST_F(AccessTest, TheEntryIsTheOwnersAndItsGroupsAndTheControlSocketTheOwnersAlone) {
  StartWithControl(static_cast<int>(kNoGroup));
  const std::string entry = sim_->EntryPath();
  EXPECT_EQ(ModeOf(entry), 0660u);
  EXPECT_EQ(ModeOf(dir_ + "/ctl/control.sock"), 0600u);
  struct stat st {};
  ASSERT_EQ(::stat(entry.c_str(), &st), 0);
  EXPECT_EQ(st.st_gid, kNoGroup) << "the group the entry was given";
  for (const std::string& folder : {ParentOf(entry), dir_ + "/ctl"})
    EXPECT_EQ(ModeOf(folder) & 0022, 0u) << folder << " may be written by others";
  // Unplugged and served again, the entry comes back as it was.
  Control("unplug");
  Control("replug");
  EXPECT_EQ(ModeOf(entry), 0660u);
}

TEST_F(AccessTest, AnotherUserCannotConnectToTheControlSocketOrTheDeviceEntry) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  StartWithControl();
  const std::string control = dir_ + "/ctl/control.sock";
  EXPECT_EQ(ConnectAsNobody(sim_->EntryPath(), SOCK_SEQPACKET, kNoGroup), 'n');
  EXPECT_EQ(ConnectAsNobody(control, SOCK_STREAM, kNoGroup), 'n');
  EXPECT_EQ(sim_->Status().connections, 0u);
}

TEST_F(AccessTest, TheEntrysGroupReachesTheBoardButNotItsControls) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  StartWithControl(static_cast<int>(kNoGroup));
  EXPECT_EQ(ConnectAsNobody(sim_->EntryPath(), SOCK_SEQPACKET, kNoGroup), 'y');
  EXPECT_EQ(ConnectAsNobody(dir_ + "/ctl/control.sock", SOCK_STREAM, kNoGroup), 'n');
}

// In a folder that anyone may write to, anyone could put a socket of their own in the entry's
// place; one with the sticky bit keeps each entry its owner's.
TEST_F(AccessTest, AnEntryIsNotServedFromAFolderOthersMayRearrange) {
  const std::string open = dir_ + "/open";
  ASSERT_EQ(::mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
  Simulator loose({.deviceDir = open, .entry = "HnUsba0"});
  std::string why;
  EXPECT_FALSE(loose.Start(&why));
  EXPECT_NE(why.find("may be written by every user"), std::string::npos) << why;
  ASSERT_EQ(::chmod(open.c_str(), 01777), 0);
  Simulator sticky({.deviceDir = open, .entry = "HnUsba0"});
  EXPECT_TRUE(sticky.Start(&why)) << why;
}

TEST_F(AccessTest, TheApplicationsWindowMayBeProbedByAllButHeldByItsOwnerOnly) {
  StartBoard("autovision");
  Control("app on");
  EXPECT_EQ(ModeOf(dir_ + "/.windows/MiravaAppFrame"), 0644u);
  EXPECT_EQ(ModeOf(dir_ + "/.windows") & 0022, 0u);
}

}  // namespace
}  // namespace sim::testing
