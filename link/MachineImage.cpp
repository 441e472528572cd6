#include "link/MachineImage.h"

#include <algorithm>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "the image is turned by swapping bytes");

namespace {

enum class Kind : std::uint8_t { Byte, Flag, Word, Long, Real, Text };

// One field, or an array of four indexed by axis, at an offset from its section's start.
struct ImageField {
  std::uint8_t section;
  std::uint16_t offset;
  Kind kind;
  std::uint8_t count;
};

// clang-format off
constexpr ImageField kFields[] = {
  // Section 0, identity.
  {0, 2, Kind::Text, 1}, {0, 34, Kind::Text, 1}, {0, 66, Kind::Text, 1}, {0, 98, Kind::Word, 1},
  {0, 100, Kind::Long, 1}, {0, 104, Kind::Long, 1}, {0, 108, Kind::Flag, 1},
  {0, 110, Kind::Word, 1},
  // Section 1, named record.
  {1, 2, Kind::Text, 1}, {1, 34, Kind::Real, 1}, {1, 38, Kind::Real, 1}, {1, 42, Kind::Real, 1},
  {1, 46, Kind::Byte, 1}, {1, 47, Kind::Byte, 1},
  // Section 2, axis definition, first half.
  {2, 2, Kind::Real, 4}, {2, 18, Kind::Word, 4}, {2, 26, Kind::Word, 4}, {2, 34, Kind::Word, 4},
  {2, 42, Kind::Word, 4}, {2, 50, Kind::Word, 4}, {2, 58, Kind::Long, 4}, {2, 74, Kind::Word, 4},
  {2, 82, Kind::Word, 4}, {2, 90, Kind::Word, 4}, {2, 98, Kind::Flag, 4}, {2, 102, Kind::Flag, 4},
  {2, 106, Kind::Flag, 4}, {2, 110, Kind::Flag, 4}, {2, 114, Kind::Flag, 4},
  {2, 118, Kind::Flag, 4}, {2, 122, Kind::Long, 4}, {2, 138, Kind::Flag, 4},
  {2, 142, Kind::Word, 4}, {2, 150, Kind::Byte, 4}, {2, 154, Kind::Word, 4},
  {2, 162, Kind::Long, 4}, {2, 178, Kind::Word, 4}, {2, 186, Kind::Flag, 4},
  // Section 3, axis definition, second half.
  {3, 2, Kind::Long, 4}, {3, 18, Kind::Flag, 4}, {3, 22, Kind::Flag, 4}, {3, 26, Kind::Flag, 4},
  {3, 30, Kind::Byte, 4}, {3, 34, Kind::Flag, 4}, {3, 42, Kind::Word, 4}, {3, 50, Kind::Flag, 4},
  // Section 4, machine data.
  {4, 2, Kind::Flag, 1}, {4, 7, Kind::Real, 1}, {4, 11, Kind::Flag, 1}, {4, 12, Kind::Long, 1},
  {4, 16, Kind::Long, 1},
  // Section 5 has no multi-byte field. Section 6, axis tuning.
  {6, 2, Kind::Word, 4}, {6, 10, Kind::Word, 4}, {6, 18, Kind::Word, 4}, {6, 26, Kind::Long, 4},
  {6, 42, Kind::Long, 4}, {6, 58, Kind::Word, 4}, {6, 66, Kind::Word, 4}, {6, 74, Kind::Word, 4},
  {6, 82, Kind::Word, 4}, {6, 90, Kind::Word, 4},
  // Section 7, further axis data.
  {7, 2, Kind::Long, 4}, {7, 18, Kind::Long, 4}, {7, 34, Kind::Real, 4},
};
// clang-format on

std::size_t Width(Kind kind) {
  switch (kind) {
    case Kind::Word:
      return 2;
    case Kind::Long:
    case Kind::Real:
      return 4;
    case Kind::Text:
      return 32;
    default:
      return 1;
  }
}

std::uint8_t* SectionStart(EepromImage& image, std::size_t section) {
  return image.bytes.data() + kImageSectionPlaces[section].offset;
}

// What each section loses on the upgrade: the range always zeroed, and the wider one zeroed
// instead under the older signature.
struct Tail {
  std::size_t from;
  std::size_t olderFrom;
};

constexpr std::array<Tail, kImageSectionCount> kTails = {
    {{112, 98}, {52, 52}, {190, 190}, {54, 54}, {21, 21}, {34, 34}, {98, 98}, {50, 34}}};

constexpr std::size_t kAxisRealAt = 2;     // section 2, real[4]
constexpr std::size_t kAxisFlag3At = 106;  // section 2, flag[4]
constexpr std::size_t kAxisByte1At = 150;  // section 2, byte[4]
constexpr std::size_t kMotorMaximumAt = 232 + 74;
constexpr std::size_t kCountsPerMmAt = 484 + 2;

}  // namespace

