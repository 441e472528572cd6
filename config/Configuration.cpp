#include "config/Configuration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>

#include "config/ErrorLog.h"
#include "config/FileAccess.h"
#include "platform/Files.h"
#include "util/Text.h"
#include "util/WinX.h"

namespace {

constexpr char16_t kMark = 0xFEFF;
constexpr char16_t kCr = u'\r';
constexpr char16_t kLf = u'\n';

bool IsLineEnd(char16_t c) {
  return c == kCr || c == kLf;
}

char16_t FromLittleEndian(char16_t unit) {
  if constexpr (std::endian::native == std::endian::big) {
    return static_cast<char16_t>((unit >> 8) | (unit << 8));
  }
  return unit;
}

// Steps over at most one CR and at most one LF, in whichever order they come.
std::size_t StepOverLineEnd(std::u16string_view text, std::size_t at) {
  bool cr = false;
  bool lf = false;
  while (at < text.size()) {
    if (text[at] == kCr && !cr) {
      cr = true;
    } else if (text[at] == kLf && !lf) {
      lf = true;
    } else {
      break;
    }
    ++at;
  }
  return at;
}

// Reads up to `bytes` bytes into `out`; false on a read error.
bool ReadAll(int fd, void* out, std::size_t bytes) {
  auto* p = static_cast<char*>(out);
  while (bytes > 0) {
    const ssize_t n = ::read(fd, p, bytes);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;  // the file shrank under us: the rest stays zero
    p += n;
    bytes -= static_cast<std::size_t>(n);
  }
  return true;
}

bool WriteAll(int fd, const void* data, std::size_t bytes) {
  const auto* p = static_cast<const char*>(data);
  while (bytes > 0) {
    const ssize_t n = ::write(fd, p, bytes);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    bytes -= static_cast<std::size_t>(n);
  }
  return true;
}

// Opens for reading with the sequential-scan hint. Linux has no share modes: writers of these
// files are kept out by the file's mutex, and every writer replaces the file in one step, so a
// reader never sees a half-written one. The files lie in a folder every user may write, so a link
// is not followed (a create through a dangling one would make a file wherever it points), and
// only a plain file is read (a pipe would block the reader for good).
int OpenForReading(const std::string& path, bool create) {
  // An existing file is opened without O_CREAT: in a sticky folder the kernel may refuse a create
  // mode open of another user's file, even to root.
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int fd = ::open(path.c_str(), kFlags);
  if (fd < 0 && errno == ENOENT && create) {
    fd = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0666);
    if (fd < 0 && errno == EEXIST) fd = ::open(path.c_str(), kFlags);
  }
  if (fd < 0) return fd;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    errno = EINVAL;
    return -1;
  }
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return fd;
}

// A file larger than this is taken for corrupt without being read: no configuration file comes
// near it, and reading one whole would take memory without bound.
constexpr std::uint64_t kMaxFileBytes = 64ull << 20;

// The file's size in bytes plus one, halved: an odd byte count asks for one byte more than the
// file has, and that byte reads as zero. Null for a file above kMaxFileBytes.
std::optional<std::uint32_t> UnitsOf(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || st.st_size < 0) return 0;
  if (static_cast<std::uint64_t>(st.st_size) > kMaxFileBytes) return std::nullopt;
  return static_cast<std::uint32_t>((static_cast<std::uint64_t>(st.st_size) + 1) / 2);
}

// How long a file's lock is waited for. Another program holds it only while it reads or stores
// the file; one that holds it longer is stuck or hostile, and the file is then one that can't be
// had, rather than the thread that wanted it (often one that serves the window) freezing.
constexpr std::uint32_t kLockWaitMs = 2000;

// A file's lock is as open as its folder: where other users may write (the shared data folder)
// they can change the file anyway and the measuring application must take the same lock; where
// only this user writes, only this user's programs get the lock.
// The stored file keeps the owner, group and mode of the one it replaces, so that the measuring
// application's user can still write a file that this program stored. As far as the rights
// allow: a user that isn't root keeps its own ownership.
void CarryOverOwnerAndMode(const std::string& path, int fd) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
  // The owner first: a change of owner may clear mode bits. Set-id bits are not carried over.
  (void)!::fchown(fd, st.st_uid, st.st_gid);
  (void)!::fchmod(fd, st.st_mode & 0777);
}

bool FolderWritableByOthers(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  struct stat st {};
  return ::stat(folder.c_str(), &st) == 0 && (st.st_mode & 022) != 0;
}

}  // namespace

Configuration::Configuration(bool keepBackupFile) : keepBackup(keepBackupFile) {}

Configuration::~Configuration() {
  Store();
  text.reset();
  if (mutex) {
    mutex->Release();
    mutex.reset();
  }
}

std::string Configuration::MutexName(const std::string& filePath) {
  std::string name = filePath;
  std::replace(name.begin(), name.end(), '\\', '/');
  return name;
}

std::u16string Configuration::Text() const {
  return text ? std::u16string(text.get(), length) : std::u16string();
}

