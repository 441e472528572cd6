#include "config/Folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "config/ErrorLog.h"
#include "config/FileAccess.h"
#include "platform/Files.h"

namespace {

// The process's remembered results. The lookups run without the lock: a lookup may log, and the
// log's first entry looks the configuration folder up itself, on another thread perhaps; the
// first result stored wins.
std::mutex g_memoryMutex;
std::optional<std::string> g_folderOverride;
bool g_moveOver = false;
std::optional<std::pair<int, int>> g_monitorOverride;

constexpr char kCompanyFolder[] = "Halvern Corporation/";
constexpr char kProductFolder[] = "Mirava for Windows/";

// Files older installations kept in the program folder. The first row of each table also marks
// the move as done: once it is at its destination, the table is not walked again. The names were
// written on a file system that ignores case, so they are found in any case (FindEntry); a moved
// file takes the row's spelling, which is the one its readers open. The error log's two rows are
// spelled as the log names its files, so that the log goes on in the file moved over.
constexpr std::array<const char*, 7> kCommonFiles = {"Mirava.ini",     "Mirava.sav", "users.dat",
                                                     "users.sav",      "error.trl",  "error.bak",
                                                     "PrinterSettings"};
constexpr std::array<const char*, 50> kMachineFiles = {"Machine.ini",
                                                       "Machine.sav",
                                                       "StageCal.dat",
                                                       "StageCal.sav",
                                                       "StageVer.dat",
                                                       "StageVer.sav",
                                                       "Probes.dat",
                                                       "Probes.sav",
                                                       "_tp.tmp",
                                                       "_tp.sav",
                                                       "EEPROM Backup.sav",
                                                       "EEPROM Backup.sav0",
                                                       "EEPROM Backup.sav1",
                                                       "EEPROM Backup.sav2",
                                                       "EEPROM Backup.sav3",
                                                       "EEPROM Backup.sav4",
                                                       "EEPROM Backup.sav5",
                                                       "EEPROM Backup.sav6",
                                                       "EEPROM Backup.sav7",
                                                       "EEPROM Backup.sav8",
                                                       "EEPROM Backup.sav9",
                                                       "EEPROM Backup.sav10",
                                                       "MUBackup.ini",
                                                       "MachineLinear.sav",
                                                       "CurveDat.csv",
                                                       "CurveResult.csv",
                                                       "GradientTest.csv",
                                                       "ConvergenceTest.csv",
                                                       "Singularity.csv",
                                                       "Cov.csv",
                                                       "Calibration.csv",
                                                       "LightsCal.csv",
                                                       "YUVHist.csv",
                                                       "GHist.csv",
                                                       "LocateInfo0.dat",
                                                       "LocateInfo1.dat",
                                                       "LocateInfo2.dat",
                                                       "LocateInfo3.dat",
                                                       "LocateInfo4.dat",
                                                       "LocateInfo5.dat",
                                                       "LocateInfo6.dat",
                                                       "LocateInfo7.dat",
                                                       "LocateInfo8.dat",
                                                       "LocateInfo9.dat",
                                                       "LocateInfo10.dat",
                                                       "focus_image.jpg",
                                                       "Focus Diagnostics.dat",
                                                       "LightCalLog.txt",
                                                       "Lighting Diagnostic.txt",
                                                       "Touch Probe Cal Diagnostics"};

// Model text → subfolder, searched in order; the first row whose word the text holds wins.
struct ModelRow {
  const char* words[2];
  const char* subDirectory;
};
constexpr ModelRow kModels[] = {
    {{"Sarnel", "Belvane"}, "Servo"},
    {{"Corrin", "Fenwold"}, "Stepper"},
    {{"Fake Manual Vision", nullptr}, "Fake Vision"},
    {{"Fake Manual", nullptr}, "Fake Manual"},
    {{"Fake Vision", "Scanner"}, "Fake Vision"},
};

// Whether a name read from a configuration file may name one folder inside another. Those files
// lie where every user may write, so a name that climbs out (".."), reaches further down (a
// separator) or holds control characters is refused.
bool IsPlainFolderName(const std::string& name) {
  if (name.empty() || name.find("..") != std::string::npos) return false;
  return std::none_of(name.begin(), name.end(), [](char c) {
    return c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
  });
}

std::string WithSlash(std::string folder) {
  if (!folder.empty() && folder.back() != '/') folder += '/';
  return folder;
}

// Makes `folder` and its missing parents with the default rights.
bool MakeFolders(const std::string& folder) {
  std::string path;
  for (std::size_t at = 0; at != std::string::npos;) {
    const std::size_t next = folder.find('/', at + 1);
    path = folder.substr(0, next);
    at = next;
    if (path.empty() || platform::IsDirectory(path)) continue;
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Letters compare without their case; other bytes, those of non-ASCII names included, as they are.
bool SameNameIgnoringCase(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [&](char x, char y) { return lower(x) == lower(y); });
}

// The name of the entry of `folder` that is `name` whatever the case of its letters: `name`
// itself when it exists, else the first other spelling in name order (a file system that ignores
// case holds one at most); empty when there is none, or when the folder can't be read.
std::string FindEntry(const std::string& folder, const std::string& name) {
  if (platform::FileExists(folder + name)) return name;
  std::string found;
  std::error_code error;
  for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    const std::string candidate = it->path().filename().string();
    if (SameNameIgnoringCase(candidate, name) && (found.empty() || candidate < found)) {
      found = candidate;
    }
  }
  return found;
}

// Moves one file into `folder` as `name`, making the folder if it is missing, as the system's
// silent move does. Across file systems the file is copied and the original removed.
bool MoveInto(const std::string& source, const std::string& folder, const std::string& name) {
  if (!MakeFolders(folder)) return false;
  const std::string destination = folder + name;
  if (::rename(source.c_str(), destination.c_str()) == 0) return true;
  if (errno != EXDEV) return false;
  if (!platform::CopyFile(source, destination)) return false;
  return ::unlink(source.c_str()) == 0;
}

// Moves each file of `table` that lies in the program folder and not yet in `destination` there,
// with the rights a new file of `destination` gets. Stops at the first failure. (The system's
// file managers watch folders themselves: there is no change notice to send.)
template <std::size_t N>
bool MoveTable(const std::array<const char*, N>& table, const std::string& programFolder,
               const std::string& destination) {
  if (!FindEntry(destination, table[0]).empty()) return true;
  std::unique_ptr<config::FileSecurity> security;
  if (!config::CollectDefaultSecurity(destination, security)) {
    ErrorLog(config::kSharedFilesLogSource, __LINE__)(
        "Could not collect default security from %s, continue with empty security\r\n",
        destination.c_str());
  }
  for (const char* name : table) {
    const std::string found = FindEntry(programFolder, name);
    if (found.empty() || !FindEntry(destination, name).empty()) continue;
    const std::string source = programFolder + found;
    const std::string target = destination + name;
    if (!MoveInto(source, destination, name) ||
        !config::ApplyDefaultSecurity(target, security.get())) {
      ErrorLog(config::kSharedFilesLogSource, __LINE__)("\t%s failed to move properly\r\n",
                                                        source.c_str());
      return false;
    }
  }
  return true;
}

// The value of `key` in the open section, or "" when it is missing.
std::string ValueOf(Configuration& file, const char* key) {
  std::string value;
  file.GetValue(key, value);
  return value;
}

// Settles the machine's identity in Hardware.ini: the model, frame grabber and camera move over
// from Machine.ini, and SubDirectory is set from the model or the serial number. False when
// Hardware.ini can't be had.
bool SettleMachineIdentity() {
  HardwareConfiguration hardware;
  auto machine = std::make_unique<MachineConfiguration>(true);
  machine->OpenSection("Setup", false);
  if (!hardware.OpenSection("Setup", true)) return false;
  std::string model = ValueOf(hardware, "Machine");
  for (const char* key : {"Machine", "Frame Grabber", "Camera"}) {
    const std::string value = ValueOf(*machine, key);
    if (!ValueOf(hardware, key).empty() || value.empty()) continue;
    hardware.SetValue(key, value);
    machine->DeleteValue(key);
    if (model.empty() && std::string_view(key) == "Machine") model = value;
  }
  if (!hardware.OpenSection("Machine", true)) return false;
  if (ValueOf(hardware, "SubDirectory").empty()) {
    std::string subDirectory = config::SubDirectoryForModel(model);
    if (subDirectory.empty() && machine->OpenSection("SerialInfo", false)) {
      subDirectory = ValueOf(*machine, "SerialNumber");
    }
    if (IsPlainFolderName(subDirectory)) hardware.SetValue("SubDirectory", subDirectory);
  }
  machine.reset();  // Machine.ini is stored first, then Hardware.ini at the end of the scope
  return true;
}

bool MoveMachineFiles() {
  const std::string programFolder = config::GetProgramFolder();
  const std::string common = config::GetCommonDataFolder(true);
  if (config::GetMachineSubDirectory().empty() && !SettleMachineIdentity()) return false;
  const std::string machineFolder = config::GetMachineFolder();
  if (machineFolder != common && !platform::IsDirectory(machineFolder)) MakeFolders(machineFolder);
  return MoveTable(kMachineFiles, programFolder, machineFolder);
}

// The path in `folder`, or the program folder's file of that name when that is allowed, the
// folder has none and the program folder has one.
std::string PreferredPath(const std::string& folder, const char* name, bool allowProgramFolder) {
  const std::string path = folder + name;
  if (allowProgramFolder && !platform::FileExists(path)) {
    const std::string old = config::GetProgramFolder() + name;
    if (platform::FileExists(old)) return old;
  }
  return path;
}

}  // namespace

