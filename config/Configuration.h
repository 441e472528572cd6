// The keyed text store behind every configuration file: UTF-16LE with a byte order mark, made of
// "[Section]" header lines and "Key=Value" lines, shared with the measuring application.
//
// The class does not parse. It reads the whole file once into one text and finds sections and
// keys by scanning that text on every call; edits splice the text. Lines it does not understand
// (comments, blank lines, unknown keys, other programs' sections) survive a store byte for byte,
// and a file is never reformatted.
//
// One object is one file, one lock and one text. From the first OpenSection until its destruction
// the object holds a mutex named after its path, which every process that opens the same path
// waits for; it writes its changes back only when it is destroyed. Keep the object as a local, use
// it on one thread, and never hold two objects on one file in one thread (the later store wins).
//
// Keys, values and section names are UTF-8 here and UTF-16 in the file. Comparisons are exact and
// case-sensitive; values are taken as they stand (a value may hold '=' and blanks at both ends).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace WinX {
class Mutex;
}

class Configuration {
 public:
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;
  // Stores the text if it changed (or if it was recovered from the backup) and lets go of the
  // file's lock.
  virtual ~Configuration();

  // Loads the file on the first call, then positions on `section`. With `create` a missing file
  // is created and a missing section appended. False for an empty name (nothing changes), when
  // the file can't be had, and for a missing section without `create` (no section is open then).
  virtual bool OpenSection(const std::string& section, bool create);
  // The value of the key's first line in the open section. False, leaving `value` alone, when no
  // section is open or the key is missing.
  virtual bool GetValue(const std::string& key, std::string& value);
  // Replaces the value of the key's first line in the open section, or adds a line for the key in
  // front of the section's lines (found only after the next OpenSection). False only when no
  // section is open. The value must not hold a line end.
  virtual bool SetValue(const std::string& key, const std::string& value);
  // The key's value; a missing key gets a line with `defaultValue` as SetValue adds it. Without
  // an open section the default comes back and nothing changes.
  virtual std::string GetValueOrDefault(const std::string& key, const std::string& defaultValue);
  // Removes the whole line of the key's first match with its line end. False when no section is
  // open or the key is missing.
  virtual bool DeleteValue(const std::string& key);

  const std::string& Path() const { return path; }
  // The text differs from the file.
  bool Dirty() const { return dirty; }
  // The file failed the checks at load.
  bool Corrupt() const { return corrupt; }
  // The text as it stands, without mark or terminator (for tests and tools).
  std::u16string Text() const;

  // The name of the mutex that guards `path`: the path with every '\' turned into '/'.
  static std::string MutexName(const std::string& path);

 protected:
  explicit Configuration(bool keepBackup);

  std::string path;  // full path of the file; set by the derived constructor

 private:
  enum class ReadResult { kGood, kCorrupt, kFailed };
  bool Load(bool create);
  bool Lock();
  ReadResult ReadFile(int fd, bool checkFirstUnit);
  void Recover();
  void Store();
  // The position of the value of `key` in the open section, or npos.
  std::size_t FindKey(const std::string& key) const;
  // Replaces `removed` units at `at` with `insertion`.
  void Splice(std::size_t at, std::size_t removed, std::u16string_view insertion);

  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  std::unique_ptr<WinX::Mutex> mutex;  // null until the first load
  std::uint32_t length = 0;            // units of the text, without mark and terminator
  std::unique_ptr<char16_t[]> text;    // terminated by one zero unit; null until loaded
  std::size_t section = npos;          // first unit behind the open section's header line
  bool dirty = false;
  bool corrupt = false;
  const bool keepBackup;
};

// A keyed file at a path of the caller's choosing, such as a file of parameter blocks.
class FileConfiguration : public Configuration {
 public:
  FileConfiguration(const std::string& filePath, bool keepBackupFile)
      : Configuration(keepBackupFile) {
    path = filePath;
  }
};
