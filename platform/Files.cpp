#include "platform/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>

namespace platform {

namespace {

std::mutex g_baseMutex;
std::string g_base;           // empty: the system's base
std::string g_programFolder;  // empty: the folder of /proc/self/exe

constexpr char kSystemBase[] = "/var/lib/";

// Keeps `path` as `backup` too, replacing what was there in one step: a hard link to a temporary
// name renamed over the backup. Where the file system has no hard links, a copy does.
bool KeepAs(const std::string& path, const std::string& backup) {
  const std::string staging = backup + ".new";
  ::unlink(staging.c_str());
  if (::link(path.c_str(), staging.c_str()) != 0) {
    if (!CopyFile(path, staging)) return false;
  }
  return ::rename(staging.c_str(), backup.c_str()) == 0;
}

}  // namespace

bool ReplaceFile(const std::string& replaced, const std::string& replacement,
                 const std::string& backup) {
  // The backup is made before the rename, from the old file's own name, so that at every moment
  // `replaced` is a whole file: the old one until the rename, the new one after it. Without its
  // backup the old file is not given up: the replace fails and changes nothing.
  struct stat st {};
  if (!backup.empty() && ::lstat(replaced.c_str(), &st) == 0 && !KeepAs(replaced, backup)) {
    return false;
  }
  return ::rename(replacement.c_str(), replaced.c_str()) == 0;
}

std::string ProgramFolder() {
  {
    std::lock_guard lock(g_baseMutex);
    if (!g_programFolder.empty()) return g_programFolder;
  }
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return {};
  std::string path(buffer, static_cast<std::size_t>(n));
  return path.substr(0, path.rfind('/') + 1);
}

void SetProgramFolder(const std::string& folder) {
  std::lock_guard lock(g_baseMutex);
  g_programFolder = folder;
  if (!g_programFolder.empty() && g_programFolder.back() != '/') g_programFolder += '/';
}

std::string CommonDataBase() {
  std::lock_guard lock(g_baseMutex);
  return g_base.empty() ? kSystemBase : g_base;
}

void SetCommonDataBase(const std::string& base) {
  std::lock_guard lock(g_baseMutex);
  g_base = base;
  if (!g_base.empty() && g_base.back() != '/') g_base += '/';
}

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool FileExists(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

bool CopyFile(const std::string& source, const std::string& destination) {
  // Both ends may lie in a folder every user writes: neither is followed when it is a link, and
  // the copy is a new file, made after whatever stood at its name is gone.
  const int in = ::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (in < 0) return false;
  struct stat st {};
  if (::fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(in);
    return false;
  }
  ::unlink(destination.c_str());
  const int out =
      ::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  bool good = out >= 0;
  char buffer[65536];
  while (good) {
    const ssize_t n = ::read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      good = n == 0;
      break;
    }
    for (ssize_t done = 0; good && done < n;) {
      const ssize_t w = ::write(out, buffer + done, static_cast<std::size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      good = w > 0;
      done += w > 0 ? w : 0;
    }
  }
  ::close(in);
  if (out >= 0 && ::close(out) != 0) good = false;
  if (!good && out >= 0) ::unlink(destination.c_str());
  return good;
}

}  // namespace platform
