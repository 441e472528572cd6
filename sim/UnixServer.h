// A Unix-domain socket server: it listens at a path and runs a serve routine on a thread of its
// own for each connection. Every thread it starts takes part in the current clock for its whole
// life, and every wait goes through the clock, so a server runs in virtual time as well as real.
//
// Close is prompt: it shuts the sockets down, which makes every waiting thread's socket readable,
// so no thread needs time to pass in order to end.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Clock.h"

struct sockaddr_un;

namespace sim {

// Who may reach a served path: its permission bits and, when `group` is set, the group that the
// group bits are for (otherwise the serving user's). Connecting to a Unix-domain socket takes write
// permission on it, so the mode alone decides who can send.
struct SocketAccess {
  unsigned mode = 0600;
  int group = -1;  // a group id; -1: the serving user's own
};

class UnixServer {
 public:
  // Runs on the connection's thread until the peer leaves or the server closes (its socket then
  // reads as ended). It must not close `fd`: the server does, after the routine returned.
  using ServeFn = std::function<void(int fd)>;

  UnixServer(int socketType, ServeFn serve, SocketAccess access = {});
  ~UnixServer();
  UnixServer(const UnixServer&) = delete;
  UnixServer& operator=(const UnixServer&) = delete;

  // Makes the parent folders (0755), takes over a stale socket left by a process that died (but
  // not one that is still served), binds with the access given, and starts accepting. A folder
  // that other users may write to without its sticky bit is refused: anyone could replace the
  // socket there. False with a reason in `error`.
  bool Listen(const std::string& path, std::string& error);

  // Removes the path first (so the entry is gone before connections end), stops accepting,
  // closes every connection and waits for all threads. Harmless when not listening.
  void Close();

  bool Listening() const;
  std::size_t Connections() const;

  // For serve routines: waits on the clock until `deadline`; false as soon as Close begins.
  bool SleepUntil(platform::TimePoint deadline);

 private:
  struct Connection {
    int fd = -1;
    std::atomic<bool> done{false};
    std::thread thread;
  };

  int Bind(const sockaddr_un& addr, std::string& error) const;
  void AcceptLoop();
  void AddConnection(int fd);
  void ReapFinishedLocked(std::list<std::unique_ptr<Connection>>& finished);

  const int socketType_;
  const ServeFn serve_;
  const SocketAccess access_;
  std::mutex lifecycle_;  // one Listen or Close at a time
  mutable std::mutex mutex_;
  std::string path_;
  int listener_ = -1;
  bool listening_ = false;
  bool closing_ = false;
  std::thread acceptor_;
  std::list<std::unique_ptr<Connection>> connections_;
};

// Makes `dir` and its missing parents, readable by every user and writable by the owner only
// (0755, less the umask). False with errno set when one cannot be made.
bool MakeDirectories(const std::string& dir);

}  // namespace sim
