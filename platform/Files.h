// File services the configuration layer needs of the system: putting one file in the place of
// another in one step, and the folders the program is installed in and keeps shared data in.
#pragma once

#include <string>

namespace platform {

// Puts `replacement` in the place of `replaced` in one step: a reader of `replaced` sees the old
// file or the new one, whole, whatever happens meanwhile (a killed process included). With a
// non-empty `backup` the old file stays behind under that name, replacing any file there. A
// missing `replaced` is no failure: `replacement` just takes its name. False (with errno) when
// the backup could not be made or the new file could not take the place; the old one is then
// still there.
bool ReplaceFile(const std::string& replaced, const std::string& replacement,
                 const std::string& backup);

// The folder of the running program's file, ending in '/'.
std::string ProgramFolder();
// For tests: another folder stands for the program's; "" restores the real one.
void SetProgramFolder(const std::string& folder);

// The base of the shared data folders ("/var/lib/" unless SetCommonDataBase changed it), ending
// in '/'.
std::string CommonDataBase();
// For tests and relocated installations: "" restores the system's base.
void SetCommonDataBase(const std::string& base);

// Copies the bytes of the plain file `source` to a new file `destination` (whatever was there is
// removed first); neither is followed when it is a link. On failure nothing is left at
// `destination` that this call wrote.
bool CopyFile(const std::string& source, const std::string& destination);

// Whether `path` names an existing directory.
bool IsDirectory(const std::string& path);
bool FileExists(const std::string& path);

}  // namespace platform
