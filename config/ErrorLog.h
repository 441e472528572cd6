// The error log: one entry per failure that the user may never see, each a prefix (local time,
// program version, thread, source position) and the caller's message.
//
// A log statement is two calls in one expression:
//     ErrorLog("CTavroUsb.cpp", __LINE__)("USB Error %d - %s\r\n", error, name);
// The first begins the entry and takes the log's lock; it returns the function that writes the
// message and lets go of the lock, so the second call must follow at once, on the same thread,
// with arguments worked out beforehand. An entry that cannot be written is dropped in silence.
//
// Entries go to error.trl in the configuration folder (UTF-16LE with its mark), shared with the
// measuring application under the system-wide mutex "_Mirava_ErrorLog_Mutex_". A log above
// 512,000 bytes at the first entry of a run, or that an entry would take past that later, becomes
// error.bak. SetErrorLogSink redirects entries.
//
// Logging never freezes its caller and never throws: an entry whose wait for the mutex runs out
// (250 ms; after one has run out, until the mutex is had again, entries only try it) is dropped,
// as is one that can't be written. Control characters in a message are written as \xNN (the
// closing line end excepted), a message is cut at 4,096 bytes, and the log file is taken only
// when it is a plain file of this user, not a link.
#pragma once

#include <ctime>
#include <functional>
#include <string>

typedef void (*LogWriter)(const char* format, ...) __attribute__((format(printf, 1, 2)));

LogWriter ErrorLog(const char* sourceFile, int line);

namespace errorlog {

// Receives each whole entry (prefix and message) instead of the file. An empty function restores
// the file.
void SetErrorLogSink(std::function<void(const std::string&)> sink);

// For tests: the next entry works the log's path out again (and rotates).
void ForgetLogPath();

// For tests: later entries take the mutex of this name, the system's own for "". The mutex is
// opened anew at the next entry; call it while no entry is under way.
void UseMutexName(const std::string& name);

// "2026-11-22T20:15:07+05:30", or with an offset of 0 "2026-11-22T20:15:07Z".
std::string FormatTime(const std::tm& local, long offsetMinutes);

// "<time>, v<version>, (0x<thread in upper-case hex>), <source>(<line>): "
std::string FormatPrefix(const std::string& time, const std::string& version,
                         unsigned long threadId, const char* sourceFile, int line);

}  // namespace errorlog
