#include "config/Folders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <string>

#include "config/FileAccess.h"
#include "tests/config/FolderFixture.h"
#include "tests/support/Recorders.h"

namespace {

using config_test::Exists;
using config_test::ReadBytes;
using config_test::WriteBytes;
using testing::ElementsAre;

class FoldersTest : public config_test::FolderFixture {
 protected:
  std::string Value(Configuration& c, const std::string& section, const std::string& key) {
    std::string v = "<missing>";
    if (c.OpenSection(section, false)) c.GetValue(key, v);
    return v;
  }
  // Files of the program folder of an older installation.
  void Leave(const std::string& name, const std::string& content = "data") {
    WriteBytes(Program() + name, content);
  }
};

TEST_F(FoldersTest, TheConfigurationFolderIsTheNamedDirectoryOrElseTheCommonOneAndIsLookedUpOnce) {
  EXPECT_EQ(config::GetConfigFolder(false), Common()) << "no Folders.ini";
  Forget();
  Ini(Program() + "Folders.ini", "[Setup]\r\nConfigFolder=" + (dir / "nowhere") + "\r\n");
  EXPECT_EQ(config::GetConfigFolder(false), Common()) << "no such directory";
  Forget();
  const std::string named = Redirect("config");
  EXPECT_EQ(config::GetConfigFolder(false), named) << "a '/' added";
  Ini(Program() + "Folders.ini", "[Setup]\r\nConfigFolder=" + named + "\r\n");
  EXPECT_EQ(config::GetConfigFolder(false), named) << "remembered, not read again";
  Forget();
  EXPECT_EQ(config::GetConfigFolder(false), named) << "no second '/'";
}

TEST_F(FoldersTest, ARedirectedInstallationMovesNothingAndEveryDataPathFollowsIt) {
  const std::string named = Redirect("config");
  Ini(named + "Hardware.ini", "[Machine]\r\nSubDirectory=Servo\r\n");
  Leave("Mirava.ini");
  Leave("Machine.ini");
  {
    MiravaConfig mirava(false);
    EXPECT_EQ(mirava.Path(), named + "Mirava.ini");
  }
  EXPECT_TRUE(Exists(Program() + "Mirava.ini"));
  EXPECT_TRUE(Exists(Program() + "Machine.ini"));
  EXPECT_FALSE(Exists(Common()));
  EXPECT_EQ(HardwareConfiguration().Path(), named + "Hardware.ini");
  EXPECT_EQ(MachineConfiguration(false).Path(), named + "Servo/Machine.ini");
  EXPECT_EQ(FolderConfiguration().Path(), Program() + "Folders.ini");
}

TEST_F(FoldersTest, TheMoveTakesBothTablesAndSettlesTheMachinesIdentity) {
  Leave("Mirava.ini");
  Leave("PrinterSettings");
  Leave("users.dat", "program's copy");
  ::mkdir((dir / "base/Halvern Corporation").c_str(), 0777);
  ::mkdir(Common().c_str(), 0777);
  WriteBytes(Common() + "users.dat", "already there");
  Ini(Program() + "Machine.ini",
      "[Setup]\r\nMachine=Sarnel 300\r\nCamera=Cam A\r\nOther=kept\r\n"
      "[SerialInfo]\r\nSerialNumber=777\r\n");
  Leave("LocateInfo10.dat");
  Leave("Touch Probe Cal Diagnostics");

  EXPECT_TRUE(config::MoveDataFiles());

  EXPECT_EQ(ReadBytes(Common() + "Mirava.ini"), "data");
  EXPECT_TRUE(Exists(Common() + "PrinterSettings"));
  EXPECT_EQ(ReadBytes(Program() + "users.dat"), "program's copy") << "the destination's stays";
  EXPECT_EQ(ReadBytes(Common() + "users.dat"), "already there");
  HardwareConfiguration hardware;
  EXPECT_EQ(Value(hardware, "Setup", "Machine"), "Sarnel 300");
  EXPECT_EQ(Value(hardware, "Setup", "Camera"), "Cam A");
  EXPECT_EQ(Value(hardware, "Setup", "Frame Grabber"), "<missing>");
  EXPECT_EQ(Value(hardware, "Machine", "SubDirectory"), "Servo");
  const std::string machineFolder = Common() + "Servo/";
  EXPECT_FALSE(Exists(Program() + "Machine.ini"));
  FileConfiguration machine(machineFolder + "Machine.ini", true);
  EXPECT_EQ(Value(machine, "Setup", "Machine"), "<missing>") << "moved out";
  EXPECT_EQ(Value(machine, "Setup", "Other"), "kept");
  EXPECT_TRUE(Exists(machineFolder + "LocateInfo10.dat"));
  EXPECT_TRUE(Exists(machineFolder + "Touch Probe Cal Diagnostics"));
  EXPECT_FALSE(Exists(Program() + "LocateInfo10.dat"));
}

TEST_F(FoldersTest, TheFirstRowAtItsDestinationMarksATableAsMoved) {
  config::GetCommonDataFolder(true);
  Ini(Common() + "Hardware.ini", "[Machine]\r\nSubDirectory=Stepper\r\n");
  ::mkdir((Common() + "Stepper").c_str(), 0777);
  WriteBytes(Common() + "Stepper/Machine.ini", "");
  WriteBytes(Common() + "Mirava.ini", "");
  Leave("StageCal.dat");
  Leave("Mirava.sav");
  EXPECT_TRUE(config::MoveDataFiles());
  EXPECT_TRUE(Exists(Program() + "StageCal.dat"));
  EXPECT_TRUE(Exists(Program() + "Mirava.sav"));
}

// Older installations wrote their files where case did not matter: a row is found in any case,
// and the moved file takes the name its readers open (the error log's own names for its files).
TEST_F(FoldersTest, RowsAreFoundWhateverTheCaseOfTheirNames) {
  config::GetCommonDataFolder(true);
  WriteBytes(Common() + "Users.DAT", "already there");
  const struct {
    const char* left;     // in the program folder
    const char* arrives;  // in the common data folder, or null: it stays
  } cases[] = {
      {"ERROR.TRL", "error.trl"},
      {"Error.Bak", "error.bak"},
      {"mirava.INI", "Mirava.ini"},
      {"USERS.dat", nullptr},  // the destination has it, in another case
  };
  for (const auto& c : cases)
    Leave(c.left, c.left);
  EXPECT_TRUE(config::MoveDataFiles());
  for (const auto& c : cases) {
    EXPECT_EQ(Exists(Program() + c.left), c.arrives == nullptr) << c.left;
    if (c.arrives) {
      EXPECT_EQ(ReadBytes(Common() + c.arrives), c.left);
    }
  }
  EXPECT_EQ(ReadBytes(Common() + "Users.DAT"), "already there");

  // The first row found in another case marks the table as moved.
  Forget();
  ::unlink((Common() + "error.trl").c_str());
  Leave("error.trl", "later");
  ::rename((Common() + "Mirava.ini").c_str(), (Common() + "MIRAVA.ini").c_str());
  EXPECT_TRUE(config::MoveDataFiles());
  EXPECT_TRUE(Exists(Program() + "error.trl"));
}

TEST_F(FoldersTest, TheModelTableIsSearchedInOrderAndUnknownModelsGoByTheirSerialNumber) {
  const std::pair<const char*, const char*> cases[] = {
      {"Belvane 200", "Servo"},
      {"XL Fenwold", "Stepper"},
      {"Fake Manual Vision", "Fake Vision"},  // the earlier row wins
      {"Fake Manual", "Fake Manual"},
      {"Big Scanner 3", "Fake Vision"},
      {"sarnel", ""},  // case-sensitive
      {"", ""}};
  for (const auto& [model, expected] : cases) {
    EXPECT_EQ(config::SubDirectoryForModel(model), expected) << model;
  }

  Ini(Program() + "Machine.ini",
      "[Setup]\r\nMachine=Prototype\r\n[SerialInfo]\r\nSerialNumber=SN-42\r\n");
  EXPECT_TRUE(config::MoveDataFiles());
  EXPECT_EQ(config::GetMachineFolder(), Common() + "SN-42/");
  EXPECT_TRUE(Exists(Common() + "SN-42/Machine.ini"));

  Forget();
  ::unlink((Common() + "Hardware.ini").c_str());
  Ini(Program() + "Machine.ini", "[Setup]\r\nMachine=Prototype\r\n");
  EXPECT_TRUE(config::MoveDataFiles());
  HardwareConfiguration hardware;
  EXPECT_EQ(Value(hardware, "Machine", "SubDirectory"), "<missing>");
  EXPECT_TRUE(Exists(Common() + "Machine.ini")) << "without a serial number: the common folder";
}

TEST_F(FoldersTest, AFailedMoveIsLoggedStopsTheTableAndIsTriedAgainLater) {
  testing_support::LogRecorder log;
  WriteBytes(dir / "base/Halvern Corporation", "a file where the folder belongs");
  Leave("Mirava.ini");
  EXPECT_FALSE(config::MoveDataFiles());
  EXPECT_THAT(log.Messages(),
              ElementsAre("Could not collect default security from " + Common() +
                              ", continue with empty security\r\n",
                          "\t" + Program() + "Mirava.ini failed to move properly\r\n"));
  ::unlink((dir / "base/Halvern Corporation").c_str());
  EXPECT_TRUE(config::MoveDataFiles());
  EXPECT_TRUE(Exists(Common() + "Mirava.ini"));

  // Once it succeeded the move is over for the process, whatever turns up later.
  ::unlink((Common() + "Mirava.ini").c_str());
  Leave("Mirava.ini");
  EXPECT_TRUE(config::MoveDataFiles());
  EXPECT_TRUE(Exists(Program() + "Mirava.ini"));
}

// The three entries of the shared files' code carry its source name, whichever part wrote them.
TEST_F(FoldersTest, EntriesAboutSharedFilesCarryTheSourceNameOfTheCommonCode) {
  testing_support::LogRecorder log;
  WriteBytes(dir / "base/Halvern Corporation", "a file where the folder belongs");
  Leave("Mirava.ini");
  EXPECT_FALSE(config::MoveDataFiles());
  const config::FileSecurity security{0644, 0, {}};
  EXPECT_FALSE(config::ApplyDefaultSecurity(dir / "missing.dat", &security));
  EXPECT_THAT(log.Messages(),
              ElementsAre(testing::StartsWith("Could not collect default security from "),
                          testing::EndsWith("Mirava.ini failed to move properly\r\n"),
                          "First SetNamedSecurityInfo call failed: 2\n"));
  EXPECT_THAT(log.Sources(), testing::Each("mrcommon.cpp"));
}

TEST_F(FoldersTest, MachineIniIsTakenFromTheProgramFolderOnlyWhileTheMachineFolderHasNone) {
  Leave("Machine.ini");
  EXPECT_EQ(MachineConfiguration(true).Path(), Program() + "Machine.ini");
  EXPECT_EQ(MachineConfiguration(false).Path(), Common() + "Machine.ini");
  config::GetCommonDataFolder(true);
  WriteBytes(Common() + "Machine.ini", "");
  EXPECT_EQ(MachineConfiguration(true).Path(), Common() + "Machine.ini");
}

TEST_F(FoldersTest, TheMonitorOverrideIsReadOnceAndTextThatIsNoNumberGivesZero) {
  const std::string named = Redirect("config");
  Ini(named + "Mirava.ini", "[Monitor]\r\nOverride X=1280 px\r\nOverride Y=wide\r\n");
  int x = -1;
  int y = -1;
  config::LoadMonitorOverride(x, y);
  EXPECT_EQ(x, 1280);
  EXPECT_EQ(y, 0);
  Ini(named + "Mirava.ini", "[Monitor]\r\nOverride X=5\r\n");
  config::LoadMonitorOverride(x, y);
  EXPECT_EQ(x, 1280);
  EXPECT_EQ(config::ToInt("  -12abc"), -12);
  EXPECT_EQ(config::ToInt("99999999999"), 2147483647);
  EXPECT_EQ(config::ToInt("-99999999999"), -2147483647 - 1);
}

// --- Rights of moved files and shared folders ---

TEST_F(FoldersTest, AMovedFileGetsTheRightsOfANewFileInItsFolderAndNoProbeStays) {
  const std::string folder = dir / "shared/";
  ASSERT_TRUE(config::CreateFolderForEveryone(folder));
  struct stat st {};
  ASSERT_EQ(::stat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 03777u) << "sticky: only a file's owner may remove it";

  std::unique_ptr<config::FileSecurity> security;
  ASSERT_TRUE(config::CollectDefaultSecurity(folder, security));
  ASSERT_TRUE(security);
  EXPECT_FALSE(Exists(folder + "_tmp.ini"));
  // Where the file system keeps the folder's default list, new files are writable by all.
  if (::getxattr(folder.c_str(), "system.posix_acl_default", nullptr, 0) > 0) {
    EXPECT_EQ(security->mode & 0777, 0666u);
  }
  const std::string moved = folder + "Moved.dat";
  WriteBytes(moved, "x");
  ::chmod(moved.c_str(), 0600);
  EXPECT_TRUE(config::ApplyDefaultSecurity(moved, security.get()));
  ASSERT_EQ(::stat(moved.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, security->mode);

  EXPECT_FALSE(config::CollectDefaultSecurity(dir / "missing/", security));
  EXPECT_FALSE(security);
}

}  // namespace
