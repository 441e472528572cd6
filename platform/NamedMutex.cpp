#include "platform/NamedMutex.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#if defined(__SANITIZE_THREAD__)
#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>
#endif

namespace platform {

// The layout of the shared memory object. A new object reads as zeroes.
struct NamedMutex::Shared {
  std::uint32_t ready;  // kReady once `mutex` is set up; only through std::atomic_ref
  std::uint32_t reserved;
  pthread_mutex_t mutex;
};

namespace {

// Set last by whoever initialises the object; it carries the layout version, so a build with
// another layout refuses the object instead of misreading it.
constexpr std::uint32_t kReady = 0x544D5801;

constexpr char kPrefix[] = "/tavro-mx-";
// Escaped characters of the name kept before the hash of a long name; with the prefix and the
// hash this stays well below NAME_MAX.
constexpr std::size_t kMaxReadable = 160;
constexpr std::size_t kHashDigits = 16;
// How long an open waits for a process that creates or initialises the same object at that moment.
constexpr auto kOpenLimit = std::chrono::seconds(2);
constexpr auto kRetryPause = std::chrono::milliseconds(1);

using SteadyTime = std::chrono::steady_clock::time_point;

std::uint32_t LoadReady(std::uint32_t& ready) {
  return std::atomic_ref<std::uint32_t>(ready).load(std::memory_order_acquire);
}

bool Keep(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

// FNV-1a, 64 bits.
std::uint64_t Hash(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

// Whether an existing object may serve as an owner-only one: made by this user, and writable by
// nobody else.
bool OwnedAlone(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && st.st_uid == geteuid() && (st.st_mode & 022) == 0;
}

// Opens the object, creating it if it doesn't exist. Returns the descriptor, or -1 with *error set.
int OpenObject(const std::string& shmName, NamedMutex::Sharing sharing, SteadyTime deadline,
               int* error) {
  const bool everyUser = sharing == NamedMutex::Sharing::kEveryUser;
  const mode_t mode = everyUser ? 0666 : 0600;
  for (;;) {
    int fd = shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0) {
      // The umask narrows the mode given above; programs of every user must be able to open a
      // shared one. Should this fail, the object still serves this user.
      if (everyUser) (void)fchmod(fd, mode);
      return fd;
    }
    if (errno != EEXIST) break;
    fd = shm_open(shmName.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd >= 0 && !everyUser && !OwnedAlone(fd)) {
      // Planted by another user, or left open to others: whoever can write it can hold the
      // mutex for good. It goes, and the loop makes a new one (or finds one a process of this
      // user made meanwhile).
      close(fd);
      if (shm_unlink(shmName.c_str()) != 0 && errno != ENOENT) {
        *error = EACCES;
        return -1;
      }
      if (std::chrono::steady_clock::now() >= deadline) break;
      continue;
    }
    if (fd >= 0) return fd;
    // Removed again between the two calls, or its creator has not widened the mode yet.
    if ((errno != ENOENT && errno != EACCES) || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(kRetryPause);
  }
  *error = errno;
  return -1;
}

// The pthread calls on the shared mutex. ThreadSanitizer's model of a mutex is one of a single
// process: it does not know that a robust lock can be handed over abandoned (EOWNERDEAD) or taken
// in another process, and it reports a release that must fail (a thread that does not own the
// mutex) as an error of its own. Its build so calls the C library's functions directly, past the
// sanitizer's interceptors, and tells it only what the mutex guarantees: each release happens
// before the wait that takes the mutex next.
#if defined(__SANITIZE_THREAD__)
template <typename Function>
Function Real(const char* name) {
  static void* const libc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
  return libc ? reinterpret_cast<Function>(dlsym(libc, name)) : nullptr;
}

int Lock(pthread_mutex_t* mutex) {
  static const auto lock = Real<int (*)(pthread_mutex_t*)>("pthread_mutex_lock");
  const int rc = lock ? lock(mutex) : ENOSYS;
  if (rc == 0 || rc == EOWNERDEAD) __tsan_acquire(mutex);
  return rc;
}

int TryLock(pthread_mutex_t* mutex) {
  static const auto tryLock = Real<int (*)(pthread_mutex_t*)>("pthread_mutex_trylock");
  const int rc = tryLock ? tryLock(mutex) : ENOSYS;
  if (rc == 0 || rc == EOWNERDEAD) __tsan_acquire(mutex);
  return rc;
}

int ClockLock(pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) {
  static const auto clockLock =
      Real<int (*)(pthread_mutex_t*, clockid_t, const timespec*)>("pthread_mutex_clocklock");
  const int rc = clockLock ? clockLock(mutex, clock, deadline) : ENOSYS;
  if (rc == 0 || rc == EOWNERDEAD) __tsan_acquire(mutex);
  return rc;
}

int Unlock(pthread_mutex_t* mutex) {
  static const auto unlock = Real<int (*)(pthread_mutex_t*)>("pthread_mutex_unlock");
  // Announced before the call: once the mutex is free, another thread may take it at once.
  __tsan_release(mutex);
  return unlock ? unlock(mutex) : ENOSYS;
}

int MakeConsistent(pthread_mutex_t* mutex) {
  static const auto consistent = Real<int (*)(pthread_mutex_t*)>("pthread_mutex_consistent");
  return consistent ? consistent(mutex) : ENOSYS;
}
#else
int Lock(pthread_mutex_t* mutex) {
  return pthread_mutex_lock(mutex);
}
int TryLock(pthread_mutex_t* mutex) {
  return pthread_mutex_trylock(mutex);
}
int ClockLock(pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) {
  return pthread_mutex_clocklock(mutex, clock, deadline);
}
int Unlock(pthread_mutex_t* mutex) {
  return pthread_mutex_unlock(mutex);
}
int MakeConsistent(pthread_mutex_t* mutex) {
  return pthread_mutex_consistent(mutex);
}
#endif

int InitMutex(pthread_mutex_t* mutex) {
  pthread_mutexattr_t attr;
  int rc = pthread_mutexattr_init(&attr);
  if (rc != 0) return rc;
  rc = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  if (rc == 0) rc = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  if (rc == 0) rc = pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  if (rc == 0) rc = pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  return rc;
}

}  // namespace

std::string NamedMutex::ShmName(const std::string& name) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  // Escaping every byte that is not kept ('%' included) makes the mapping one-to-one.
  std::string readable;
  for (unsigned char c : name) {
    if (Keep(c)) {
      readable += static_cast<char>(c);
    } else {
      readable += '%';
      readable += kHex[c >> 4];
      readable += kHex[c & 15];
    }
  }
  if (readable.size() <= kMaxReadable) return kPrefix + readable;

  // A long name keeps its end, which for a path is the file's own name, and a hash of the whole
  // name tells such names apart. '~' is always escaped, so a long name never equals a short one.
  std::size_t start = readable.size() - (kMaxReadable - kHashDigits - 1);
  if (readable[start - 1] == '%') {
    start += 2;
  } else if (readable[start - 2] == '%') {
    start += 1;
  }
  char hash[kHashDigits + 1];
  std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(Hash(name)));
  return kPrefix + readable.substr(start) + '~' + hash;
}

// Sets up a mapped object that is not ready yet. Whoever sets it up holds an exclusive file lock
// on it meanwhile, and only the first to get that lock finds the marker unset. The lock ends with
// the process that holds it, so a creator that died half way leaves an object that the next
// opener sets up, not one that stays unusable for the machine's uptime.
bool NamedMutex::Initialize(int fd, Shared* shared, int* error) {
  const SteadyTime deadline = std::chrono::steady_clock::now() + kOpenLimit;
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      *error = errno;
      return false;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      *error = ETIMEDOUT;
      return false;
    }
    std::this_thread::sleep_for(kRetryPause);
  }

  struct stat st;
  const bool sized = fstat(fd, &st) == 0 && (st.st_size >= static_cast<off_t>(sizeof(Shared)) ||
                                             ftruncate(fd, sizeof(Shared)) == 0);
  int rc = sized ? 0 : errno;
  if (rc == 0) {
    const std::uint32_t ready = LoadReady(shared->ready);
    if (ready == 0) {
      rc = InitMutex(&shared->mutex);
      if (rc == 0) {
        std::atomic_ref<std::uint32_t>(shared->ready).store(kReady, std::memory_order_release);
      }
    } else if (ready != kReady) {
      rc = EPROTO;
    }
  }
  flock(fd, LOCK_UN);
  *error = rc;
  return rc == 0;
}

