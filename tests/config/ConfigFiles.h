// Scratch folders and raw file contents for the configuration tests.
#pragma once

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/TempDirs.h"

namespace config_test {

using testing_support::ScratchDir;

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
