// Scratch folders and raw file contents for the configuration tests.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
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

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string ReadBytes(const std::string& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

// ASCII text as UTF-16LE bytes behind the byte order mark.
inline std::string Utf16(const std::string& ascii) {
  std::string out("\xFF\xFE", 2);
  for (char c : ascii) {
    out += c;
    out += '\0';
  }
  return out;
}

}  // namespace config_test
