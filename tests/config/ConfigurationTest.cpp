#include "config/Configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "config/FileAccess.h"
#include "platform/NamedMutex.h"
#include "tests/config/ConfigFiles.h"
#include "tests/support/Recorders.h"

namespace {

using config_test::Exists;
using config_test::ReadBytes;
using config_test::Utf16;
using config_test::WriteBytes;
using testing::ElementsAre;

class SinkRecorder : public config::FileAccessSink {
 public:
  SinkRecorder() { config::SetFileAccessSink(this); }
  ~SinkRecorder() override { config::SetFileAccessSink(nullptr); }
  void Report(std::shared_ptr<config::FileAccessInfo> info) override {
    std::lock_guard lock(mutex);
    reports.push_back(*info);
  }
  std::mutex mutex;
  std::vector<config::FileAccessInfo> reports;
};

class ConfigurationTest : public testing::Test {
 protected:
  std::string Ini() const { return dir / "Test.ini"; }
  // Writes `ascii` as the file's text and returns the object on it.
  std::unique_ptr<FileConfiguration> With(const std::string& ascii, bool keepBackup = false) {
    WriteBytes(Ini(), Utf16(ascii));
    return std::make_unique<FileConfiguration>(Ini(), keepBackup);
  }
  std::string Value(Configuration& c, const std::string& key) {
    std::string v = "<missing>";
    c.GetValue(key, v);
    return v;
  }

