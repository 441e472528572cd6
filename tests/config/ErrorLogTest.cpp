#include "config/ErrorLog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "config/Configuration.h"
#include "platform/NamedMutex.h"
#include "tests/config/FolderFixture.h"
#include "tests/support/PlantedMutex.h"
#include "util/Text.h"

namespace {

using config_test::ReadBytes;
using config_test::WriteBytes;
using testing::ElementsAre;

// The log's text after its mark, or "<no mark>" when it doesn't start with one.
std::string LogText(const std::string& path) {
  const std::string bytes = ReadBytes(path);
  if (bytes.compare(0, 2, "\xFF\xFE") != 0) return "<no mark>";
  std::u16string wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    wide += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                  static_cast<unsigned char>(bytes[i + 1]) << 8);
  }
  return text::ToUtf8(wide);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find("\r\n", at);
    lines.push_back(text.substr(at, end - at));
    at = end == std::string::npos ? text.size() : end + 2;
  }
  return lines;
}

const std::regex kEntry(
    R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(Z|[+-]\d\d:\d\d), v1\.0\.0, \(0x[0-9A-F]+\), (\S+)\((\d+)\): (.*))");

class ErrorLogTest : public config_test::FolderFixture {
 protected:
  void SetUp() override { folder = Redirect("config"); }
  std::string Log() const { return folder + "error.trl"; }

  std::string folder;
};

TEST_F(ErrorLogTest, ANewLogHasTheMarkAndEntriesThePrefixWithTheZonesOffsetAndTheMessageAsGiven) {
  const char* saved = std::getenv("TZ");
  const std::string restore = saved ? saved : "";  // the zone is process-wide
  const std::pair<const char*, const char*> zones[] = {
      {"UTC0", "Z"}, {"PST8", "-08:00"}, {"IST-5:30", "+05:30"}};
  for (const auto& [zone, suffix] : zones) {
    ::setenv("TZ", zone, 1);
    ErrorLog("Zone.cpp", 1)("%s\r\n", zone);
  }
  saved ? ::setenv("TZ", restore.c_str(), 1) : ::unsetenv("TZ");
  ::tzset();
  ErrorLog("CTavroUsb.cpp", 321)("USB Error %d - %s\r\n", 31, "failed");
  ErrorLog("Other.cpp", 7)("ends in LF alone\n");

  const std::string text = LogText(Log());
  const std::vector<std::string> lines = Lines(text);
  ASSERT_EQ(lines.size(), 5u);
  std::smatch m;
  for (std::size_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(std::regex_match(lines[i], m, kEntry)) << lines[i];
    EXPECT_EQ(m[1], zones[i].second) << zones[i].first;
  }
  ASSERT_TRUE(std::regex_match(lines[3], m, kEntry)) << lines[3];
  EXPECT_EQ(m[2], "CTavroUsb.cpp");
  EXPECT_EQ(m[3], "321");
  EXPECT_EQ(m[4], "USB Error 31 - failed");
  EXPECT_TRUE(text.ends_with("): ends in LF alone\n")) << "the log adds no line end";
}

TEST_F(ErrorLogTest, ALogAboveTheLimitAtTheFirstEntryOfARunBecomesTheBackup) {
  const std::string big(512001, 'x');
  WriteBytes(folder + "error.bak", "old backup");
  WriteBytes(Log(), big);
  ErrorLog("A.cpp", 1)("first\r\n");
  EXPECT_EQ(ReadBytes(folder + "error.bak"), big);
  EXPECT_TRUE(LogText(Log()).ends_with("): first\r\n"));

  // Exactly the limit stays at the start of a run, but no entry takes the log past it: the log
  // becomes error.bak first, as at the start, however much the run writes.
  const std::string full = "\xFF\xFE" + std::string(511998, 'y');
  WriteBytes(Log(), full);
  Forget();
  ErrorLog("A.cpp", 2)("past the limit\r\n");
  EXPECT_TRUE(ReadBytes(folder + "error.bak") == full);
  EXPECT_THAT(Lines(LogText(Log())), ElementsAre(testing::EndsWith("): past the limit")));
  const std::string id(3000, 'i');
  for (int i = 0; i < 400; ++i) {
    ErrorLog("A.cpp", 5)("Unknown id %s\r\n", id.c_str());
  }
  EXPECT_LE(std::filesystem::file_size(Log()), 512000u);
  EXPECT_LE(std::filesystem::file_size(folder + "error.bak"), 512000u);
  EXPECT_TRUE(std::regex_match(Lines(LogText(Log()))[0], kEntry));
  EXPECT_TRUE(std::regex_match(Lines(LogText(folder + "error.bak"))[0], kEntry));
}

