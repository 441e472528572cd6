// A mutex that every process of the machine finds by name, with the behaviour of the system's
// named mutexes: it belongs to the thread that waited for it, that thread may wait again and must
// release as often, and a thread or process that ends while owning it leaves it abandoned, which
// the next waiter is told about (and then owns it, in a usable state).
//
// It lives in a POSIX shared memory object whose name is derived from the mutex name, as a
// process-shared, robust, recursive pthread mutex, and it outlives the processes that use it.
//
// Who may open it is the creator's choice (Sharing). Whoever can write the object can also take
// the mutex for good or write a made-up owner into it, so only the locks that programs of other
// users must share are open to them, and every thread that serves the window waits on one with a
// time limit. An owner-only object is refused when another user owns it or others may write it:
// such an object was planted, and it is replaced by a new one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace platform {

class NamedMutex {
 public:
  // Wait results, with the values of the system's wait functions.
  static constexpr std::uint32_t kWaitObject0 = 0;
  static constexpr std::uint32_t kWaitAbandoned = 0x80;
  static constexpr std::uint32_t kWaitTimeout = 0x102;
  static constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;
  // A time limit that never ends.
  static constexpr std::uint32_t kInfinite = 0xFFFFFFFF;

  enum class Sharing {
    kOwnerOnly,  // mode 0600: programs of the effective user only
    kEveryUser,  // mode 0666: programs of every user, the measuring application's included
  };

  // Opens the mutex called `name` (any characters, case-sensitive), creating it not owned if no
  // process has it yet. Returns null on failure and, if `error` is given, stores the errno value
  // there. Several processes may call this at once for the same name; all get the same mutex.
  // Every handle of one process on one name shares one mapping, so a thread that owns the mutex
  // through one handle owns it through all of them. With kOwnerOnly an object that another user
  // owns, or that others may write, is removed and made anew (EACCES when it can't be removed).
  static std::unique_ptr<NamedMutex> OpenOrCreate(const std::string& name, int* error = nullptr,
                                                  Sharing sharing = Sharing::kOwnerOnly);

  // The shared memory object name used for `name`: "/tavro-mx-" and the readable part of the name,
  // with every other byte escaped as %XX, so that different names map to different objects. A long
  // name keeps only its end and adds a hash of the whole, so the result never exceeds NAME_MAX.
  static std::string ShmName(const std::string& name);

  NamedMutex(const NamedMutex&) = delete;
  NamedMutex& operator=(const NamedMutex&) = delete;
  // Closing a handle neither releases the mutex nor ends the ownership of a thread.
  ~NamedMutex() = default;

  // Waits up to `timeoutMs` milliseconds (kInfinite: without limit, 0: one try) for the calling
  // thread to own the mutex. Returns kWaitObject0 when it owns it (again, if it already did),
  // kWaitAbandoned when the previous owner ended without releasing it (the caller owns it now and
  // its next wait on a free mutex gives kWaitObject0), kWaitTimeout when the time ran out, and
  // kWaitFailed when the wait could not be made.
  std::uint32_t Wait(std::uint32_t timeoutMs);

  // Gives up one level of the calling thread's ownership; the mutex is free when every wait that
  // owned it is matched. Returns false, changing nothing, when the calling thread does not own it.
  bool Release();

 private:
  struct Shared;
  explicit NamedMutex(Shared* shared) : shared_(shared) {}
  static Shared* Attach(const std::string& shmName, Sharing sharing, int* error);
  static bool Initialize(int fd, Shared* shared, int* error);

  Shared* shared_;  // in a mapping that stays for the process's life
};

}  // namespace platform
