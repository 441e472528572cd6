// The files of the shared folder against another local user: links planted at the names this
// program writes, a made-up owner in a file's lock, names that climb out of the folder, and files
// too large to read.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include "config/Configuration.h"
#include "config/FileAccess.h"
#include "config/Folders.h"
#include "platform/Files.h"
#include "tests/config/FolderFixture.h"
#include "tests/support/PlantedMutex.h"
#include "tests/support/Recorders.h"

namespace {

using config_test::Exists;
using config_test::ReadBytes;
using config_test::Utf16;
using config_test::WriteBytes;

constexpr uid_t kOtherUser = 65534;  // nobody

class SharedFilesTest : public config_test::FolderFixture {
 protected:
  SharedFilesTest() {
    ::mkdir(shared.c_str(), 0777);
    ::chmod(shared.c_str(), 03777);  // as the installation makes it
    WriteBytes(victim, "precious");
  }
  // Bytes this process read so far, as the kernel counts them.
  static long long BytesRead() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
      if (key == "rchar:") return value;
    }
    return -1;
  }

  const std::string shared = dir / "shared/";
  const std::string victim = dir / "victim";
  testing_support::LogRecorder log;
};

// A store, the first read of a missing file and the backup all go through names another user may
// have set: none of them reaches the file a link points at.
TEST_F(SharedFilesTest, LinksPlantedAtTheStoresNamesAreNeverFollowed) {
  const std::string ini = shared + "Hardware.ini";
  ASSERT_EQ(::symlink(victim.c_str(), (ini + ".tmp").c_str()), 0);
  ASSERT_EQ(::symlink((dir / "made-by-root").c_str(), ini.c_str()), 0);
  {
    FileConfiguration c(ini, true);
    EXPECT_FALSE(c.OpenSection("Machine", true)) << "a link where the file should be";
  }
  EXPECT_FALSE(Exists(dir / "made-by-root"));

  ::unlink(ini.c_str());
  Ini(ini, "[Machine]\r\nA=1\r\n");
  {
    FileConfiguration c(ini, true);
    ASSERT_TRUE(c.OpenSection("Machine", false));
    c.SetValue("A", "2");
  }
  EXPECT_EQ(ReadBytes(victim), "precious");
  EXPECT_EQ(ReadBytes(ini), Utf16("[Machine]\r\nA=2\r\n"));
  EXPECT_EQ(ReadBytes(ini + ".backup"), Utf16("[Machine]\r\nA=1\r\n"));
}

TEST_F(SharedFilesTest, AFailedBackupFailsTheStoreAndKeepsTheFile) {
  const std::string ini = shared + "Machine.ini";
  Ini(ini, "[S]\r\nA=1\r\n");
  ::mkdir((ini + ".backup").c_str(), 0700);  // the backup can't take its name
  {
    FileConfiguration c(ini, true);
    ASSERT_TRUE(c.OpenSection("S", false));
    c.SetValue("A", "2");
  }
  EXPECT_EQ(ReadBytes(ini), Utf16("[S]\r\nA=1\r\n"));
  EXPECT_FALSE(Exists(ini + ".tmp"));
  EXPECT_THAT(log.Messages(),
              testing::Contains("Failure to store configuration to " + ini + "\r\n"));
  EXPECT_FALSE(platform::ReplaceFile(ini, ini + ".none", ini + ".backup"));
}

