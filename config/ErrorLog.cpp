#include "config/ErrorLog.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "util/Text.h"

namespace {

std::mutex g_logMutex;  // held from ErrorLog to the end of WriteLogMessage
std::function<void(const std::string&)> g_sink;
thread_local bool t_inErrorLog = false;
thread_local std::string t_entry;

void WriteLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
void SkipLogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

void WriteLogMessage(const char* format, ...) {
  va_list args;
  va_start(args, format);
  t_entry += text::FormatV(format, args);
  va_end(args);
  if (g_sink) {
    g_sink(t_entry);
  } else {
    std::fwrite(t_entry.data(), 1, t_entry.size(), stderr);
    std::fflush(stderr);
  }
  t_entry.clear();
  g_logMutex.unlock();
}

void SkipLogMessage(const char*, ...) {}

std::string CurrentTime() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  if (now == static_cast<std::time_t>(-1) || !localtime_r(&now, &local)) return {};
  return errorlog::FormatTime(local, local.tm_gmtoff / 60);
}

}  // namespace

LogWriter ErrorLog(const char* sourceFile, int line) {
  // An entry begun while this thread is already preparing one (the log's own set-up failing and
  // logging about it) is dropped rather than deadlocking on the lock this thread holds.
  if (t_inErrorLog) return SkipLogMessage;
  t_inErrorLog = true;
  g_logMutex.lock();
  t_entry =
      errorlog::FormatPrefix(CurrentTime(), TAVRO_PRODUCT_VERSION,
                             static_cast<unsigned long>(::syscall(SYS_gettid)), sourceFile, line);
  t_inErrorLog = false;
  return WriteLogMessage;
}

namespace errorlog {

void SetErrorLogSink(std::function<void(const std::string&)> sink) {
  std::lock_guard lock(g_logMutex);
  g_sink = std::move(sink);
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
