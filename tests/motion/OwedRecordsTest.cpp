// The records runs owe their axes and their journal: what it keeps, that it survives a crash as
// one whole file, and that nothing but TavroTest's own plain file is ever taken for it, since
// what it names is written to the board at the next start.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "motion/StageTest.h"
#include "tests/support/TempDirs.h"

namespace {

using motion::OwedRecords;

const AxisPid kOwn{.Kp = 180,
                   .Kd = 900,
                   .Ki = 4,
                   .Il = 20000,
                   .Fe = 8000,
                   .Kvff = 30,
                   .Kaff = 60,
                   .Dt = 2,
                   .Kout = 65000,
                   .Mb = -12};

class OwedRecordsTest : public ::testing::Test {
 protected:
  std::string Journal() const { return dir_ / "TavroTest.journal"; }
  std::string Read(const std::string& path) const {
    std::ifstream in(path);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
  }
  testing_support::ScratchDir dir_;
};

TEST_F(OwedRecordsTest, TheJournalFollowsWhatIsOwedAndGoesWhenNothingIs) {
  OwedRecords owed;
  EXPECT_TRUE(owed.UseJournal(Journal()).empty());
  AxisPid zoom = kOwn;
  zoom.Mb = -32768;
  zoom.Fe = 0xFFFFFFFF;
  ASSERT_TRUE(owed.Owe("AV3 24/01187", 0, kOwn));
  ASSERT_TRUE(owed.Owe("AV3 24/01187", 3, zoom));
  ASSERT_TRUE(owed.Owe("", 1, kOwn));  // a board without a serial number
  struct stat st {};
  ASSERT_EQ(::stat(Journal().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // What a new run of the program finds: every record, to its own board and axis.
  OwedRecords next;
  const auto found = next.UseJournal(Journal());
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(next.Find("AV3 24/01187", 3), zoom);
  EXPECT_EQ(next.Find("", 1), kOwn);
  EXPECT_FALSE(next.Find("AV3 24/01187", 1));
  EXPECT_EQ(next.OwedTo("AV3 24/01187").size(), 2u);

  next.Paid("AV3 24/01187", 0);
  next.Paid("AV3 24/01187", 3);
  EXPECT_NE(Read(Journal()).find("owed - 1 "), std::string::npos);
  next.Paid("", 1);
  EXPECT_TRUE(next.Empty());
  EXPECT_NE(::access(Journal().c_str(), F_OK), 0) << "nothing owed, no journal";
}

// Whoever can write the folder must not be able to make the program write records of their own
// choosing to the board: only a plain file of the program's own user, written by no one else,
// with nothing else linked to it, is read. A FIFO there must not block the start either.
TEST_F(OwedRecordsTest, OnlyTheProgramsOwnPlainFileIsTakenForTheJournal) {
  const std::string good = OwedRecords::Format({{"SN1", 0, kOwn}});
  auto plant = [&](const std::function<void()>& make) {
    ::unlink(Journal().c_str());
    make();
    OwedRecords owed;
    return owed.UseJournal(Journal()).size();
  };
  auto write = [&](mode_t mode) {
    std::ofstream(Journal()) << good;
    ::chmod(Journal().c_str(), mode);
  };
  EXPECT_EQ(plant([&] { write(0600); }), 1u) << "the program's own";
  EXPECT_EQ(plant([&] { write(0620); }), 0u) << "written by the group";
  EXPECT_EQ(plant([&] { write(0602); }), 0u) << "written by anyone";
  EXPECT_EQ(plant([&] {
              std::ofstream(dir_ / "elsewhere") << good;
              ::chmod((dir_ / "elsewhere").c_str(), 0600);
              ::symlink((dir_ / "elsewhere").c_str(), Journal().c_str());
            }),
            0u)
      << "a link";
  EXPECT_EQ(plant([&] {
              ::unlink((dir_ / "other").c_str());
              write(0600);
              ::link(Journal().c_str(), (dir_ / "other").c_str());
            }),
            0u)
      << "a second name";
  EXPECT_EQ(plant([&] { ::mkfifo(Journal().c_str(), 0600); }), 0u) << "a FIFO, without waiting";
  if (::geteuid() == 0) {
    EXPECT_EQ(plant([&] {
                write(0600);
                ASSERT_EQ(::chown(Journal().c_str(), 65534, 65534), 0);
              }),
              0u)
        << "another user's";
  }
  EXPECT_EQ(plant([&] {
              std::ofstream(Journal())
                  << "TavroTest axis journal 1\nowed SN1 9 1 1 1 1 1 1 1 1 1 1\n"
                  << "owed SN1 0 70000 1 1 1 1 1 1 1 1 1\nowed SN1\n";
              ::chmod(Journal().c_str(), 0600);
            }),
            0u)
      << "no axis 9, no gain above 16 bits, no half line";
}

// A new journal is put in place in one step: a left-over or planted temporary file is made anew,
// never written through.
TEST_F(OwedRecordsTest, TheJournalIsWrittenWholeAndNeverThroughALink) {
  std::ofstream(dir_ / "victim") << "precious";
  ASSERT_EQ(::symlink((dir_ / "victim").c_str(), (Journal() + ".tmp").c_str()), 0);
  OwedRecords owed;
  owed.UseJournal(Journal());
  ASSERT_TRUE(owed.Owe("SN1", 2, kOwn));
  EXPECT_EQ(Read(dir_ / "victim"), "precious");
  EXPECT_NE(::access((Journal() + ".tmp").c_str(), F_OK), 0);
  EXPECT_EQ(OwedRecords::Parse(Read(Journal())).size(), 1u);
}

}  // namespace
