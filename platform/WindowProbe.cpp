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

// Opens `path` without following a link in its last step and without waiting (a FIFO would wait
// for a writer); -1 unless it is a plain file.
int OpenPlainFile(const std::string& path, int flags, mode_t create = 0) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, create);
  struct stat st {};
  if (fd >= 0 && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    ::close(fd);
    return -1;
  }
  return fd;
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
  // Asked on the UI thread, in a folder other programs write to: a FIFO planted there must not
  // hold the open, nor a link lead it elsewhere.
  const int fd = OpenPlainFile(PathOf(windowClass), O_RDONLY);
  if (fd < 0) return false;  // never made, or not a window's file: no such window
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
  ::mkdir(dir.c_str(), 0755);  // may exist; a failure shows at open
  // Everyone may look (a probe reads), only the holder's user may hold: a lock to hold takes a
  // descriptor open for writing.
  const int fd = OpenPlainFile(dir + "/" + class_, O_RDWR | O_CREAT, 0644);
  if (fd < 0) return false;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && st.st_uid == ::geteuid()) (void)::fchmod(fd, 0644);
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
