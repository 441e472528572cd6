// Temporary folders for tests: made fresh under the temporary directory and removed with
// everything in them at the end.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "platform/DeviceIo.h"

namespace testing_support {

class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tavro-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A scratch folder that is the device directory for its lifetime.
class TempDeviceDir {
 public:
  TempDeviceDir() { platform::SetDeviceDirectory(dir_.Path()); }
  ~TempDeviceDir() { platform::SetDeviceDirectory(""); }
  TempDeviceDir(const TempDeviceDir&) = delete;
  TempDeviceDir& operator=(const TempDeviceDir&) = delete;

  const std::string& Path() const { return dir_.Path(); }
  std::string Class1(unsigned index) const { return Entry(platform::kInterfaceClass1, index); }
  std::string Class2(unsigned index) const { return Entry(platform::kInterfaceClass2, index); }
  std::string Name(const char* name) const { return dir_ / name; }

 private:
  std::string Entry(const char* interfaceClass, unsigned index) const {
    return dir_ / interfaceClass + "/" + std::to_string(index);
  }

  ScratchDir dir_;
};

}  // namespace testing_support
