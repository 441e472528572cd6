#include "sim/UnixServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace sim {

namespace {

std::string ErrnoText(int error) {
  char buffer[128];
  return ::strerror_r(error, buffer, sizeof buffer);  // the GNU form returns the text
}

bool FillAddress(const std::string& path, sockaddr_un& addr) {
  addr = {};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return true;
}

std::string ParentOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos || slash == 0 ? std::string() : path.substr(0, slash);
}

// A socket file at `path` that nobody serves any more is left over from a process that died; it
// may be taken over. One that still accepts belongs to a running board.
bool ClearStaleEntry(const std::string& path, int type, std::string& error) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return true;
  if (!S_ISSOCK(st.st_mode)) {
    error = path + " exists and is not a socket";
    return false;
  }
  sockaddr_un addr;
  FillAddress(path, addr);
  const int probe = ::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int result =
      probe < 0 ? -1 : ::connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  const int why = errno;
  if (probe >= 0) ::close(probe);
  if (result == 0) {
    error = path + " is already served by another board";
    return false;
  }
  // Only a refused connection means that nobody listens; anything else (a socket of another
  // kind, no permission) is somebody else's.
  if (why != ECONNREFUSED) {
    error = path + " is in use: " + ErrnoText(why);
    return false;
  }
  ::unlink(path.c_str());
  return true;
}

// A folder that others may write to lets them rename or replace what is in it, unless its sticky
// bit keeps each entry its owner's.
bool FolderKeepsItsEntries(const std::string& dir, std::string& error) {
  struct stat st {};
  if (::stat(dir.empty() ? "/" : dir.c_str(), &st) != 0) return true;  // bind says why
  if ((st.st_mode & S_IWOTH) == 0 || (st.st_mode & S_ISVTX) != 0) return true;
  error = dir + " may be written by every user: anyone could replace the socket there";
  return false;
}

}  // namespace

bool MakeDirectories(const std::string& dir) {
  if (dir.empty()) return true;
  struct stat st {};
  if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  if (!MakeDirectories(ParentOf(dir))) return false;
  return ::mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST;
}

UnixServer::UnixServer(int socketType, ServeFn serve, SocketAccess access)
    : socketType_(socketType), serve_(std::move(serve)), access_(access) {}

UnixServer::~UnixServer() {
  Close();
}

bool UnixServer::Listen(const std::string& path, std::string& error) {
  std::lock_guard lifecycle(lifecycle_);
  if (Listening()) return true;
  sockaddr_un addr;
  if (!FillAddress(path, addr)) {
    error = "socket path is empty or longer than " + std::to_string(sizeof addr.sun_path - 1) +
            " bytes: " + path;
    return false;
  }
  if (!MakeDirectories(ParentOf(path))) {
    error = "cannot make the folder of " + path + ": " + ErrnoText(errno);
    return false;
  }
  if (!FolderKeepsItsEntries(ParentOf(path), error)) return false;
  if (!ClearStaleEntry(path, socketType_, error)) return false;
  const int fd = Bind(addr, error);
  if (fd < 0) return false;
  std::lock_guard lock(mutex_);
  path_ = path;
  listener_ = fd;
  listening_ = true;
  acceptor_ = platform::ParticipantThread([this] { AcceptLoop(); });
  return true;
}

// The socket's own mode, set before bind, is what the file is made with (less the umask), so the
// path is never open to more users than `access_` says, not even for a moment; its group and the
// exact bits follow before it listens, so no connection comes before.
int UnixServer::Bind(const sockaddr_un& addr, std::string& error) const {
  const std::string path = addr.sun_path;
  const int fd = ::socket(AF_UNIX, socketType_ | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool bound = fd >= 0 && ::fchmod(fd, access_.mode) == 0 &&
                     ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  const bool grouped =
      bound && (access_.group < 0 || ::chown(path.c_str(), static_cast<uid_t>(-1),
                                             static_cast<gid_t>(access_.group)) == 0);
  if (grouped && ::chmod(path.c_str(), access_.mode) == 0 && ::listen(fd, 16) == 0) return fd;
  error = "cannot serve " + path + ": " + ErrnoText(errno);
  if (bound) ::unlink(path.c_str());  // ours: made by this bind
  if (fd >= 0) ::close(fd);
  return -1;
}

void UnixServer::Close() {
  std::lock_guard lifecycle(lifecycle_);
  std::list<std::unique_ptr<Connection>> connections;
  {
    std::lock_guard lock(mutex_);
    if (!listening_) return;
    closing_ = true;
  }
  platform::Clock::Current().NotifyAll();  // ends the waits of SleepUntil
  ::unlink(path_.c_str());
  ::shutdown(listener_, SHUT_RDWR);
  // Every thread of a server ends once its sockets are shut down, without waiting for time to
  // pass; the join holds time while they end, as for any other action that takes none.
  platform::Join(acceptor_);
  ::close(listener_);
  {
    std::lock_guard lock(mutex_);
    connections.swap(connections_);
  }
  for (auto& c : connections)
    ::shutdown(c->fd, SHUT_RDWR);
  for (auto& c : connections) {
    platform::Join(c->thread);
    ::close(c->fd);
  }
  std::lock_guard lock(mutex_);
  listener_ = -1;
  listening_ = false;
  closing_ = false;
}

bool UnixServer::Listening() const {
  std::lock_guard lock(mutex_);
  return listening_ && !closing_;
}

std::size_t UnixServer::Connections() const {
  std::lock_guard lock(mutex_);
  std::size_t n = 0;
  for (const auto& c : connections_)
    n += c->done ? 0 : 1;
  return n;
}

bool UnixServer::SleepUntil(platform::TimePoint deadline) {
  std::unique_lock lock(mutex_);
  return !platform::Clock::Current().WaitUntil(lock, deadline, [this] { return closing_; });
}

void UnixServer::AcceptLoop() {
  platform::Clock& clock = platform::Clock::Current();
  for (;;) {
    if (clock.WaitReadable(listener_, platform::kNever) < 0) return;
    {
      std::lock_guard lock(mutex_);
      if (closing_) return;
    }
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      AddConnection(fd);
      continue;
    }
    if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) return;
  }
}

void UnixServer::AddConnection(int fd) {
  std::list<std::unique_ptr<Connection>> finished;
  {
    std::lock_guard lock(mutex_);
    ReapFinishedLocked(finished);
    auto c = std::make_unique<Connection>();
    Connection* raw = c.get();
    c->fd = fd;
    c->thread = platform::ParticipantThread([this, raw] {
      serve_(raw->fd);
      raw->done = true;
    });
    connections_.push_back(std::move(c));
  }
  // Threads that ended are joined outside the lock; they have nothing left to do.
  for (auto& c : finished) {
    platform::Join(c->thread);
    ::close(c->fd);
  }
}

void UnixServer::ReapFinishedLocked(std::list<std::unique_ptr<Connection>>& finished) {
  for (auto it = connections_.begin(); it != connections_.end();) {
    if ((*it)->done) {
      finished.push_back(std::move(*it));
      it = connections_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace sim
