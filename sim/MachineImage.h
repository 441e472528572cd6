// The machine image: 1022 bytes at address 0 of a servo board's EEPROM, in eight sections, each
// led by its own two-byte signature. The board only stores it; this is the one place that lays
// it out, from the profile's identity, named record and axis setup.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/Profiles.h"

namespace sim {

inline constexpr std::size_t kMachineImageBytes = 1022;

struct ImageSection {
  std::size_t offset;
  std::size_t length;
};

// Offsets and lengths of the eight sections, in order.
inline constexpr std::array<ImageSection, 8> kImageSections = {
    {{0, 162}, {162, 70}, {232, 252}, {484, 70}, {554, 42}, {596, 48}, {644, 232}, {876, 146}}};

static_assert(kImageSections.back().offset + kImageSections.back().length == kMachineImageBytes);

// Signatures: the current layout, and the older one that boards of the first generation wrote.
inline constexpr std::uint8_t kCurrentSignature[2] = {0x01, 0x01};
inline constexpr std::uint8_t kOlderSignature[2] = {0xBA, 0x5E};

// The image of the profile's machine, current layout, kMachineImageBytes long.
std::vector<std::uint8_t> BuildMachineImage(const Profile& profile);

}  // namespace sim