TEST_F(SharedFilesTest, AStoredFileKeepsTheOwnerAndModeOfTheFileItReplaces) {
  const std::string ini = shared + "Mirava.ini";
  Ini(ini, "[S]\r\nA=1\r\n");
  ASSERT_EQ(::chown(ini.c_str(), kOtherUser, kOtherUser), 0);
  ASSERT_EQ(::chmod(ini.c_str(), 0640), 0);
  {
    FileConfiguration c(ini, false);
    ASSERT_TRUE(c.OpenSection("S", false));
    c.SetValue("A", "2");
  }
  struct stat st {};
  ASSERT_EQ(::stat(ini.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, kOtherUser);
  EXPECT_EQ(st.st_gid, kOtherUser);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(ReadBytes(ini), Utf16("[S]\r\nA=2\r\n"));
}

// Any user may write a made-up owner into the lock of a file of the shared folder: the object
// that wanted the file gives up after a while instead of waiting for good.
TEST_F(SharedFilesTest, AMadeUpOwnerOfAFilesLockMakesTheFileUnavailableNotTheCallerFrozen) {
  const std::string ini = shared + "Hardware.ini";
  Ini(ini, "[Machine]\r\nA=1\r\n");
  const std::string name = Configuration::MutexName(ini);
  ASSERT_TRUE(testing_support::PlantMutexOwner(name));
  const int status = testing_support::RunWithAlarm(20, [&] {
    FileConfiguration c(ini, true);
    return c.OpenSection("Machine", false) ? 1 : 0;
  });
  testing_support::PlantMutexOwner(name, 0);
  ::shm_unlink(platform::NamedMutex::ShmName(name).c_str());
  EXPECT_EQ(status, 0) << "-1: still waiting when the alarm came";
}

// The owner-only lock of a file that only this user may write can't be held by others at all.
TEST_F(SharedFilesTest, TheLockOfAFileInAPrivateFolderIsNotOpenToOthers) {
  const std::string own = dir / "program/Folders.ini";
  Ini(own, "[Setup]\r\n");
  ::chmod(Program().c_str(), 0755);
  const std::string name = Configuration::MutexName(own);
  ASSERT_TRUE(testing_support::PlantMutexOwner(name));
  {
    FileConfiguration c(own, false);
    EXPECT_TRUE(c.OpenSection("Setup", false));
  }
  struct stat st {};
  const int fd = ::shm_open(platform::NamedMutex::ShmName(name).c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::fstat(fd, &st), 0);
  ::close(fd);
  ::shm_unlink(platform::NamedMutex::ShmName(name).c_str());
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(SharedFilesTest, AFileAbove64MiBIsCorruptAndNotReadWhole) {
  const std::string ini = Program() + "Folders.ini";
  WriteBytes(ini, Utf16("[Setup]\r\nConfigFolder=/\r\n"));
  ASSERT_EQ(::truncate(ini.c_str(), (64 << 20) + 2), 0);  // sparse: costs no disk
  const long long before = BytesRead();
  {
    FolderConfiguration folders;
    EXPECT_FALSE(folders.OpenSection("Setup", false));
    EXPECT_TRUE(folders.Corrupt());
  }
  EXPECT_LT(BytesRead() - before, 1 << 20);
  EXPECT_EQ(config::GetConfigFolder(false), Common()) << "as without Folders.ini";
}

TEST_F(SharedFilesTest, FolderNamesFromTheFilesThatClimbOutOrReachDownAreRefused) {
  config::GetCommonDataFolder(true);
  for (const char* name : {"../../etc", "a/b", "..", "a\\b", "x\x01y"}) {
    Forget();
    Ini(Common() + "Hardware.ini", std::string("[Machine]\r\nSubDirectory=") + name + "\r\n");
    EXPECT_EQ(config::GetMachineSubDirectory(), "") << name;
    EXPECT_EQ(config::GetMachineFolder(), Common()) << name;
  }
  Ini(Common() + "Hardware.ini", "[Machine]\r\nSubDirectory=Servo 2\r\n");
  EXPECT_EQ(config::GetMachineFolder(), Common() + "Servo 2/");

  // A serial number that would climb out does not become the machine's folder.
  Forget();
  ::unlink((Common() + "Hardware.ini").c_str());
  Ini(Program() + "Machine.ini",
      "[Setup]\r\nMachine=Prototype\r\n[SerialInfo]\r\nSerialNumber=../../../outside\r\n");
  EXPECT_TRUE(config::MoveDataFiles());
  EXPECT_FALSE(Exists(dir / "outside"));
  EXPECT_FALSE(Exists(dir / "base/outside"));
  EXPECT_TRUE(Exists(Common() + "Machine.ini"));
}

TEST_F(SharedFilesTest, TheAccessProbeAndTheCopyOfAMoveAreMadeNewNotThroughALink) {
  ASSERT_EQ(::symlink(victim.c_str(), (shared + "_tmp.ini").c_str()), 0);
  std::unique_ptr<config::FileSecurity> security;
  EXPECT_TRUE(config::CollectDefaultSecurity(shared, security));
  EXPECT_EQ(ReadBytes(victim), "precious");
  EXPECT_FALSE(Exists(shared + "_tmp.ini"));

  WriteBytes(shared + "source", "moved data");
  ASSERT_EQ(::symlink(victim.c_str(), (shared + "copy").c_str()), 0);
  EXPECT_TRUE(platform::CopyFile(shared + "source", shared + "copy"));
  EXPECT_EQ(ReadBytes(victim), "precious");
  EXPECT_EQ(ReadBytes(shared + "copy"), "moved data");
  ASSERT_EQ(::symlink(victim.c_str(), (shared + "link").c_str()), 0);
  EXPECT_FALSE(platform::CopyFile(shared + "link", shared + "copy2")) << "nor is a source link";

  // The rights go to the moved file itself, never through a link in its place.
  ::chmod(victim.c_str(), 0600);
  config::FileSecurity everyone{0666, 0, {}};
  EXPECT_FALSE(config::ApplyDefaultSecurity(shared + "link", &everyone));
  struct stat st {};
  ASSERT_EQ(::stat(victim.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

}  // namespace