NamedMutex::Shared* NamedMutex::Attach(const std::string& shmName, Sharing sharing, int* error) {
  const int fd = OpenObject(shmName, sharing, std::chrono::steady_clock::now() + kOpenLimit, error);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    *error = errno;
    close(fd);
    return nullptr;
  }

  // One mapping per object and process, never unmapped. The robust-mutex list of a thread that
  // owns the mutex points into the mapping, so unmapping it, or owning through a second mapping
  // at another address, would corrupt that list. Keyed by the object itself rather than by name,
  // so that an object removed and made anew is mapped anew.
  static std::mutex registryMutex;
  static auto* registry = new std::map<std::pair<dev_t, ino_t>, Shared*>;
  std::lock_guard lock(registryMutex);
  const std::pair key{st.st_dev, st.st_ino};
  if (auto it = registry->find(key); it != registry->end()) {
    close(fd);
    return it->second;
  }

  void* mapped = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED) {
    *error = errno;
    close(fd);
    return nullptr;
  }
  auto* shared = static_cast<Shared*>(mapped);
  // The marker may be read only once the object has its size: a page past its end faults.
  const bool ready =
      st.st_size >= static_cast<off_t>(sizeof(Shared)) && LoadReady(shared->ready) == kReady;
  if (!ready && !Initialize(fd, shared, error)) {
    munmap(mapped, sizeof(Shared));
    close(fd);
    return nullptr;
  }
  close(fd);
  registry->emplace(key, shared);
  return shared;
}

