// A scratch installation: a program folder and a base for the shared data folders, with the
// process's remembered folder results forgotten before and after each test.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "config/ErrorLog.h"
#include "config/Folders.h"
#include "platform/Files.h"
#include "tests/config/ConfigFiles.h"

namespace config_test {

class FolderFixture : public testing::Test {
 protected:
  FolderFixture() {
    ::mkdir((dir / "program").c_str(), 0777);
    ::mkdir((dir / "base").c_str(), 0777);
    platform::SetProgramFolder(Program());
    platform::SetCommonDataBase(dir / "base");
    Forget();
  }
  ~FolderFixture() override {
    Forget();
    platform::SetProgramFolder("");
    platform::SetCommonDataBase("");
  }
  static void Forget() {
    config::ForgetFolderMemories();
    errorlog::ForgetLogPath();
  }

  std::string Program() const { return dir / "program/"; }
  std::string Common() const { return dir / "base/Halvern Corporation/Mirava for Windows/"; }
  // Writes a keyed file of ASCII text.
  static void Ini(const std::string& path, const std::string& ascii) {
    WriteBytes(path, Utf16(ascii));
  }
  // Redirects the configuration folder to a new folder `name` of the scratch tree.
  std::string Redirect(const std::string& name) {
    const std::string folder = dir / name;
    ::mkdir(folder.c_str(), 0777);
    Ini(Program() + "Folders.ini", "[Setup]\r\nConfigFolder=" + folder + "\r\n");
    return folder + "/";
  }

  ScratchDir dir;
};

}  // namespace config_test
