// Where a board serves in the device directory, in the order the host searches:
//   class1:N  ->  <dir>/{9A231617-FEC3-48CF-816B-3AA928B12D1D}/N   (N 0 to 9)
//   class2:N  ->  <dir>/{EEE31489-92D6-4E60-9809-CB54981F8CC5}/N
//   HnUsbaN, HnUsbbN  ->  <dir>/HnUsbaN ...                       (found by name only)
#pragma once

#include <string>

namespace sim {

inline constexpr const char* kDefaultEntry = "class1:0";

// The socket path of `entry` under `dir`; empty, with a reason in `error`, for an entry that the
// host would never look for.
std::string DeviceEntryPath(const std::string& dir, const std::string& entry, std::string& error);

}  // namespace sim