TEST_F(ErrorLogTest, EntriesCausedByTheLogsOwnLookupAreDroppedButTheEntryIsWritten) {
  Forget();
  WriteBytes(Program() + "Folders.ini", "not UTF-16");  // Configuration will want to log this
  const std::string common = config::GetCommonDataFolder(true);
  Forget();
  ErrorLog("A.cpp", 9)("the entry\r\n");
  const std::vector<std::string> lines = Lines(LogText(common + "error.trl"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].ends_with("): the entry"));
}

TEST_F(ErrorLogTest, AnEntryThatCannotBeWrittenIsDroppedAndTheNextOneTriesAgain) {
  ::mkdir(Log().c_str(), 0777);  // a folder in the log's place
  ErrorLog("A.cpp", 1)("lost\r\n");
  ::rmdir(Log().c_str());
  ErrorLog("A.cpp", 2)("kept\r\n");
  EXPECT_THAT(Lines(LogText(Log())), ElementsAre(testing::EndsWith("): kept")));
}

TEST_F(ErrorLogTest, AMutexThatCouldNotBeOpenedIsOpenedAgainByTheNextEntry) {
  const std::string name = "TavroTest error log " + std::to_string(::getpid());
  const std::string object = platform::NamedMutex::ShmName(name);
  // An object of another layout under the mutex's name: opening it fails while it is there.
  const int fd = ::shm_open(object.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0);
  const std::uint32_t foreign = 0x12345678;
  ASSERT_EQ(::ftruncate(fd, 4096), 0);
  ASSERT_EQ(::pwrite(fd, &foreign, sizeof foreign, 0), static_cast<ssize_t>(sizeof foreign));
  ::close(fd);
  errorlog::UseMutexName(name);
  ErrorLog("A.cpp", 1)("lost\r\n");
  ::shm_unlink(object.c_str());
  ErrorLog("A.cpp", 2)("kept\r\n");
  errorlog::UseMutexName("");
  ::shm_unlink(object.c_str());
  EXPECT_THAT(Lines(LogText(Log())), ElementsAre(testing::EndsWith("): kept")));
}

TEST_F(ErrorLogTest, ConcurrentWritersOfSeveralProcessesLeaveOneWholeEntryPerCall) {
  constexpr int kProcesses = 3;
  constexpr int kThreads = 3;
  constexpr int kEntries = 150;
  const std::string padding(40, '.');
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t child = ::fork();
    if (child == 0) {
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          for (int n = 0; n < kEntries; ++n) {
            ErrorLog("Writer.cpp", n)("P%dT%dN%d %s\r\n", p, t, n, padding.c_str());
          }
        });
      }
      for (auto& thread : threads)
        thread.join();
      ::_exit(0);
    }
    children.push_back(child);
  }
  for (pid_t child : children)
    ::waitpid(child, nullptr, 0);

  std::set<std::string> seen;
  for (const std::string& line : Lines(LogText(Log()))) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, kEntry)) << line;
    const std::string message = m[4];
    ASSERT_TRUE(message.ends_with(padding)) << line;
    EXPECT_TRUE(seen.insert(message).second) << "twice: " << message;
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kProcesses * kThreads * kEntries));
}

