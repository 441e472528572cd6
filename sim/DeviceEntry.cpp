#include "sim/DeviceEntry.h"

namespace sim {

namespace {

constexpr const char* kClass1 = "{9A231617-FEC3-48CF-816B-3AA928B12D1D}";
constexpr const char* kClass2 = "{EEE31489-92D6-4E60-9809-CB54981F8CC5}";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

std::string DeviceEntryPath(const std::string& dir, const std::string& entry, std::string& error) {
  const std::string base = dir.empty() || dir.back() != '/' ? dir + "/" : dir;
  if (entry.size() == 8 && (entry.starts_with("class1:") || entry.starts_with("class2:")) &&
      IsDigit(entry[7])) {
    return base + (entry[5] == '1' ? kClass1 : kClass2) + "/" + entry[7];
  }
  // The host tries two letters only, a and b, each with a digit.
  if (entry.size() == 7 && entry.starts_with("HnUsb") && (entry[5] == 'a' || entry[5] == 'b') &&
      IsDigit(entry[6])) {
    return base + entry;
  }
  error = "unknown device entry '" + entry + "' (use class1:N, class2:N or HnUsbaN/HnUsbbN, N 0-9)";
  return {};
}

}  // namespace sim