bool Configuration::Lock() {
  if (mutex) return true;
  auto candidate = std::make_unique<WinX::Mutex>(MutexName(path), FolderWritableByOthers(path));
  const std::uint32_t wait = candidate->Wait(kLockWaitMs);
  // An owner that died left the mutex abandoned; the file it guarded is still whole, since every
  // store replaces the file in one step, so the lock is taken and the work goes on.
  if (wait != WinX::kWaitObject0 && wait != WinX::kWaitAbandoned) return false;
  mutex = std::move(candidate);
  return true;
}

// Reads an open file: `length` from its size, the mark, then the text. A first unit that is not
// the mark, or (with `checkFirstUnit`, for a main file) a text that begins with a zero unit, makes
// the file corrupt. kFailed is a read error after a good open.
Configuration::ReadResult Configuration::ReadFile(int fd, bool checkFirstUnit) {
  const std::optional<std::uint32_t> units = UnitsOf(fd);
  if (!units) {
    length = 0;
    return ReadResult::kCorrupt;
  }
  length = *units;
  if (length >= 1) {
    char16_t first = 0;
    if (!ReadAll(fd, &first, std::min<std::size_t>(2, std::size_t{length} * 2))) {
      length = 0;
      return ReadResult::kFailed;
    }
    --length;
    if (FromLittleEndian(first) != kMark) {
      length = 0;
      return ReadResult::kCorrupt;
    }
  }
  // Zero-filled. Short of memory the file is one that can't be read, not an exception.
  text.reset(new (std::nothrow) char16_t[std::size_t{length} + 1]());
  if (!text || !ReadAll(fd, text.get(), std::size_t{length} * 2)) {
    text.reset();
    length = 0;
    return ReadResult::kFailed;
  }
  for (std::uint32_t i = 0; i < length; ++i)
    text[i] = FromLittleEndian(text[i]);
  if (checkFirstUnit && length != 0 && text[0] == 0) {
    text.reset();
    length = 0;
    return ReadResult::kCorrupt;
  }
  return ReadResult::kGood;
}

void Configuration::Recover() {
  const std::string corruptName = path + ".corrupt";
  const std::string backupName = path + ".backup";
  ErrorLog("Configuration.cpp", __LINE__)("%s is corrupt and will be renamed as %s\r\n",
                                          path.c_str(), corruptName.c_str());
  length = 0;
  const int fd = OpenForReading(backupName, false);
  if (fd >= 0) {
    ErrorLog("Configuration.cpp", __LINE__)("Using %s\r\n", backupName.c_str());
    const ReadResult read = ReadFile(fd, false);
    ::close(fd);
    if (read == ReadResult::kCorrupt) {
      ErrorLog("Configuration.cpp", __LINE__)("%s is corrupt and will be deleted\r\n",
                                              backupName.c_str());
      ::unlink(backupName.c_str());
    }
  }
  // The object goes on with the backup's text, or with an empty one; `corrupt` stays set so
  // that the store moves the bad file aside as ".corrupt".
  if (!text) {
    length = 0;
    text = std::make_unique<char16_t[]>(1);
  }
}

bool Configuration::Load(bool create) {
  if (path.empty() || corrupt) return false;
  if (!Lock()) return false;
  const int fd = OpenForReading(path, create);
  if (fd < 0) {
    if (create) {
      const std::string reason = std::strerror(errno);
      config::ReportFileAccessError(path, reason,
                                    config::kModeRead | config::kShareDenyWrite |
                                        config::kOsSequentialScan | config::kModeCreate |
                                        config::kModeNoTruncate);
      ErrorLog("Configuration.cpp", __LINE__)("Failed to open or create file for reading: %s\r\n",
                                              path.c_str());
    }
    return false;
  }
  const ReadResult read = ReadFile(fd, true);
  ::close(fd);
  // A read that fails after a good open says nothing about the content: the object stays without
  // text, as after a failed open, rather than taking a good file for a corrupt one.
  if (read == ReadResult::kFailed) return false;
  if (read == ReadResult::kCorrupt) {
    corrupt = true;
    if (!keepBackup) {
      ErrorLog("Configuration.cpp", __LINE__)("%s is corrupt\r\n", path.c_str());
      return false;
    }
    Recover();
  }
  return true;
}

bool Configuration::OpenSection(const std::string& name, bool create) {
  if (name.empty()) return false;
  if (!text && !Load(create)) return false;

  // Built by appending: g++ 12 warns falsely (-Wrestrict) on "literal + temporary" when optimising.
  std::u16string header(1, u'[');
  header += text::ToUtf16(name);
  header += u']';
  const std::u16string_view all(text.get(), length);
  for (std::size_t hit = all.find(header); hit != std::u16string_view::npos;
       hit = all.find(header, hit + 1)) {
    std::size_t before = hit;
    while (before > 0 && (all[before - 1] == u' ' || all[before - 1] == u'\t'))
      --before;
    if (before != 0 && !IsLineEnd(all[before - 1])) continue;
    std::size_t at = hit + header.size();
    while (at < length && !IsLineEnd(all[at]))
      ++at;
    section = StepOverLineEnd(all, at);
    return true;
  }
  section = npos;
  if (!create) return false;
  section = length;
  Splice(length, 0, u"\r\n" + header + u"\r\n");
  return true;
}

