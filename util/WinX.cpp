#include "util/WinX.h"

#include <cstdio>

#include "platform/Clock.h"
#include "platform/NamedMutex.h"

namespace WinX {

void OutputDebugString(const char* text) {
  std::fprintf(stderr, "[debug] %s", text);
}

Handle::~Handle() = default;

Mutex::Mutex(const std::string& name, bool everyUser) {
  std::unique_ptr<platform::NamedMutex> mutex =
      platform::NamedMutex::OpenOrCreate(name, nullptr,
                                         everyUser ? platform::NamedMutex::Sharing::kEveryUser
                                                   : platform::NamedMutex::Sharing::kOwnerOnly);
  // A failed create is only traced, and the trace goes nowhere: the empty object fails its waits.
  if (mutex) handle = std::shared_ptr<platform::NamedMutex>(std::move(mutex));
}

std::uint32_t Mutex::Wait(std::uint32_t timeoutMs) {
  if (!Get()) return kWaitFailed;
  return Get()->Wait(timeoutMs);
}

bool Mutex::Release() {
  if (Get() && Get()->Release()) return true;
  OutputDebugString("Error: ReleaseMutex failed\r\n");
  return false;
}

MutexLock::MutexLock(Mutex& mutex, std::uint32_t timeoutMs) : mutex_(mutex) {
  if (mutex_.Wait(timeoutMs) != kWaitObject0) OutputDebugString("Error: Mutex.Wait failed\r\n");
}

MutexLock::~MutexLock() {
  mutex_.Release();
}

void CriticalSection::Enter() {
  std::unique_lock lock(mutex_);
  const auto self = std::this_thread::get_id();
  if (depth_ > 0 && owner_ == self) {
    ++depth_;
    return;
  }
  if (depth_ > 0) {
    ++waiters_;
    platform::Clock::Current().WaitUntil(lock, platform::kNever, [this] { return depth_ == 0; });
    --waiters_;
  }
  owner_ = self;
  depth_ = 1;
}

void CriticalSection::Leave() {
  bool wake = false;
  {
    std::lock_guard lock(mutex_);
    if (depth_ == 0 || owner_ != std::this_thread::get_id()) return;
    if (--depth_ == 0) {
      owner_ = std::thread::id();
      wake = waiters_ > 0;
    }
  }
  if (wake) platform::Clock::Current().NotifyAll();
}

}  // namespace WinX
