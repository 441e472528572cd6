// Feeds arbitrary bytes to the configuration store as a file, then an arbitrary sequence of
// operations on it. Whatever the file holds, the store stays within its text, a value it set is
// what it reads back after the section is opened again, and what it stores loads back as the
// same text.
//
// Input: a flags byte (bit 0: keep a backup), two bytes of the file's length (little-endian), the
// file's bytes, then operations: an operation byte, a name byte (picks a section or key from the
// table below), and for the writing operations a length byte and that many bytes of value.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/Configuration.h"
#include "config/ErrorLog.h"

namespace {

// Names with the characters the search rules care about: blanks, '=', brackets in values only.
const char* const kNames[] = {"S", "Setup", "Machine",   "A",  "Override X", "K=", " A",      "A ",
                              "x", "[S]",   "PID:WAXIS", "Kp", "S]",         "",   "Monitor", "é"};
constexpr std::size_t kNameCount = sizeof kNames / sizeof kNames[0];

std::string Folder() {
  static const std::string folder = [] {
    char pattern[] = "/tmp/tavro-config-fuzz-XXXXXX";
    const char* made = ::mkdtemp(pattern);
    return made ? std::string(made) + "/" : std::string("./");
  }();
  return folder;
}

// Plain ASCII without line ends: such a value comes back as it went.
bool Plain(const std::string& s) {
  for (char c : s) {
    if (c < 0x20 || c > 0x7E) return false;
  }
  return true;
}

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  errorlog::SetErrorLogSink([](const std::string&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const bool keepBackup = data[0] & 1;
  const std::size_t fileLength = std::min<std::size_t>(data[1] | data[2] << 8, size - 3);
  const std::string path = Folder() + "Fuzz.ini";
  ::unlink((path + ".backup").c_str());
  ::unlink((path + ".corrupt").c_str());
  if (std::FILE* file = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data + 3, 1, fileLength, file);
    std::fclose(file);
  }

  std::u16string finalText;
  bool stored = false;
  {
    FileConfiguration config(path, keepBackup);
    std::string open;  // the section opened last, "" when none
    for (std::size_t at = 3 + fileLength; at + 1 < size;) {
      const std::uint8_t op = data[at++] % 6;
      const std::string name = kNames[data[at++] % kNameCount];
      std::string value;
      if (op >= 3 && at < size) {
        const std::size_t wanted = data[at++];
        const std::size_t n = std::min(wanted, size - at);
        value.assign(reinterpret_cast<const char*>(data + at), n);
        at += n;
      }
      switch (op) {
        case 0:
        case 1:
          open = config.OpenSection(name, op == 1) ? name : (name.empty() ? open : "");
          break;
        case 2: {
          std::string got = "unchanged";
          if (!config.GetValue(name, got)) Check(got == "unchanged");
          break;
        }
        case 3: {
          const bool set = config.SetValue(name, value);
          Check(set == !open.empty());
          if (!set) break;
          // A new line lies in front of the open section until it is opened again; reopening
          // at once keeps later keys of the sequence findable.
          Check(config.OpenSection(open, false));
          if (!name.empty() && name[0] != '[' && Plain(value)) {
            std::string got;
            Check(config.GetValue(name, got));
            Check(got == value);
          }
          break;
        }
        case 4:
          config.GetValueOrDefault(name, value);
          if (!open.empty()) Check(config.OpenSection(open, false));
          break;
        case 5:
          config.DeleteValue(name);
          break;
      }
    }
    finalText = config.Text();
    stored = config.Dirty() || (config.Corrupt() && keepBackup && !finalText.empty());
    stored = stored && (finalText.empty() || finalText[0] != 0);
  }
  if (stored) {
    FileConfiguration reread(path, false);
    reread.OpenSection("S", false);
    Check(reread.Text() == finalText);
  }
  return 0;
}
