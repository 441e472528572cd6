// Temporary folders for tests: made fresh under the temporary directory and removed with
// everything in them at the end.
#pragma once

#include <stdlib.h>
#include <sys/mman.h>

#include <filesystem>
#include <string>

#include "platform/DeviceIo.h"
#include "platform/NamedMutex.h"

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
    RemoveMutexesWithin();
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  // The named mutexes of files in the folder (one per configuration file) outlive the processes
  // that used them, as they must; the folder's end is theirs, or /dev/shm fills up run by run.
  void RemoveMutexesWithin() const {
    const std::string prefix = platform::NamedMutex::ShmName(path_ + "/").substr(1);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", error)) {
      const std::string name = entry.path().filename().string();
      if (name.starts_with(prefix)) ::shm_unlink(("/" + name).c_str());
    }
  }

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