// Any user may write a made-up owner into the log's mutex: entries are dropped after a short wait
// (and later ones don't wait again), and logging goes on once the mutex is free.
TEST_F(ErrorLogTest, AMadeUpOwnerOfTheLogsMutexCostsEntriesButFreezesNobody) {
  const std::string name = "TavroTest held log " + std::to_string(::getpid());
  errorlog::UseMutexName(name);
  ASSERT_TRUE(testing_support::PlantMutexOwner(name));
  const int status = testing_support::RunWithAlarm(20, [] {
    for (int i = 0; i < 20; ++i) {
      ErrorLog("A.cpp", 1)("lost\r\n");
    }
    return 0;
  });
  EXPECT_EQ(status, 0) << "-1: still waiting when the alarm came";
  testing_support::PlantMutexOwner(name, 0);
  ErrorLog("A.cpp", 2)("kept\r\n");
  errorlog::UseMutexName("");
  ::shm_unlink(platform::NamedMutex::ShmName(name).c_str());
  EXPECT_THAT(Lines(LogText(Log())), ElementsAre(testing::EndsWith("): kept")));
}

TEST_F(ErrorLogTest, ALogThatIsALinkOrAnotherUsersFileIsNotWritten) {
  const std::string victim = dir / "victim";
  WriteBytes(victim, "precious");
  ASSERT_EQ(::symlink(victim.c_str(), Log().c_str()), 0);
  ErrorLog("A.cpp", 1)("through a link\r\n");
  EXPECT_EQ(ReadBytes(victim), "precious");

  ::unlink(Log().c_str());
  ASSERT_EQ(::link(victim.c_str(), Log().c_str()), 0);
  ErrorLog("A.cpp", 2)("through a second name\r\n");
  EXPECT_EQ(ReadBytes(victim), "precious");

  ::unlink(Log().c_str());
  WriteBytes(Log(), "theirs");
  ASSERT_EQ(::chown(Log().c_str(), 65534, 65534), 0);
  ErrorLog("A.cpp", 3)("into another user's file\r\n");
  EXPECT_EQ(ReadBytes(Log()), "theirs");

  ::unlink(Log().c_str());
  ErrorLog("A.cpp", 4)("kept\r\n");
  EXPECT_THAT(Lines(LogText(Log())), ElementsAre(testing::EndsWith("): kept")));
}

TEST_F(ErrorLogTest, ControlCharactersInAMessageCannotMakeUpLinesAndLongOnesAreCut) {
  const std::string forged = "id\r\n2026-01-01T00:00:00Z, v9, (0x1), Fake.cpp(1): forged\x1b[2J";
  ErrorLog("A.cpp", 1)("Unknown id %s\r\n", forged.c_str());
  ErrorLog("A.cpp", 2)("\tkept\ttabs\r\n");
  ErrorLog("A.cpp", 3)("%s\r\n", std::string(70000, 'z').c_str());
  const std::vector<std::string> lines = Lines(LogText(Log()));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(lines[0].ends_with(
      "): Unknown id id\\x0D\\x0A2026-01-01T00:00:00Z, v9, (0x1), Fake.cpp(1): forged\\x1B[2J"))
      << lines[0];
  EXPECT_TRUE(lines[1].ends_with("): \tkept\ttabs")) << lines[1];
  EXPECT_TRUE(lines[2].ends_with(std::string(100, 'z') + "...")) << lines[2].size();
  EXPECT_LT(lines[2].size(), 4200u);
}

// Logging never throws, and a failure in the middle of an entry lets go of the log.
TEST_F(ErrorLogTest, AnEntryThatFailsMidWayIsDroppedAndTheLogStaysUsable) {
  int calls = 0;
  errorlog::SetErrorLogSink([&](const std::string&) {
    if (++calls == 1) throw std::bad_alloc();
  });
  EXPECT_NO_THROW(ErrorLog("A.cpp", 1)("thrown\r\n"));
  ErrorLog("A.cpp", 2)("after\r\n");
  errorlog::SetErrorLogSink(nullptr);
  EXPECT_EQ(calls, 2);
}

}  // namespace