std::size_t Configuration::FindKey(const std::string& key) const {
  if (key.empty() || section == npos || !text) return npos;
  const std::u16string wide = text::ToUtf16(key);
  const char16_t* t = text.get();
  std::size_t at = section;
  while (at < length) {
    if (IsLineEnd(t[at])) ++at;
    if (t[at] == u'[') return npos;
    std::size_t i = 0;
    while (i < wide.size() && t[at + i] == wide[i])
      ++i;
    if (i == wide.size() && t[at + i] == u'=') {
      at += i + 1;
      break;
    }
    while (at < length && !IsLineEnd(t[at]))
      ++at;
  }
  return at < length ? at : npos;
}

bool Configuration::GetValue(const std::string& key, std::string& value) {
  const std::size_t at = FindKey(key);
  if (at == npos) return false;
  std::size_t end = at;
  while (end < length && !IsLineEnd(text[end]))
    ++end;
  value = text::ToUtf8(std::u16string(text.get() + at, end - at));
  return true;
}

bool Configuration::SetValue(const std::string& key, const std::string& value) {
  if (section == npos || !text) return false;
  const std::size_t at = FindKey(key);
  const std::u16string wide = text::ToUtf16(value);
  if (at == npos) {
    Splice(section, 0, text::ToUtf16(key) + u"=" + wide + u"\r\n");
    return true;
  }
  std::size_t end = at;
  while (end < length && !IsLineEnd(text[end]))
    ++end;
  if (std::u16string_view(text.get() + at, end - at) == wide) return true;
  Splice(at, end - at, wide);
  return true;
}

std::string Configuration::GetValueOrDefault(const std::string& key,
                                             const std::string& defaultValue) {
  std::string value;
  if (GetValue(key, value)) return value;
  SetValue(key, defaultValue);
  return defaultValue;
}

bool Configuration::DeleteValue(const std::string& key) {
  const std::size_t at = FindKey(key);
  if (at == npos) return false;
  char16_t* t = text.get();
  std::size_t end = at;
  while (end < length && !IsLineEnd(t[end]))
    ++end;
  end = StepOverLineEnd(std::u16string_view(t, length), end);
  std::size_t start = at;
  while (start > section && !IsLineEnd(t[start - 1]))
    --start;
  Splice(start, end - start, {});
  return true;
}

void Configuration::Splice(std::size_t at, std::size_t removed, std::u16string_view insertion) {
  const std::size_t newLength = length - removed + insertion.size();
  auto spliced = std::make_unique<char16_t[]>(newLength + 1);  // zero-filled: the terminator
  if (text) {
    std::copy_n(text.get(), at, spliced.get());
    std::copy(text.get() + at + removed, text.get() + length,
              spliced.get() + at + insertion.size());
  }
  std::copy(insertion.begin(), insertion.end(), spliced.get() + at);
  // The open section moves with the text behind the splice. A splice at its very start (a key
  // inserted in front of its lines) moves it too, so the new line is found after the next
  // OpenSection only.
  if (section != npos && section >= at + removed) section = section - removed + insertion.size();
  text = std::move(spliced);
  length = static_cast<std::uint32_t>(newLength);
  dirty = true;
}

void Configuration::Store() {
  if (!text || !(dirty || (corrupt && keepBackup))) return;
  const std::string temporary = path + ".tmp";
  // Any user may have put something at the temporary's name: it goes, and the temporary is made
  // new (should another user's file come back meanwhile, the create fails and nothing is written).
  ::unlink(temporary.c_str());
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) {
    const std::string reason = std::strerror(errno);
    config::ReportFileAccessError(temporary, reason,
                                  config::kModeWrite | config::kModeCreate |
                                      config::kShareDenyWrite | config::kOsSequentialScan);
    ErrorLog("Configuration.cpp", __LINE__)("Failure to store configuration to %s\r\n",
                                            path.c_str());
    return;
  }
  std::string bytes;
  bytes.reserve((std::size_t{length} + 1) * 2);
  if (length >= 1) text::AppendUtf16Le(bytes, std::u16string_view(&kMark, 1));
  text::AppendUtf16Le(bytes, std::u16string_view(text.get(), length));
  // The new file must be whole on the disk before it takes the old one's place; a write that
  // fails leaves the old file as it is and the change is lost, with the same log line as a
  // temporary file that can't be made.
  bool good = WriteAll(fd, bytes.data(), bytes.size());
  CarryOverOwnerAndMode(path, fd);
  good = ::fsync(fd) == 0 && good;
  good = ::close(fd) == 0 && good;
  if (!good) {
    ::unlink(temporary.c_str());
    ErrorLog("Configuration.cpp", __LINE__)("Failure to store configuration to %s\r\n",
                                            path.c_str());
    return;
  }
  std::string backup;
  if (keepBackup) backup = path + (corrupt ? ".corrupt" : ".backup");
  if (!platform::ReplaceFile(path, temporary, backup)) {
    ::unlink(temporary.c_str());
    ErrorLog("Configuration.cpp", __LINE__)("Failure to store configuration to %s\r\n",
                                            path.c_str());
  }
}
