#include "config/ErrorLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

#include "config/Folders.h"
#include "util/Text.h"
#include "util/WinX.h"

namespace {

constexpr char kMutexName[] = "_Mirava_ErrorLog_Mutex_";
// How long an entry waits for the log's mutex before it is dropped. Both programs hold it for one
// short write; a holder past this is stuck or hostile. The mutex is open to every user (the
// measuring application writes the same log), so any of them can hold it: losing an entry then is
// the price of never freezing the thread that logs, which may be one that serves the window.
constexpr std::uint32_t kMutexWaitMs = 250;
// A log above this size at the first entry of a run becomes error.bak, and so does a log that an
// entry would take past it later in the run: the two files together stay near a megabyte however
// much a run logs.
constexpr long kRotateAbove = 512000;
// A message is cut to this many bytes: text from outside (an id, a path) can be of any length.
constexpr std::size_t kMaxMessage = 4096;

// Process-wide state. `g_logPath` is worked out under the log's mutex at the first entry; the
// sink is for tests and tools that catch entries instead of writing the file.
std::mutex g_stateMutex;
std::shared_ptr<WinX::Mutex> g_logMutex;  // only ever an opened one
std::string g_mutexName = kMutexName;
std::string g_logPath;
// Set when an entry's wait ran out: until an entry gets the mutex again, entries only try it
// once, so that a held mutex costs one wait and not one per entry.
std::atomic<bool> g_mutexStuck{false};
std::mutex g_sinkMutex;  // held from ErrorLog to the end of the message while a sink is set
std::function<void(const std::string&)> g_sink;

// Per thread: inside the prefix step (so entries the log's own set-up causes are dropped), and
// the entry under way.
thread_local bool t_inErrorLog = false;
thread_local bool t_toSink = false;
thread_local int t_logFile = -1;
thread_local std::string t_entry;
thread_local std::shared_ptr<WinX::Mutex> t_heldMutex;  // from the prefix to the message's end

void WriteLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void SkipLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The log's mutex, opened at the first entry that needs it; null when it can't be opened. A
// failed open is not kept: that entry is dropped and the next one opens the mutex again, so that
// a passing failure (shared memory short for a moment) does not silence the log for good.
std::shared_ptr<WinX::Mutex> LogMutex() {
  std::lock_guard lock(g_stateMutex);
  if (!g_logMutex) {
    auto opened = std::make_shared<WinX::Mutex>(g_mutexName, true);
    if (opened->IsValid()) g_logMutex = std::move(opened);
  }
  return g_logMutex;
}

// Moves a log that is above the limit aside as error.bak, replacing the old one. Renames neither
// follow nor mind links; failures leave the log where it is.
void Rotate(const std::string& log) {
  const std::string previous = log.substr(0, log.size() - 3) + "bak";
  ::unlink(previous.c_str());
  ::rename(log.c_str(), previous.c_str());
}

// error.trl in `folder` (the program folder when that is empty). A log grown above the limit
// becomes error.bak first; failures here go unreported and the log goes on where it is.
std::string RotatedLogPath(std::string folder) {
  if (folder.empty()) folder = config::GetProgramFolder();
  const std::string log = folder + "error.trl";
  struct stat st {};
  if (::lstat(log.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > kRotateAbove) {
    Rotate(log);
  }
  return log;
}

// Opens the log for appending, with the byte order mark in an empty file. The log lies in a
// folder every user may write, so only a plain file of this user with no other name is taken: a
// link, or a file another user made or linked there, could point the appends anywhere.
bool OpenLogFile() {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int fd = ::open(g_logPath.c_str(), kFlags);
  if (fd < 0 && errno == ENOENT) fd = ::open(g_logPath.c_str(), kFlags | O_CREAT | O_EXCL, 0666);
  if (fd < 0) return false;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid() ||
      st.st_nlink != 1) {
    ::close(fd);
    return false;
  }
  if (st.st_size == 0 && ::write(fd, "\xFF\xFE", 2) != 2) {
    ::close(fd);
    return false;
  }
  t_logFile = fd;
  return true;
}

// Opens the log for this entry. The path (and with it the first rotation) is worked out once per
// process.
bool OpenLog() {
  if (t_logFile >= 0) return true;
  if (g_logPath.empty()) g_logPath = RotatedLogPath(config::GetConfigFolder(false));
  return OpenLogFile();
}

void CloseLog() {
  if (t_logFile >= 0) ::close(t_logFile);
  t_logFile = -1;
}

// Control characters in the message are written as \xNN, so that text from outside cannot end
// a line and make up entries of its own. The line end that closes the message stays.
std::string Escaped(std::string message) {
  if (message.size() > kMaxMessage) {
    std::size_t cut = kMaxMessage;
    while (cut > 0 && (static_cast<unsigned char>(message[cut]) & 0xC0) == 0x80)
      --cut;  // never inside a UTF-8 sequence
    message.resize(cut);
    message += "...\r\n";
  }
  std::size_t end = message.size();
  while (end > 0 && (message[end - 1] == '\r' || message[end - 1] == '\n'))
    --end;
  std::string out;
  out.reserve(message.size());
  for (std::size_t i = 0; i < end; ++i) {
    const unsigned char c = static_cast<unsigned char>(message[i]);
    if ((c < 0x20 && c != '\t') || c == 0x7F) {
      out += text::Format("\\x%02X", c);
    } else {
      out += static_cast<char>(c);
    }
  }
  out.append(message, end, std::string::npos);
  return out;
}

// The entry in UTF-16LE, in one write: a reader never sees part of an entry. A log that the entry
// would take past the limit becomes error.bak first and the entry begins a new one.
void WriteEntry(const std::string& entry) {
  std::string bytes;
  text::AppendUtf16Le(bytes, text::ToUtf16(entry));
  struct stat st {};
  if (::fstat(t_logFile, &st) == 0 && st.st_size > 2 &&
      st.st_size + static_cast<off_t>(bytes.size()) > kRotateAbove) {
    CloseLog();
    Rotate(g_logPath);
    if (!OpenLogFile()) return;
  }
  (void)!::write(t_logFile, bytes.data(), bytes.size());
}

// Ends the entry under way: hands it over and lets go of the log. Nothing may escape from here:
// the entry is dropped instead, and the locks are let go all the same.
void FinishEntry(const std::string& message) {
  try {
    if (!t_entry.empty()) {
      t_entry += Escaped(message);
      if (!t_toSink) {
        WriteEntry(t_entry);
      } else if (g_sink) {
        g_sink(t_entry);
      }
    }
  } catch (...) {
  }
  t_entry.clear();
  t_entry.shrink_to_fit();
  if (t_toSink) {
    g_sinkMutex.unlock();
    return;
  }
  CloseLog();
  t_heldMutex->Release();
  t_heldMutex.reset();
}

void WriteLogMessage(const char* format, ...) {
  std::string message;
  try {
    va_list args;
    va_start(args, format);
    message = text::FormatV(format, args);
    va_end(args);
  } catch (...) {
  }
  FinishEntry(message);
}

void SkipLogMessage(const char*, ...) {}

std::string CurrentTime() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::tzset();  // the zone is read anew, so a changed TZ takes effect at the next entry
  if (now == static_cast<std::time_t>(-1) || !localtime_r(&now, &local)) return {};
  return errorlog::FormatTime(local, (local.tm_isdst > 0 ? 60 : 0) - ::timezone / 60);
}

