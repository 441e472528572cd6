#include "platform/WindowProbe.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "platform/DeviceIo.h"

namespace platform {

namespace {

std::mutex probeMutex;
std::function<bool(const std::string&)>& Probe() {
  static std::function<bool(const std::string&)> probe;
  return probe;
}

std::string PathOf(const std::string& windowClass) {
  return WindowDirectory() + "/" + windowClass;
}

}  // namespace

std::string WindowDirectory() {
  if (const char* dir = std::getenv("TAVRO_WINDOW_DIR"); dir && *dir) return dir;
  return DeviceDirectory() + "/.windows";
}

void SetWindowProbe(std::function<bool(const std::string&)> probe) {
  std::lock_guard lock(probeMutex);
  Probe() = std::move(probe);
}

bool FindWindowOfClass(const std::string& windowClass) {
  {
    std::lock_guard lock(probeMutex);
    if (Probe()) return Probe()(windowClass);
  }
  const int fd = ::open(PathOf(windowClass).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;  // never made: no such window
  // Busy means some holder keeps it; a lock we can take means its holder is gone.
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

bool WindowOfClass::Open() {
  if (fd_ >= 0) return true;
  const std::string dir = directory_.empty() ? WindowDirectory() : directory_;
  ::mkdir(dir.c_str(), 0777);  // may exist; a failure shows at open
  const std::string path = dir + "/" + class_;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return false;
  }
  fd_ = fd;
  return true;
}

void WindowOfClass::Close() {
  if (fd_ < 0) return;
  ::close(fd_);  // releases the lock
  fd_ = -1;
}

}  // namespace platform