FolderConfiguration::FolderConfiguration() : Configuration(false) {
  path = config::GetProgramFolder() + "Folders.ini";
}

HardwareConfiguration::HardwareConfiguration() : Configuration(true) {
  path = config::GetConfigFolder(false) + "Hardware.ini";
}

MachineConfiguration::MachineConfiguration(bool allowProgramFolder) : Configuration(true) {
  path = PreferredPath(config::GetMachineFolder(), "Machine.ini", allowProgramFolder);
}

MiravaConfig::MiravaConfig(bool allowProgramFolder) : Configuration(true) {
  config::MoveDataFiles();
  path = PreferredPath(config::GetConfigFolder(false), "Mirava.ini", allowProgramFolder);
}

namespace config {

std::string GetProgramFolder() {
  return platform::ProgramFolder();
}

std::string GetCommonDataFolder(bool create) {
  const std::string base = platform::CommonDataBase();
  if (base.empty()) return {};
  const std::string company = base + kCompanyFolder;
  const std::string product = company + kProductFolder;
  if (create) {
    MakeFolders(base);
    if (!platform::IsDirectory(company)) ::mkdir(company.c_str(), 0777);
    // Every user of the machine writes its data here, whoever installed it.
    if (!platform::IsDirectory(product)) CreateFolderForEveryone(product);
  }
  return product;
}

std::string GetConfigFolder(bool create) {
  std::optional<std::string> remembered;
  {
    std::lock_guard lock(g_memoryMutex);
    remembered = g_folderOverride;
  }
  if (!remembered) {
    std::string folder;
    {
      FolderConfiguration folders;
      std::string named;
      if (folders.OpenSection("Setup", false) && folders.GetValue("ConfigFolder", named) &&
          platform::IsDirectory(named)) {
        folder = WithSlash(named);
      }
    }
    std::lock_guard lock(g_memoryMutex);
    if (!g_folderOverride) g_folderOverride = folder;
    remembered = g_folderOverride;
  }
  return remembered->empty() ? GetCommonDataFolder(create) : *remembered;
}

std::string GetMachineSubDirectory() {
  HardwareConfiguration hardware;
  std::string subDirectory;
  if (hardware.OpenSection("Machine", false)) hardware.GetValue("SubDirectory", subDirectory);
  return IsPlainFolderName(subDirectory) ? subDirectory : std::string();
}

std::string GetMachineFolder() {
  const std::string subDirectory = GetMachineSubDirectory();
  const std::string folder = GetConfigFolder(false);
  return subDirectory.empty() ? folder : folder + subDirectory + "/";
}

bool MoveDataFiles() {
  {
    std::lock_guard lock(g_memoryMutex);
    if (g_moveOver) return true;
  }
  // A redirected installation manages its own data.
  const bool redirected = GetConfigFolder(false) != GetCommonDataFolder(false);
  if (!redirected) {
    const std::string programFolder = GetProgramFolder();
    if (!MoveTable(kCommonFiles, programFolder, GetCommonDataFolder(true))) return false;
    if (!MoveMachineFiles()) return false;
  }
  std::lock_guard lock(g_memoryMutex);
  g_moveOver = true;
  return true;
}

void LoadMonitorOverride(int& overrideX, int& overrideY) {
  {
    std::lock_guard lock(g_memoryMutex);
    if (g_monitorOverride) {
      overrideX = g_monitorOverride->first;
      overrideY = g_monitorOverride->second;
      return;
    }
  }
  int x = 0;
  int y = 0;
  {
    MiravaConfig mirava(false);
    if (mirava.OpenSection("Monitor", false)) {
      std::string value;
      if (mirava.GetValue("Override X", value)) x = ToInt(value);
      if (mirava.GetValue("Override Y", value)) y = ToInt(value);
    }
  }
  std::lock_guard lock(g_memoryMutex);
  if (!g_monitorOverride) g_monitorOverride = std::make_pair(x, y);
  overrideX = g_monitorOverride->first;
  overrideY = g_monitorOverride->second;
}

std::string SubDirectoryForModel(const std::string& model) {
  for (const ModelRow& row : kModels) {
    for (const char* word : row.words) {
      if (word && model.find(word) != std::string::npos) return row.subDirectory;
    }
  }
  return {};
}

int ToInt(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r')))
    ++at;
  bool negative = false;
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
  // Saturates as the runtime does: beyond the range the result is INT_MAX or INT_MIN.
  const long long limit = negative ? -static_cast<long long>(INT_MIN) : INT_MAX;
  long long value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    value = std::min(limit, value * 10 + (text[at] - '0'));
  }
  return static_cast<int>(negative ? -value : value);
}

void ForgetFolderMemories() {
  std::lock_guard lock(g_memoryMutex);
  g_folderOverride.reset();
  g_moveOver = false;
  g_monitorOverride.reset();
}

}  // namespace config
