// The error log: one entry per failure that the user may never see, each a prefix (local time,
// program version, thread, source position) and the caller's message.
//
// A log statement is two calls in one expression:
//     ErrorLog("CTavroUsb.cpp", __LINE__)("USB Error %d - %s\r\n", error, name);
// The first begins the entry and takes the log's lock; it returns the function that writes the
// message and lets go of the lock, so the second call must follow at once, on the same thread,
// with arguments worked out beforehand. An entry that cannot be written is dropped in silence.
//
// Entries go to stderr until the shared log file is set up; SetErrorLogSink redirects them.
#pragma once

#include <ctime>
#include <functional>
#include <string>

typedef void (*LogWriter)(const char* format, ...) __attribute__((format(printf, 1, 2)));

LogWriter ErrorLog(const char* sourceFile, int line);

namespace errorlog {

// Receives each whole entry (prefix and message). An empty function restores stderr.
void SetErrorLogSink(std::function<void(const std::string&)> sink);

// "2026-11-22T20:15:07+05:30", or with an offset of 0 "2026-11-22T20:15:07Z".
std::string FormatTime(const std::tm& local, long offsetMinutes);

// "<time>, v<version>, (0x<thread in upper-case hex>), <source>(<line>): "
std::string FormatPrefix(const std::string& time, const std::string& version,
                         unsigned long threadId, const char* sourceFile, int line);

}  // namespace errorlog
