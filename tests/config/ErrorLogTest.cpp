#include "config/ErrorLog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "config/Configuration.h"
#include "platform/NamedMutex.h"
#include "tests/config/FolderFixture.h"
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

  // Exactly the limit stays, and a log that grows past it during a run waits for the next run.
  WriteBytes(Log(), "\xFF\xFE" + std::string(511998, 'y'));
  Forget();
  ErrorLog("A.cpp", 2)("at the limit\r\n");
  ErrorLog("A.cpp", 3)("past it now\r\n");
  EXPECT_EQ(ReadBytes(folder + "error.bak"), big);
  Forget();
  ErrorLog("A.cpp", 4)("next run\r\n");
  EXPECT_TRUE(LogText(folder + "error.bak").ends_with("): past it now\r\n"));
  EXPECT_TRUE(std::regex_match(Lines(LogText(Log()))[0], kEntry));
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

}  // namespace
