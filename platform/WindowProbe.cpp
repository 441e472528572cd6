#include "platform/WindowProbe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
  // The probe only asks who holds the file and takes no lock itself: a lock of its own, however
  // short, would make a holder that opens at that moment fail as if another program had the
  // window. Asking on a descriptor of our own sees holders of this process too.
  struct flock query {};
  query.l_type = F_RDLCK;
  query.l_whence = SEEK_SET;
  const bool held = ::fcntl(fd, F_OFD_GETLK, &query) == 0 && query.l_type != F_UNLCK;
  ::close(fd);
  return held;
}

bool WindowOfClass::Open() {
  if (fd_ >= 0) return true;
  const std::string dir = directory_.empty() ? WindowDirectory() : directory_;
  ::mkdir(dir.c_str(), 0777);  // may exist; a failure shows at open
  const std::string path = dir + "/" + class_;
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  // Programs of every user hold and probe the same file, whatever the creator's umask.
  (void)::fchmod(fd, 0666);
  // A lock of the open file itself: it ends with the descriptor, in a process that died too, and
  // a second holder in the same process is refused like one in another.
  struct flock hold {};
  hold.l_type = F_WRLCK;
  hold.l_whence = SEEK_SET;
  if (::fcntl(fd, F_OFD_SETLK, &hold) != 0) {
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
