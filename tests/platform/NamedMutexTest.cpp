#include "platform/NamedMutex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/PlantedMutex.h"

namespace platform {
namespace {

constexpr std::uint32_t kOwned = NamedMutex::kWaitObject0;
constexpr std::uint32_t kAbandoned = NamedMutex::kWaitAbandoned;
constexpr std::uint32_t kTimeout = NamedMutex::kWaitTimeout;
constexpr std::uint32_t kInfinite = NamedMutex::kInfinite;

// Runs `body` in a child process, whose exit status is what `body` returns.
template <typename Fn>
pid_t Fork(Fn body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

// The child's exit status, or -1 when it did not exit by itself.
int Reap(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// One try from a thread of its own, which releases what it got.
std::uint32_t TryFromOtherThread(NamedMutex& mutex, std::uint32_t timeoutMs = 0) {
  std::uint32_t result = NamedMutex::kWaitFailed;
  std::thread([&] {
    result = mutex.Wait(timeoutMs);
    if (result == kOwned || result == kAbandoned) mutex.Release();
  }).join();
  return result;
}

class NamedMutexTest : public ::testing::Test {
 protected:
  ~NamedMutexTest() override {
    for (const std::string& name : names_) {
      shm_unlink(NamedMutex::ShmName(name).c_str());
    }
  }

  std::string NewName() {
    static int counter = 0;
    names_.push_back("TavroTest mutex " + std::to_string(getpid()) + "-" +
                     std::to_string(++counter));
    return names_.back();
  }

  static std::unique_ptr<NamedMutex> Open(const std::string& name) {
    int error = -1;
    auto mutex = NamedMutex::OpenOrCreate(name, &error);
    EXPECT_TRUE(mutex) << name << ": errno " << error;
    return mutex;
  }

  std::vector<std::string> names_;
};

TEST_F(NamedMutexTest, OwnerWaitsAgainThroughAnyHandleAndMustReleaseAsOften) {
  const std::string name = NewName();
  auto first = Open(name);
  auto second = Open(name);
  ASSERT_TRUE(first && second);
  EXPECT_FALSE(first->Release());

  EXPECT_EQ(first->Wait(0), kOwned);
  EXPECT_EQ(second->Wait(kInfinite), kOwned);
  EXPECT_EQ(TryFromOtherThread(*first, 50), kTimeout);
  bool releasedByOther = true;
  std::thread([&] { releasedByOther = first->Release(); }).join();
  EXPECT_FALSE(releasedByOther);

  EXPECT_TRUE(first->Release());
  EXPECT_EQ(TryFromOtherThread(*second), kTimeout);
  EXPECT_TRUE(second->Release());
  EXPECT_EQ(TryFromOtherThread(*second), kOwned);
  EXPECT_FALSE(first->Release());
}

// The dead owner's recursion does not carry over: the new owner releases once.
TEST_F(NamedMutexTest, AProcessOrThreadThatEndsOwningItLeavesItAbandonedOnce) {
  auto mutex = Open(NewName());
  ASSERT_TRUE(mutex);
  const pid_t child = Fork([&] {
    if (mutex->Wait(kInfinite) != kOwned || mutex->Wait(0) != kOwned) return 1;
    return 0;
  });
  ASSERT_EQ(Reap(child), 0);
  EXPECT_EQ(mutex->Wait(10000), kAbandoned);
  EXPECT_EQ(TryFromOtherThread(*mutex), kTimeout);
  EXPECT_TRUE(mutex->Release());
  EXPECT_EQ(TryFromOtherThread(*mutex), kOwned);

  std::uint32_t threadResult = NamedMutex::kWaitFailed;
  std::thread([&] { threadResult = mutex->Wait(0); }).join();
  ASSERT_EQ(threadResult, kOwned);
  EXPECT_EQ(mutex->Wait(0), kAbandoned);
  EXPECT_TRUE(mutex->Release());
  EXPECT_EQ(mutex->Wait(0), kOwned);
  EXPECT_TRUE(mutex->Release());
}

// The processes also race to create the mutex: all must end up on the same one.
TEST_F(NamedMutexTest, ProcessesThatCreateItAtOnceLoseNoUpdateUnderIt) {
  constexpr int kProcesses = 4;
  constexpr int kRounds = 5000;
  const std::string name = NewName();
  void* page =
      mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  volatile int* counter = static_cast<int*>(page);
  *counter = 0;

  int start[2];
  ASSERT_EQ(pipe(start), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(Fork([&] {
      close(start[1]);
      char go;
      (void)!read(start[0], &go, 1);  // ends for all at once when the test closes its end
      auto mutex = NamedMutex::OpenOrCreate(name);
      if (!mutex) return 1;
      for (int round = 0; round < kRounds; ++round) {
        if (mutex->Wait(kInfinite) != kOwned) return 2;
        const int seen = *counter;
        if (round % 16 == 0) sched_yield();
        *counter = seen + 1;
        if (!mutex->Release()) return 3;
      }
      return 0;
    }));
  }
  close(start[1]);
  for (pid_t child : children) {
    EXPECT_EQ(Reap(child), 0);
  }
  close(start[0]);

  EXPECT_EQ(*counter, kProcesses * kRounds);
  auto mutex = Open(name);
  ASSERT_TRUE(mutex);
  EXPECT_EQ(mutex->Wait(0), kOwned);
  EXPECT_TRUE(mutex->Release());
  munmap(page, sizeof(int));
}

TEST_F(NamedMutexTest, AnyNameMapsToItsOwnValidObject) {
  // The name other programs open the board's mutex by.
  EXPECT_EQ(NamedMutex::ShmName("CTavroUsb Access"), "/tavro-mx-CTavroUsb%20Access");
  const std::string longPath = "/var/lib/" + std::string(300, 'd') + "/Folders.ini";
  std::string otherLongPath = longPath;
  otherLongPath[1] = 'w';
  const std::vector<std::string> names = {"a b", "a_b", "a/b",    "a%20b",       "A b",
                                          "a~b", "",    longPath, otherLongPath, longPath + "x"};
  std::set<std::string> seen;
  for (const std::string& name : names) {
    const std::string shm = NamedMutex::ShmName(name);
    EXPECT_LE(shm.size(), static_cast<std::size_t>(NAME_MAX)) << name;
    EXPECT_EQ(shm.find('/', 1), std::string::npos) << name;
    EXPECT_TRUE(seen.insert(shm).second) << name << " -> " << shm;
  }
}

// The object's permission bits, or ~0 when it can't be looked at.
unsigned ObjectMode(const std::string& name) {
  const int fd = shm_open(NamedMutex::ShmName(name).c_str(), O_RDONLY, 0);
  struct stat st {};
  const bool good = fd >= 0 && fstat(fd, &st) == 0;
  if (fd >= 0) close(fd);
  return good ? st.st_mode & 07777 : ~0u;
}

TEST_F(NamedMutexTest, OnlyAMutexSharedWithEveryUserIsWritableByOthersWhateverTheUmask) {
  const std::string shared = NewName();
  const std::string own = NewName();
  const mode_t previous = umask(0);
  auto sharedMutex = NamedMutex::OpenOrCreate(shared, nullptr, NamedMutex::Sharing::kEveryUser);
  auto ownMutex = NamedMutex::OpenOrCreate(own);
  umask(previous);
  ASSERT_TRUE(sharedMutex && ownMutex);
  EXPECT_EQ(ObjectMode(shared), 0666u);
  EXPECT_EQ(ObjectMode(own), 0600u);
}

// Anyone who can write an object can write a made-up owner into it. An owner-only mutex found
// open to others was planted: it is made anew instead of waited on.
TEST_F(NamedMutexTest, AnOwnerOnlyMutexFoundOpenToOthersIsMadeAnew) {
  const std::string name = NewName();
  ASSERT_TRUE(testing_support::PlantMutexOwner(name));
  auto planted = NamedMutex::OpenOrCreate(name, nullptr, NamedMutex::Sharing::kEveryUser);
  ASSERT_TRUE(planted);
  EXPECT_EQ(planted->Wait(20), kTimeout);

  auto mutex = Open(name);
  ASSERT_TRUE(mutex);
  EXPECT_EQ(mutex->Wait(0), kOwned);
  EXPECT_TRUE(mutex->Release());
  EXPECT_EQ(ObjectMode(name), 0600u);
}

// A creator that died before it set the object up must not make the name unusable.
TEST_F(NamedMutexTest, ObjectLeftUnfinishedByItsCreatorIsSetUpByTheNextOpener) {
  for (const off_t size : {0, 4096}) {
    const std::string name = NewName();
    const int fd = shm_open(NamedMutex::ShmName(name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, size), 0);
    close(fd);
    auto mutex = Open(name);
    ASSERT_TRUE(mutex);
    EXPECT_EQ(mutex->Wait(0), kOwned);
    EXPECT_TRUE(mutex->Release());
  }
}

}  // namespace
}  // namespace platform