  config_test::ScratchDir dir;
  testing_support::LogRecorder log;
  SinkRecorder sink;
};

// --- Load and corruption ---

TEST_F(ConfigurationTest, AFileIsMadeOnlyWhenAskedAndOneThatCannotBeMadeIsReported) {
  {
    FileConfiguration c(Ini(), true);
    EXPECT_FALSE(c.OpenSection("Setup", false));
  }
  EXPECT_FALSE(Exists(Ini()));
  EXPECT_TRUE(sink.reports.empty());

  WriteBytes(Ini(), "");  // an empty file gets the mark, the new section and its keys in order
  {
    FileConfiguration c(Ini(), false);
    ASSERT_TRUE(c.OpenSection("Setup", true));
    c.SetValue("A", "1");
    c.SetValue("B", "2");
  }
  EXPECT_EQ(ReadBytes(Ini()), Utf16("\r\n[Setup]\r\nA=1\r\nB=2\r\n"));
  EXPECT_TRUE(log.Entries().empty());

  const std::string path = dir / "missing-folder/Test.ini";
  FileConfiguration c(path, false);
  EXPECT_FALSE(c.OpenSection("Setup", true));
  EXPECT_THAT(log.Messages(),
              ElementsAre("Failed to open or create file for reading: " + path + "\r\n"));
  ASSERT_EQ(sink.reports.size(), 1u);
  EXPECT_EQ(sink.reports[0].path, path);
  EXPECT_EQ(sink.reports[0].accessKind, 2);  // a write: the file was to be made
  EXPECT_FALSE(sink.reports[0].errorText.empty());
}

TEST_F(ConfigurationTest, FilesWithoutTheMarkOrWithAZeroFirstUnitAreCorruptAndLeftAlone) {
  const std::string bad[] = {
      std::string("[", 1),                 // one byte
      "[Setup]\r\nA=1\r\n",                // a single-byte encoding
      Utf16(std::string("\0A=1\r\n", 6)),  // mark, then a zero unit
  };
  for (const std::string& bytes : bad) {
    WriteBytes(Ini(), bytes);
    {
      FileConfiguration c(Ini(), false);
      EXPECT_FALSE(c.OpenSection("Setup", true));
      EXPECT_TRUE(c.Corrupt());
      EXPECT_FALSE(c.OpenSection("Setup", true)) << "stays corrupt";
    }
    EXPECT_EQ(ReadBytes(Ini()), bytes);
  }
  EXPECT_EQ(log.Messages(), std::vector<std::string>(3, Ini() + " is corrupt\r\n"));

  WriteBytes(Ini(), Utf16("[S]\r\nK=v") + "x");  // an odd byte count is no corruption
  FileConfiguration c(Ini(), false);
  ASSERT_TRUE(c.OpenSection("S", false));
  EXPECT_EQ(Value(c, "K"), "vx") << "the last half unit reads as zero";
}

TEST_F(ConfigurationTest, ACorruptFileIsRecoveredFromAGoodBackupAndMovedAsideUnchanged) {
  const std::string good = Utf16("[Setup]\r\nA=1\r\n");
  WriteBytes(Ini(), "garbage");
  WriteBytes(Ini() + ".backup", good);
  {
    FileConfiguration c(Ini(), true);
    ASSERT_TRUE(c.OpenSection("Setup", false));
    EXPECT_EQ(Value(c, "A"), "1");
  }
  EXPECT_EQ(ReadBytes(Ini()), good) << "written back without any change";
  EXPECT_EQ(ReadBytes(Ini() + ".corrupt"), "garbage");
  EXPECT_EQ(ReadBytes(Ini() + ".backup"), good);
  EXPECT_THAT(log.Messages(),
              ElementsAre(Ini() + " is corrupt and will be renamed as " + Ini() + ".corrupt\r\n",
                          "Using " + Ini() + ".backup\r\n"));

  // A backup without the mark is deleted and the text starts empty.
  WriteBytes(Ini(), "bad");
  WriteBytes(Ini() + ".backup", "also bad");
  {
    FileConfiguration c(Ini(), true);
    EXPECT_FALSE(c.OpenSection("Setup", false));
    EXPECT_TRUE(c.Text().empty());
  }
  EXPECT_FALSE(Exists(Ini() + ".backup"));
  EXPECT_EQ(ReadBytes(Ini()), "") << "an empty text is stored without a mark";
  EXPECT_EQ(ReadBytes(Ini() + ".corrupt"), "bad");
  EXPECT_EQ(log.Messages().back(), Ini() + ".backup is corrupt and will be deleted\r\n");
}

// --- Section search ---

TEST_F(ConfigurationTest, HeadersAreFoundAtLineStartsBehindBlanksAndOnlyTheFirstCounts) {
  auto c = With(
      "A=[Other]\r\n"
      "[First] trailing words\r\nK=first\r\n"
      " \t[Indented]\r\nK=indented\r\nY=behind\r\n"
      "[First]\r\nK=second\r\nZ=last\r\n");
  ASSERT_TRUE(c->OpenSection("First", false));
  EXPECT_EQ(Value(*c, "K"), "first");
  EXPECT_EQ(Value(*c, "Y"), "behind") << "an indented header does not end the section before it";
  EXPECT_EQ(Value(*c, "Z"), "<missing>") << "a header at a line start does";
  ASSERT_TRUE(c->OpenSection("Indented", false));
  EXPECT_EQ(Value(*c, "K"), "indented");
  EXPECT_FALSE(c->OpenSection("Other", false)) << "a header's text inside a value is none";

  ASSERT_TRUE(c->OpenSection("Indented", false));
  EXPECT_FALSE(c->OpenSection("", true));
  EXPECT_EQ(Value(*c, "K"), "indented") << "an empty name changes nothing";
  EXPECT_FALSE(c->OpenSection("Nowhere", false));
  EXPECT_EQ(Value(*c, "K"), "<missing>") << "a missing section closes the open one";
  EXPECT_FALSE(c->SetValue("K", "2"));
  EXPECT_FALSE(c->Dirty());
}

// --- Key search ---

TEST_F(ConfigurationTest, KeysMatchLiterallyAtTheLineStartAndValuesComeBackWhole) {
  auto c = With(
      "[S]\r\n K=blank before\r\nK =blank after\r\nOverride X=a=b= \r\n"
      "K= padded \nK=second\rEmpty=\r\nLast=");
  ASSERT_TRUE(c->OpenSection("S", false));
  EXPECT_EQ(Value(*c, "Override X"), "a=b= ");
  EXPECT_EQ(Value(*c, "K"), " padded ") << "the first of two lines, blanks kept";
  EXPECT_EQ(Value(*c, "Empty"), "");
  EXPECT_EQ(Value(*c, "k"), "<missing>") << "case-sensitive";
  EXPECT_EQ(Value(*c, ""), "<missing>");
  EXPECT_EQ(Value(*c, "Last"), "<missing>") << "a key at the very end without a line end";
}

// --- Edits ---

TEST_F(ConfigurationTest, ReplacingAValueTouchesNothingElseAndTheSameValueStoresNothing) {
  const std::string before =
      "; a comment\n\n[Other]\r\nKeep=this\r\nno equals here\r\n[S]\rA=old\rB=2\r\n";
  {
    auto c = With(before);
    ASSERT_TRUE(c->OpenSection("S", false));
    EXPECT_TRUE(c->SetValue("A", "new value"));
  }
  std::string after = before;
  after.replace(after.find("old"), 3, "new value");
  EXPECT_EQ(ReadBytes(Ini()), Utf16(after));

  {
    auto c = With("[S]\r\nA=1\r\n", true);
    ASSERT_TRUE(c->OpenSection("S", false));
    EXPECT_TRUE(c->SetValue("A", "1"));
    EXPECT_FALSE(c->Dirty());
  }
  EXPECT_FALSE(Exists(Ini() + ".backup")) << "no store, so no backup";
}

TEST_F(ConfigurationTest, NewKeysGoInFrontOfTheSectionAndAreSeenOnlyAfterReopening) {
  auto c = With("[S]\r\nOld=1\r\n[T]\r\n");
  EXPECT_EQ(c->GetValueOrDefault("D", "7"), "7");
  EXPECT_FALSE(c->Dirty()) << "a default is written only with a section open";
  ASSERT_TRUE(c->OpenSection("S", false));
  c->SetValue("First", "a");
  EXPECT_EQ(c->GetValueOrDefault("D", "7"), "7");
  EXPECT_EQ(Value(*c, "First"), "<missing>");
  c->SetValue("First", "again");  // not found yet: a second line
  EXPECT_EQ(c->Text(), u"[S]\r\nFirst=a\r\nD=7\r\nFirst=again\r\nOld=1\r\n[T]\r\n");
  ASSERT_TRUE(c->OpenSection("S", false));
  EXPECT_EQ(Value(*c, "First"), "a") << "the older line wins";
  EXPECT_EQ(c->GetValueOrDefault("D", "8"), "7");
}

TEST_F(ConfigurationTest, DeletingRemovesTheWholeLineWithItsLineEnd) {
  auto c = With("[S]\r\nA=1\r\nB=2\n\rC=3\r\nLast=4");
  ASSERT_TRUE(c->OpenSection("S", false));
  EXPECT_TRUE(c->DeleteValue("B"));
  EXPECT_EQ(c->Text(), u"[S]\r\nA=1\r\nC=3\r\nLast=4");
  EXPECT_TRUE(c->DeleteValue("Last"));
  EXPECT_EQ(c->Text(), u"[S]\r\nA=1\r\nC=3\r\n");
  EXPECT_FALSE(c->DeleteValue("Last"));
  EXPECT_TRUE(c->DeleteValue("A"));
  EXPECT_EQ(Value(*c, "C"), "3") << "the section's position is unchanged";
}

// --- Store, backup and lock ---

TEST_F(ConfigurationTest, AStoreKeepsThePreviousFileAsBackupOnlyWhenAskedTo) {
  for (bool keepBackup : {false, true}) {
    {
      auto c = With("[S]\r\nA=1\r\n", keepBackup);
      ASSERT_TRUE(c->OpenSection("S", false));
      c->SetValue("A", "2");
    }
    EXPECT_EQ(ReadBytes(Ini()), Utf16("[S]\r\nA=2\r\n"));
    EXPECT_EQ(ReadBytes(Ini() + ".backup"), keepBackup ? Utf16("[S]\r\nA=1\r\n") : "");
    EXPECT_EQ(Exists(Ini() + ".backup"), keepBackup);
    EXPECT_FALSE(Exists(Ini() + ".tmp"));
  }

  ::mkdir((Ini() + ".tmp").c_str(), 0700);  // a folder in the way of the temporary file
  {
    auto c = With("[S]\r\nA=1\r\n");
    ASSERT_TRUE(c->OpenSection("S", false));
    c->SetValue("A", "2");
  }
  EXPECT_EQ(ReadBytes(Ini()), Utf16("[S]\r\nA=1\r\n")) << "the file is left alone";
  EXPECT_THAT(log.Messages(), ElementsAre("Failure to store configuration to " + Ini() + "\r\n"));
  ASSERT_EQ(sink.reports.size(), 1u);
  EXPECT_EQ(sink.reports[0].path, Ini() + ".tmp");
}

TEST_F(ConfigurationTest, ThePathsMutexIsHeldFromTheFirstOpenUntilTheEnd) {
  auto other = platform::NamedMutex::OpenOrCreate(Configuration::MutexName(Ini()));
  ASSERT_TRUE(other);
  auto tryFromAnotherThread = [&] {
    return std::async(std::launch::async,
                      [&] {
                        const auto r = other->Wait(0);
                        if (r == platform::NamedMutex::kWaitObject0) other->Release();
                        return r;
                      })
        .get();
  };
  auto c = With("[S]\r\n");
  EXPECT_EQ(tryFromAnotherThread(), platform::NamedMutex::kWaitObject0) << "nothing held yet";
  EXPECT_FALSE(c->OpenSection("Missing", false));
  EXPECT_EQ(tryFromAnotherThread(), platform::NamedMutex::kWaitTimeout);
  c.reset();
  EXPECT_EQ(tryFromAnotherThread(), platform::NamedMutex::kWaitObject0);
  // The measuring application names the mutex by the same path with '/' for '\'.
  EXPECT_EQ(Configuration::MutexName("C:\\Data\\Mirava.ini"), "C:/Data/Mirava.ini");
}

// --- Several processes on one file ---

// Adds 1 to Count under the file's lock, `times` times, as another process would.
void Increment(const std::string& path, int times) {
  for (int i = 0; i < times; ++i) {
    FileConfiguration c(path, true);
    if (!c.OpenSection("Counter", true)) continue;
    // GetValue, not GetValueOrDefault: a default's new line would hide the SetValue below
    // until the section is opened again.
    std::string count = "0";
    c.GetValue("Count", count);
    c.SetValue("Count", std::to_string(std::stoi(count) + 1));
  }
}

TEST_F(ConfigurationTest, TwoProcessesHammeringOneFileLoseNoUpdate) {
  constexpr int kTimes = 200;
  std::vector<pid_t> children;
  for (int p = 0; p < 2; ++p) {
    const pid_t child = ::fork();
    if (child == 0) {
      Increment(Ini(), kTimes);
      ::_exit(0);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  FileConfiguration c(Ini(), true);
  ASSERT_TRUE(c.OpenSection("Counter", false));
  EXPECT_EQ(Value(c, "Count"), std::to_string(2 * kTimes));
  EXPECT_FALSE(c.Corrupt());
}

// The text of version n of the crash test's file: its number and a long body that depends on it,
// so a file can be checked whole by building the text again from the number it holds.
std::string Body(int n) {
  std::string body;
  for (int i = 0; body.size() < 300000; ++i)
    body += std::to_string(n * 7919 + i) + ";";
  return body;
}

std::u16string Version(int n) {
  const std::string text = "[S]\r\nVersion=" + std::to_string(n) + "\r\nBody=" + Body(n) + "\r\n";
  return {text.begin(), text.end()};
}

TEST_F(ConfigurationTest, AWriterKilledInTheMiddleOfAStoreLeavesTheOldOrTheNewFileWhole) {
  {
    FileConfiguration first(Ini(), true);
    ASSERT_TRUE(first.OpenSection("S", true));
    first.SetValue("Version", "0");
    first.SetValue("Body", Body(0));
  }
  int killedInStore = 0;
  for (int round = 0; round < 30; ++round) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ::close(ready[0]);
      for (int n = 1;; ++n) {
        FileConfiguration c(Ini(), true);
        if (!c.OpenSection("S", false)) ::_exit(1);
        c.SetValue("Version", std::to_string(n));
        c.SetValue("Body", Body(n));
        if (::write(ready[1], "x", 1) != 1) ::_exit(1);  // the store follows at once
      }
    }
    ::close(ready[1]);
    // Kill after a varying number of stores, so the kill lands at many points of one.
    char got[64];
    for (int seen = 0; seen < 1 + round % 3;) {
      const ssize_t n = ::read(ready[0], got, sizeof got);
      ASSERT_GT(n, 0);
      seen += static_cast<int>(n);
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);
    // A temporary file left behind shows the kill landed inside a store.
    if (::unlink((Ini() + ".tmp").c_str()) == 0) ++killedInStore;

    FileConfiguration c(Ini(), true);
    ASSERT_TRUE(c.OpenSection("S", false)) << "round " << round;
    ASSERT_FALSE(c.Corrupt());
    const int version = std::stoi(Value(c, "Version"));
    EXPECT_EQ(c.Text(), u"\r\n" + Version(version)) << "round " << round;
  }
  EXPECT_GT(killedInStore, 0);
}

}  // namespace
