// The machine image: 1022 bytes at address 0 of a servo board's EEPROM, in eight sections each led
// by a two-byte signature. In the EEPROM its multi-byte fields are big-endian; an EepromImage
// holds them in host order. Boards of the older command sets keep no image to read: the same image
// is put together from the per-axis commands, so that everything above sees one format.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

inline constexpr std::size_t kEepromImageBytes = 1022;
inline constexpr std::size_t kImageSectionCount = 8;

struct ImageSectionPlace {
  std::size_t offset;
  std::size_t length;
};

inline constexpr std::array<ImageSectionPlace, kImageSectionCount> kImageSectionPlaces = {
    {{0, 162}, {162, 70}, {232, 252}, {484, 70}, {554, 42}, {596, 48}, {644, 232}, {876, 146}}};
static_assert(kImageSectionPlaces.back().offset + kImageSectionPlaces.back().length ==
              kEepromImageBytes);

// Signatures: the current layout, and the older one.
inline constexpr std::uint8_t kCurrentLayout[2] = {0x01, 0x01};
inline constexpr std::uint8_t kOlderLayout[2] = {0xBA, 0x5E};

struct EepromImage {
  std::array<std::uint8_t, kEepromImageBytes> bytes{};

  // The two fields the rest of the program reads, by their place in the image.
  std::uint16_t MotorMaximum(std::size_t axis) const;
  std::int32_t CountsPerMm(std::size_t axis) const;
};

// The host form of the 47-byte reply of command 0x62, named after the image fields it fills.
struct AxisDefine {
  float AxisReal = 0;
  std::uint16_t AxisWord1 = 0;
  std::uint16_t AxisWord2 = 0;
  std::uint16_t AxisWord3 = 0;
  std::uint16_t AxisWord4 = 0;
  std::uint16_t AxisWord5 = 0;
  std::uint32_t AxisLong1 = 0;
  std::uint16_t MotorMaximum = 0;
  std::uint16_t AxisWord6 = 0;
  std::uint16_t AxisWord7 = 0;
  bool AxisFlag1 = false;
  bool AxisFlag2 = false;
  bool AxisFlag3 = false;
  bool AxisFlag4 = false;
  bool AxisFlag5 = false;
  std::uint32_t CountsPerMm = 0;
  bool AxisFlag9 = false;
  bool AxisFlag10 = false;
  bool AxisFlag6 = false;
  std::uint8_t AxisByte2 = 0;  // raw
  bool AxisFlag11 = false;
  std::uint32_t AxisLong2 = 0;
  bool AxisFlag7 = false;
  std::uint16_t AxisWord8 = 0;  // 0 from firmware before it (generation::DefinesAxisWord8)
};

// The record of command 0x72, kept in section 1.
struct NamedRecord {
  std::string Name;
  float Value1 = 0;
  float Value2 = 0;
  float Value3 = 0;
  std::uint8_t Byte1 = 0;
  std::uint8_t Byte2 = 0;

  bool operator==(const NamedRecord&) const = default;
};

// The record of command 0x31.
struct MachineData {
  bool Flag1 = false;
  float Real = 0;  // -1.0 when the board has none or sends a value that is not a number
  bool Flag2 = false;
  std::uint32_t Long1 = 0;
  std::uint32_t Long2 = 0;
  std::uint8_t Byte = 0;
};

namespace image {

// The layout a section's signature names.
enum class Layout { Current, Older, Invalid };
Layout SectionLayout(const EepromImage& image, std::size_t section);

// Turns an image as read from the EEPROM into the host form: sections without a known signature
// are zeroed whole, multi-byte fields are put in host order and flags reduced to 0 or 1.
void ToHostForm(EepromImage& image);

// Brings every section to the current layout: signature 0x01 0x01 on all of them (an all-zero
// section included), the tails the older layout did not define zeroed, and the older layout's
// AxisReal values turned into the current layout's reciprocal, metric form.
void Upgrade(EepromImage& image);

}  // namespace image
