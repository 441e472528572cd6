// Scratch folders and raw file contents for the configuration tests.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace config_test {

// A fresh folder under the temporary directory, removed with everything in it at the end.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tavro-config-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  // The folder, ending in '/'.
  std::string Folder() const { return path_ + "/"; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadBytes(const std::string& path) {
  std::string bytes;
  if (std::FILE* in = std::fopen(path.c_str(), "rb")) {
    char buffer[65536];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0)
      bytes.append(buffer, n);
    std::fclose(in);
  }
  return bytes;
}

inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

// ASCII text as UTF-16LE bytes, with the byte order mark in front when `mark`.
inline std::string Utf16(const std::string& ascii, bool mark = true) {
  std::string out = mark ? std::string("\xFF\xFE", 2) : std::string();
  for (char c : ascii) {
    out += c;
    out += '\0';
  }
  return out;
}

}  // namespace config_test
