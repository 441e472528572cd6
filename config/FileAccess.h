// Access to files in the shared folders: giving moved files the rights a new file of their folder
// would get, and telling the user which files could not be opened.
#pragma once

#include <memory>
#include <string>

namespace config {

// The source name of the log entries about files of the shared folders (their rights, the data
// move). The code that writes them is common to TavroTest and the measuring application, and its
// entries carry the one name in the log both programs share, whichever of them wrote the entry.
inline constexpr char kSharedFilesLogSource[] = "mrcommon.cpp";

// Open modes of a file, as bits; ReportFileAccessError looks at the write and create bits.
inline constexpr unsigned kModeRead = 0x0000;
inline constexpr unsigned kModeWrite = 0x0001;
inline constexpr unsigned kShareDenyWrite = 0x0020;
inline constexpr unsigned kModeCreate = 0x1000;
inline constexpr unsigned kModeNoTruncate = 0x2000;
inline constexpr unsigned kOsSequentialScan = 0x10000;

// What a new file in a folder gets: its permission bits, its group, and the folder's default
// access list where the file system has one. Linux files have no single "access list" object;
// this record is the stand-in of one, with the same life: collected from a probe file, applied
// to moved files.
struct FileSecurity {
  unsigned mode = 0;     // permission bits (07777)
  unsigned group = 0;    // owning group id
  std::string aclValue;  // the probe's "system.posix_acl_access" attribute; empty when none
};

// Finds what a new file in `folder` (ending in '/') gets, by creating the probe "_tmp.ini" there,
// writing "Temp" to it in UTF-16 and reading its rights. True on success, with `out` set (null if
// memory failed); false when the probe can't be made or read. The probe never stays behind.
bool CollectDefaultSecurity(const std::string& folder, std::unique_ptr<FileSecurity>& out);

// Sets the rights on `file`. A null `security` changes nothing and succeeds. False, with a log
// line carrying the error number, when the rights can't be set.
bool ApplyDefaultSecurity(const std::string& file, const FileSecurity* security);

// Makes `folder` (and everything later created in it) writable by every user: mode 0777 with the
// sticky bit on (only a file's owner may delete or rename it; see FileAccess.cpp for why), the
// group's set-group bit on so new files share the group, and a default access
// list granting everyone full rights where the file system takes one. The stand-in for a folder
// created with security attributes that give Everyone full control, inherited. False when the
// folder can't be created or its mode set.
bool CreateFolderForEveryone(const std::string& folder);

// One failure to open a file. Two are the same when path + errorText are equal; accessKind takes
// no part in that.
struct FileAccessInfo {
  std::string path;
  std::string errorText;  // the system's explanation
  int accessKind = 0;     // 0: read only; 1: write or create, readable; 2: neither
};

// Where failures go: the process's collector registers itself here (see FileAccessWarnings).
class FileAccessSink {
 public:
  virtual ~FileAccessSink() = default;
  virtual void Report(std::shared_ptr<FileAccessInfo> info) = 0;
};
// Null detaches. Without a sink, failures are not shown.
void SetFileAccessSink(FileAccessSink* sink);

// A failed open of `path` with `openMode` (the bits above) and the system's `errorText`: works out
// the access kind (with the write or create bit: can the file at least be read?) and hands the
// failure to the sink.
void ReportFileAccessError(const std::string& path, const std::string& errorText,
                           unsigned openMode);

}  // namespace config
