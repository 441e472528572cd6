// The stand-in for finding another program's top-level window by its class (FindWindowW with a
// class name and no title). A program that "has a window" of a class holds an exclusive lock on
// the file <window directory>/<class>; a probe asks whether such a lock is held, without taking
// one, so probing never stands in the way of a holder that opens at the same moment. The lock
// goes with its holder, so a program that died leaves no window behind, and in-process holders
// (the simulator posing as the measuring application in a test) count like other processes.
//
// The window directory is $TAVRO_WINDOW_DIR, else the folder ".windows" in the device directory,
// so that a tavrotest and the tavrosim it runs against, or one test's pair, see the same windows.
// A window's file is a plain file that every user may read and only its holder's user may write
// (0644): holding takes a descriptor open for writing, so no other user can pose as the holder.
// Probe and holder open it without waiting and without following a link, and take anything but a
// plain file (a FIFO planted there, a link) for no window.
#pragma once

#include <functional>
#include <string>

namespace platform {

std::string WindowDirectory();

// True while some holder has a window of `windowClass`.
bool FindWindowOfClass(const std::string& windowClass);

// Replaces the probe (tests); null restores the lock files.
void SetWindowProbe(std::function<bool(const std::string&)> probe);

// Holds a window of `windowClass` for its lifetime. Open() is false when the file cannot be made or
// another holder has the class already.
class WindowOfClass {
 public:
  // The window is held in `directory`, WindowDirectory() when empty.
  explicit WindowOfClass(std::string windowClass, std::string directory = {})
      : class_(std::move(windowClass)), directory_(std::move(directory)) {}
  ~WindowOfClass() { Close(); }
  WindowOfClass(const WindowOfClass&) = delete;
  WindowOfClass& operator=(const WindowOfClass&) = delete;

  bool Open();
  void Close();
  bool IsOpen() const { return fd_ >= 0; }

 private:
  std::string class_;
  std::string directory_;
  int fd_ = -1;
};

}  // namespace platform
