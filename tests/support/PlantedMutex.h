// What any user can do to a named mutex open to every user: write a made-up owner into its
// shared object. The owner named is process 1, which is alive and never releases it.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "platform/NamedMutex.h"

namespace testing_support {

// Sets the lock word of the mutex `name` (made open to every user if missing) to `owner`; 0
// frees it again. False when the object can't be reached.
inline bool PlantMutexOwner(const std::string& name, std::uint32_t owner = 1) {
  using platform::NamedMutex;
  if (!NamedMutex::OpenOrCreate(name, nullptr, NamedMutex::Sharing::kEveryUser)) return false;
  const int fd = ::shm_open(NamedMutex::ShmName(name).c_str(), O_RDWR, 0);
  if (fd < 0) return false;
  constexpr std::size_t kBytes = 64;  // the marker, a reserved word and the mutex's first words
  void* mapped = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (mapped == MAP_FAILED) return false;
  // The pthread mutex follows two 32-bit words; its first word holds the owner's thread id.
  static_cast<volatile std::uint32_t*>(mapped)[2] = owner;
  ::munmap(mapped, kBytes);
  return true;
}

// Runs `body` in a child process that an alarm ends after `seconds`; the child's exit status,
// or -1 when the alarm (or anything else) ended it: a wait that never ends shows as -1.
template <typename Fn>
int RunWithAlarm(unsigned seconds, Fn body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(seconds);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace testing_support
