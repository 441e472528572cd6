#include "config/FileAccess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <new>

#include "config/ErrorLog.h"

namespace config {

namespace {

std::atomic<FileAccessSink*> g_sink{nullptr};

constexpr char kAccessAcl[] = "system.posix_acl_access";
constexpr char kDefaultAcl[] = "system.posix_acl_default";

// The probe's content: "Temp" in UTF-16LE, 8 bytes.
constexpr unsigned char kProbeText[] = {'T', 0, 'e', 0, 'm', 0, 'p', 0};

// Reads an extended attribute of an open file whole; empty when the file has none.
std::string ReadAttribute(int fd, const char* name) {
  const ssize_t size = ::fgetxattr(fd, name, nullptr, 0);
  if (size <= 0 || size > 65536) return {};
  std::string value(static_cast<std::size_t>(size), '\0');
  const ssize_t read = ::fgetxattr(fd, name, value.data(), value.size());
  if (read < 0) return {};
  value.resize(static_cast<std::size_t>(read));
  return value;
}

void PutLe16(std::string& out, std::uint16_t v) {
  out += static_cast<char>(v & 0xFF);
  out += static_cast<char>(v >> 8);
}

void PutLe32(std::string& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    out += static_cast<char>((v >> (8 * i)) & 0xFF);
}

// The kernel's form of an access list with full rights for owner, group and others, and no named
// entries: what the folder hands down to everything made in it.
std::string EveryoneAcl() {
  constexpr std::uint16_t kUserObj = 0x01;
  constexpr std::uint16_t kGroupObj = 0x04;
  constexpr std::uint16_t kOther = 0x20;
  constexpr std::uint16_t kAll = 7;
  constexpr std::uint32_t kUndefinedId = 0xFFFFFFFF;
  std::string acl;
  PutLe32(acl, 2);  // the attribute format's version
  for (std::uint16_t tag : {kUserObj, kGroupObj, kOther}) {
    PutLe16(acl, tag);
    PutLe16(acl, kAll);
    PutLe32(acl, kUndefinedId);
  }
  return acl;
}

}  // namespace

bool CollectDefaultSecurity(const std::string& folder, std::unique_ptr<FileSecurity>& out) {
  out.reset();
  const std::string probe = folder + "_tmp.ini";
  // A stale probe, or whatever another user put at its name, goes; the probe is made new and
  // everything after is read through it, never through the name.
  ::unlink(probe.c_str());
  const int fd = ::open(probe.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  const bool written = ::write(fd, kProbeText, sizeof kProbeText) == sizeof kProbeText;
  struct stat st {};
  const bool good = written && ::fstat(fd, &st) == 0;
  if (good) {
    // Out of memory leaves the result true and `out` null: the files then move with what they
    // have, as with a list that could not be collected.
    out.reset(new (std::nothrow) FileSecurity{st.st_mode & 07777, st.st_gid, {}});
    if (out) out->aclValue = ReadAttribute(fd, kAccessAcl);
  }
  ::close(fd);
  ::unlink(probe.c_str());
  return good;
}

bool ApplyDefaultSecurity(const std::string& file, const FileSecurity* security) {
  if (!security) return true;
  int error = 0;
  // Through a descriptor of the file itself: a link put in its place meanwhile is refused, never
  // followed to some other file whose rights would change.
  const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) error = errno;
  // The group first: a change of group may clear the set-id bits that the mode then sets again.
  if (error == 0 && ::fchown(fd, static_cast<uid_t>(-1), security->group) != 0 && errno != EPERM) {
    error = errno;
  }
  if (error == 0 && ::fchmod(fd, security->mode) != 0) error = errno;
  if (error == 0 && !security->aclValue.empty() &&
      ::fsetxattr(fd, kAccessAcl, security->aclValue.data(), security->aclValue.size(), 0) != 0) {
    error = errno;
  }
  if (fd >= 0) ::close(fd);
  if (error != 0) {
    ErrorLog(kSharedFilesLogSource, __LINE__)("First SetNamedSecurityInfo call failed: %u\n",
                                              static_cast<unsigned>(error));
    return false;
  }
  return true;
}

bool CreateFolderForEveryone(const std::string& folder) {
  if (::mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) return false;
  // The mode is set apart from mkdir, which the process's umask would narrow. The sticky bit is a
  // choice for safety over sharing: without it any user may delete or rename any file here, the
  // files of this program (running as root) included, and put a link in their place; with it only
  // a file's owner (or root) may, and the kernel's protection against following other users'
  // links and opening their files in such folders applies. The cost: a program of one user can
  // no longer replace a file that another user made here. Stores keep a file's owner, so a file
  // the measuring application made stays its own.
  if (::chmod(folder.c_str(), 03777) != 0) return false;
  // A file system without access lists keeps only the mode: the folder is still writable by
  // all, though files made in it later get their creator's umask.
  const std::string acl = EveryoneAcl();
  ::setxattr(folder.c_str(), kDefaultAcl, acl.data(), acl.size(), 0);
  return true;
}

void SetFileAccessSink(FileAccessSink* sink) {
  g_sink.store(sink);
}

void ReportFileAccessError(const std::string& path, const std::string& errorText,
                           unsigned openMode) {
  auto info = std::make_shared<FileAccessInfo>();
  info->path = path;
  info->errorText = errorText;
  if (openMode & (kModeWrite | kModeCreate)) {
    std::FILE* file = std::fopen(path.c_str(), "r");
    info->accessKind = file ? 1 : 2;
    if (file) std::fclose(file);
  }
  if (FileAccessSink* sink = g_sink.load()) sink->Report(std::move(info));
}

}  // namespace config