// Takes the log for one entry: the sink's lock, or the shared mutex and the open file.
bool BeginEntry() {
  g_sinkMutex.lock();
  t_toSink = static_cast<bool>(g_sink);
  if (t_toSink) return true;
  g_sinkMutex.unlock();
  std::shared_ptr<WinX::Mutex> mutex = LogMutex();
  if (!mutex) return false;
  // An owner that died left the mutex abandoned; entries are whole writes, so the log is fine
  // and the lock is taken.
  const std::uint32_t wait = mutex->Wait(g_mutexStuck.load() ? 0 : kMutexWaitMs);
  g_mutexStuck.store(wait == WinX::kWaitTimeout);
  if (wait != WinX::kWaitObject0 && wait != WinX::kWaitAbandoned) return false;
  bool opened = false;
  try {
    opened = OpenLog();
  } catch (...) {
    // Out of memory in the folder lookup: the entry goes, the mutex is let go below.
  }
  if (!opened) {
    mutex->Release();
    return false;
  }
  t_heldMutex = std::move(mutex);
  return true;
}

}  // namespace

LogWriter ErrorLog(const char* sourceFile, int line) {
  // An entry begun while this thread is already preparing one (the log's own set-up failing and
  // logging about it) is dropped rather than waiting on itself.
  if (t_inErrorLog) return SkipLogMessage;
  t_inErrorLog = true;
  bool begun = false;
  try {
    begun = BeginEntry();
  } catch (...) {
    // Out of memory before the log's mutex was taken: nothing is held.
  }
  if (!begun) {
    t_inErrorLog = false;
    return SkipLogMessage;
  }
  try {
    t_entry =
        errorlog::FormatPrefix(CurrentTime(), TAVRO_PRODUCT_VERSION,
                               static_cast<unsigned long>(::syscall(SYS_gettid)), sourceFile, line);
  } catch (...) {
    t_entry.clear();
    FinishEntry({});  // lets go of the log; nothing is written for an empty entry
    t_inErrorLog = false;
    return SkipLogMessage;
  }
  t_inErrorLog = false;
  return WriteLogMessage;
}

namespace errorlog {

void SetErrorLogSink(std::function<void(const std::string&)> sink) {
  std::lock_guard lock(g_sinkMutex);
  g_sink = std::move(sink);
}

void ForgetLogPath() {
  std::lock_guard lock(g_stateMutex);
  g_logPath.clear();
}

void UseMutexName(const std::string& name) {
  std::lock_guard lock(g_stateMutex);
  g_mutexName = name.empty() ? kMutexName : name;
  g_logMutex.reset();
  g_mutexStuck.store(false);
}

std::string FormatTime(const std::tm& t, long offsetMinutes) {
  if (offsetMinutes == 0) {
    return text::Format("%.2d-%.2d-%.2dT%.2d:%.2d:%.2dZ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                        t.tm_hour, t.tm_min, t.tm_sec);
  }
  const long magnitude = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
  return text::Format("%.2d-%.2d-%.2dT%.2d:%.2d:%.2d%c%.2d:%.2d", t.tm_year + 1900, t.tm_mon + 1,
                      t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, offsetMinutes < 0 ? '-' : '+',
                      static_cast<int>(magnitude / 60), static_cast<int>(magnitude % 60));
}

std::string FormatPrefix(const std::string& time, const std::string& version,
                         unsigned long threadId, const char* sourceFile, int line) {
  return text::Format("%s, v%s, (0x%lX), %s(%d): ", time.c_str(), version.c_str(), threadId,
                      sourceFile, line);
}

}  // namespace errorlog