std::uint16_t EepromImage::MotorMaximum(std::size_t axis) const {
  std::uint16_t v = 0;
  if (axis < 4) std::memcpy(&v, &bytes[kMotorMaximumAt + 2 * axis], sizeof v);
  return v;
}

std::int32_t EepromImage::CountsPerMm(std::size_t axis) const {
  std::int32_t v = 0;
  if (axis < 4) std::memcpy(&v, &bytes[kCountsPerMmAt + 4 * axis], sizeof v);
  return v;
}

namespace image {

Layout SectionLayout(const EepromImage& image, std::size_t section) {
  const std::uint8_t* s = image.bytes.data() + kImageSectionPlaces[section].offset;
  if (s[0] == kCurrentLayout[0] && s[1] == kCurrentLayout[1]) return Layout::Current;
  if (s[0] == kOlderLayout[0] && s[1] == kOlderLayout[1]) return Layout::Older;
  return Layout::Invalid;
}

void ToHostForm(EepromImage& image) {
  for (std::size_t section = 0; section < kImageSectionCount; ++section) {
    if (SectionLayout(image, section) == Layout::Invalid) {
      std::fill_n(SectionStart(image, section), kImageSectionPlaces[section].length, 0);
    }
  }
  for (const ImageField& f : kFields) {
    const std::size_t width = Width(f.kind);
    for (std::size_t i = 0; i < f.count; ++i) {
      std::uint8_t* at = SectionStart(image, f.section) + f.offset + width * i;
      if (f.kind == Kind::Flag) {
        *at = *at != 0 ? 1 : 0;
      } else if (f.kind == Kind::Word || f.kind == Kind::Long || f.kind == Kind::Real) {
        // Big-endian on the EEPROM, little-endian on the host.
        std::reverse(at, at + width);
      }
    }
  }
}

void Upgrade(EepromImage& image) {
  for (std::size_t section = 0; section < kImageSectionCount; ++section) {
    std::uint8_t* s = SectionStart(image, section);
    const std::size_t length = kImageSectionPlaces[section].length;
    const bool older = SectionLayout(image, section) == Layout::Older;
    const std::size_t from = older ? kTails[section].olderFrom : kTails[section].from;
    std::fill(s + from, s + length, 0);
    if (section == 2 && older) {
      for (std::size_t axis = 0; axis < 4; ++axis) {
        float real;
        std::memcpy(&real, s + kAxisRealAt + 4 * axis, sizeof real);
        // A value that is not a number compares unequal to zero and is converted too.
        if (static_cast<double>(real) != 0.0 && s[kAxisFlag3At + axis] == 0) {
          real = 1.0f / real * 25.4f;
          std::memcpy(s + kAxisRealAt + 4 * axis, &real, sizeof real);
        }
        s[kAxisByte1At + axis] = 0;
      }
    }
    s[0] = kCurrentLayout[0];
    s[1] = kCurrentLayout[1];
  }
}

}  // namespace image