std::unique_ptr<NamedMutex> NamedMutex::OpenOrCreate(const std::string& name, int* error,
                                                     Sharing sharing) {
  int ignored = 0;
  Shared* shared = Attach(ShmName(name), sharing, error ? error : &ignored);
  if (!shared) return nullptr;
  if (error) *error = 0;
  return std::unique_ptr<NamedMutex>(new NamedMutex(shared));
}

std::uint32_t NamedMutex::Wait(std::uint32_t timeoutMs) {
  pthread_mutex_t* mutex = &shared_->mutex;
  int rc;
  if (timeoutMs == kInfinite) {
    rc = Lock(mutex);
  } else if (timeoutMs == 0) {
    rc = TryLock(mutex);
  } else {
    // A time limit counts elapsed time, whatever happens to the wall clock meanwhile.
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
    rc = ClockLock(mutex, CLOCK_MONOTONIC, &deadline);
  }

  switch (rc) {
    case 0:
      return kWaitObject0;
    case EOWNERDEAD:
      // The caller owns it now, at one level. Marking it consistent lets it be released and
      // taken again as usual; left inconsistent, its release would make it unusable for good.
      MakeConsistent(mutex);
      return kWaitAbandoned;
    case EBUSY:
    case ETIMEDOUT:
      return kWaitTimeout;
    default:
      // Not recoverable, or the owner's recursion count is exhausted.
      return kWaitFailed;
  }
}

bool NamedMutex::Release() {
  // Fails with EPERM for a thread that does not own it.
  return Unlock(&shared_->mutex) == 0;
}

}  // namespace platform
