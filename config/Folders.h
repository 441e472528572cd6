// The folders the system shares with the measuring application, the configuration files in them,
// and the one-time move of data that older installations kept beside the program.
//
// Folder strings end in '/'. The program folder holds Folders.ini; the common data folder is
// "<base>Halvern Corporation/Mirava for Windows/" (base /var/lib/, see platform/Files.h); the
// configuration folder is the one Folders.ini names as ConfigFolder, else the common data folder;
// the machine folder is the configuration folder + Hardware.ini's SubDirectory.
//
// Three results are worked out once per process and never again: the folder override, the data
// move being over (only once it succeeded or was not needed), and the monitor override.
#pragma once

#include <string>

#include "config/Configuration.h"

// Folders.ini in the program folder; no backup.
class FolderConfiguration : public Configuration {
 public:
  FolderConfiguration();
};

// Hardware.ini in the configuration folder, with a backup.
class HardwareConfiguration : public Configuration {
 public:
  HardwareConfiguration();
};

// Machine.ini in the machine folder, with a backup. With `allowProgramFolder`, a Machine.ini left
// in the program folder is used as long as the machine folder has none.
class MachineConfiguration : public Configuration {
 public:
  explicit MachineConfiguration(bool allowProgramFolder);
};

// Mirava.ini in the configuration folder, with a backup, found as MachineConfiguration finds its
// file. Making one runs the data move first (its result is not looked at).
class MiravaConfig : public Configuration {
 public:
  explicit MiravaConfig(bool allowProgramFolder);
};

namespace config {

std::string GetProgramFolder();
// With `create` the folders are made where missing, the second writable by every user. Empty
// when the system can't say where the base is.
std::string GetCommonDataFolder(bool create);
// `create` passes to GetCommonDataFolder; a folder named in Folders.ini exists already.
std::string GetConfigFolder(bool create);
// Hardware.ini's [Machine] SubDirectory, read anew on every call; empty when there is none, and
// when it is no plain folder name (it holds a separator, "..", or a control character).
std::string GetMachineSubDirectory();
std::string GetMachineFolder();

// Moves older data from the program folder into the shared folders, once per process. False if a
// file failed to move; the next call then tries again.
bool MoveDataFiles();

// Mirava.ini's [Monitor] Override X and Override Y, read once per process (0 when missing or not
// a number).
void LoadMonitorOverride(int& overrideX, int& overrideY);

// The subfolder for a machine model text, or "" when the model table has no row for it (the
// serial number then names the folder).
std::string SubDirectoryForModel(const std::string& model);

// The leading decimal integer of `text` as the C runtime's atoi reads it: blanks skipped, an
// optional sign, digits up to the first other character; 0 when there are none; INT_MAX or
// INT_MIN beyond the range.
int ToInt(const std::string& text);

// For tests: forgets the three remembered results.
void ForgetFolderMemories();

}  // namespace config
