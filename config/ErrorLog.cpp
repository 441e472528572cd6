#include "config/ErrorLog.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

#include "config/Folders.h"
#include "util/Text.h"
#include "util/WinX.h"

namespace {

constexpr char kMutexName[] = "_Mirava_ErrorLog_Mutex_";
// A log above this size at the first entry of a run becomes error.bak.
constexpr long kRotateAbove = 512000;

// Process-wide state. `g_logPath` is worked out under the log's mutex at the first entry; the
// sink is for tests and tools that catch entries instead of writing the file.
std::mutex g_stateMutex;
std::shared_ptr<WinX::Mutex> g_logMutex;  // only ever an opened one
std::string g_mutexName = kMutexName;
std::string g_logPath;
std::mutex g_sinkMutex;  // held from ErrorLog to the end of the message while a sink is set
std::function<void(const std::string&)> g_sink;

// Per thread: inside the prefix step (so entries the log's own set-up causes are dropped), and
// the entry under way.
thread_local bool t_inErrorLog = false;
thread_local bool t_toSink = false;
thread_local std::FILE* t_logFile = nullptr;
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
    auto opened = std::make_shared<WinX::Mutex>(g_mutexName);
    if (opened->IsValid()) g_logMutex = std::move(opened);
  }
  return g_logMutex;
}

// error.trl in `folder` (the program folder when that is empty). A log grown above the limit
// becomes error.bak first, replacing the old one; failures here go unreported and the log goes
// on where it is.
std::string RotatedLogPath(std::string folder) {
  if (folder.empty()) folder = config::GetProgramFolder();
  const std::string log = folder + "error.trl";
  struct stat st {};
  if (::stat(log.c_str(), &st) == 0 && st.st_size > kRotateAbove) {
    const std::string previous = folder + "error.bak";
    ::unlink(previous.c_str());
    ::rename(log.c_str(), previous.c_str());
  }
  return log;
}

// Opens the log for this entry, unbuffered, with the byte order mark in an empty file. The path
// (and with it the rotation) is worked out once per process.
bool OpenLog() {
  if (t_logFile) return true;
  if (g_logPath.empty()) g_logPath = RotatedLogPath(config::GetConfigFolder(false));
  t_logFile = std::fopen(g_logPath.c_str(), "a+b");
  if (!t_logFile) return false;
  std::setvbuf(t_logFile, nullptr, _IONBF, 0);
  if (std::fseek(t_logFile, 0, SEEK_END) == 0 && std::ftell(t_logFile) == 0) {
    std::fwrite("\xFF\xFE", 1, 2, t_logFile);
  }
  return true;
}

// The entry in UTF-16LE, in one write: a reader never sees part of an entry.
void WriteEntry(const std::string& entry) {
  std::string bytes;
  text::AppendUtf16Le(bytes, text::ToUtf16(entry));
  std::fwrite(bytes.data(), 1, bytes.size(), t_logFile);
}

void WriteLogMessage(const char* format, ...) {
  va_list args;
  va_start(args, format);
  t_entry += text::FormatV(format, args);
  va_end(args);
  if (t_toSink) {
    if (g_sink) g_sink(t_entry);
    t_entry.clear();
    g_sinkMutex.unlock();
    return;
  }
  WriteEntry(t_entry);
  t_entry.clear();
  std::fclose(t_logFile);
  t_logFile = nullptr;
  t_heldMutex->Release();
  t_heldMutex.reset();
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
  const std::uint32_t wait = mutex->Wait(WinX::kInfinite);
  if (wait != WinX::kWaitObject0 && wait != WinX::kWaitAbandoned) return false;
  if (!OpenLog()) {
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
  if (!BeginEntry()) {
    t_inErrorLog = false;
    return SkipLogMessage;
  }
  t_entry =
      errorlog::FormatPrefix(CurrentTime(), TAVRO_PRODUCT_VERSION,
                             static_cast<unsigned long>(::syscall(SYS_gettid)), sourceFile, line);
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
