// Thin wrappers over the system's kernel objects. They turn failures into debug messages or
// return values, and never throw.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace platform {
class NamedMutex;
}

namespace WinX {

// Wait results, as the system's wait functions give them.
inline constexpr std::uint32_t kWaitObject0 = 0;
inline constexpr std::uint32_t kWaitAbandoned = 0x80;
inline constexpr std::uint32_t kWaitTimeout = 0x102;
inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;
inline constexpr std::uint32_t kInfinite = 0xFFFFFFFF;

// The debugger's output: a line to stderr, prefixed so it can be told from other output.
void OutputDebugString(const char* text);

// Owns one system object and closes it at the end. Empty stands for both the null and the
// invalid handle.
class Handle {
 public:
  Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  virtual ~Handle();

  bool IsValid() const { return handle != nullptr; }

 protected:
  std::shared_ptr<void> handle;
};

// A named mutex shared by every process of the machine. A failed create leaves the object empty
// and alive; Wait then fails. With the default security only programs of the same user may open
// it; `everyUser` opens it to programs of every user (see platform/NamedMutex.h for the cost).
class Mutex : public Handle {
 public:
  explicit Mutex(const std::string& name, bool everyUser = false);

  // kWaitObject0, kWaitAbandoned (the previous owner died; the caller owns it now), kWaitTimeout
  // or kWaitFailed.
  std::uint32_t Wait(std::uint32_t timeoutMs);
  // False (with a debug message) when the calling thread does not own the mutex.
  bool Release();

 private:
  platform::NamedMutex* Get() const { return static_cast<platform::NamedMutex*>(handle.get()); }
};

// Holds a Mutex for its scope. A wait that does not give the lock is reported to the debugger and
// the scope goes on without it; the release at the end then fails with its own message. Ends on
// the thread where it began: a mutex belongs to the thread that waited for it.
class MutexLock {
 public:
  MutexLock(Mutex& mutex, std::uint32_t timeoutMs);
  ~MutexLock();
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// An in-process recursive lock. A thread blocked here counts as waiting for the clock, so a test
// in virtual time moves on while another thread holds the lock across a timed wait.
class CriticalSection {
 public:
  CriticalSection() = default;
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter();
  void Leave();

 private:
  std::mutex mutex_;
  std::thread::id owner_;
  int depth_ = 0;
  int waiters_ = 0;
};

class CriticalSectionLock {
 public:
  explicit CriticalSectionLock(CriticalSection& section) : section_(section) { section_.Enter(); }
  ~CriticalSectionLock() { section_.Leave(); }
  CriticalSectionLock(const CriticalSectionLock&) = delete;
  CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

 private:
  CriticalSection& section_;
};

}  // namespace WinX
