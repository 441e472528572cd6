#include "wire/WireFormat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

// A 16.16 value, told apart from a real by its type.
struct Fixed {
  double value;
  bool operator==(const Fixed&) const = default;
};
void PrintTo(const Fixed& f, std::ostream* os) {
  *os << "fixed " << f.value;
}

using Value = std::variant<std::uint16_t, std::int16_t, std::uint32_t, std::int32_t, float, Fixed>;

template <class... Fs>
struct Overloaded : Fs... {
  using Fs::operator()...;
};

// A field written at offset 1 of a buffer of guard bytes: the guards must survive.
constexpr std::uint8_t kGuard = 0xEE;

// `field` between two guard bytes.
Bytes Framed(const Bytes& field) {
  Bytes b(field.size() + 2, kGuard);
  std::copy(field.begin(), field.end(), b.begin() + 1);
  return b;
}

Bytes Written(const Value& v, std::size_t width) {
  Bytes b(width + 2, kGuard);
  std::visit(Overloaded{[&](std::uint16_t x) { wire::PutWord(b, 1, x); },
                        // The host writes signed words with the bits of the unsigned one.
                        [&](std::int16_t x) { wire::PutWord(b, 1, static_cast<std::uint16_t>(x)); },
                        [&](std::uint32_t x) { wire::PutLong(b, 1, x); },
                        [&](std::int32_t x) { wire::PutSignedLong(b, 1, x); },
                        [&](float x) { wire::PutReal(b, 1, x); },
                        [&](Fixed x) { wire::PutFixed(b, 1, x.value); }},
             v);
  return b;
}

Value Read(const Bytes& field, const Value& like) {
  const Bytes b = Framed(field);
  return std::visit(Overloaded{[&](std::uint16_t) -> Value { return wire::GetWord(b, 1); },
                               [&](std::int16_t) -> Value { return wire::GetSignedWord(b, 1); },
                               [&](std::uint32_t) -> Value { return wire::GetLong(b, 1); },
                               [&](std::int32_t) -> Value { return wire::GetSignedLong(b, 1); },
                               [&](float) -> Value { return wire::GetReal(b, 1); },
                               [&](Fixed) -> Value { return Fixed{wire::GetFixed(b, 1)}; }},
                    like);
}

// Each value with the bytes it has on the wire, most significant first. The bytes of each row
// differ from each other, so a swap of any two, in writing or in reading, shows.
TEST(WireFormat, NumbersTravelMostSignificantByteFirst) {
  struct Case {
    const char* format;
    Value value;
    Bytes wire;
  };
  const Case cases[] = {
      {"word", std::uint16_t{0x0102}, {0x01, 0x02}},
      {"word", std::uint16_t{0xA1B2}, {0xA1, 0xB2}},
      {"signed word", std::int16_t{0x0102}, {0x01, 0x02}},
      {"signed word", std::int16_t{-24142}, {0xA1, 0xB2}},
      {"long", std::uint32_t{0x01020304}, {0x01, 0x02, 0x03, 0x04}},
      {"long", std::uint32_t{0xA1B2C3D4}, {0xA1, 0xB2, 0xC3, 0xD4}},
      {"signed long", std::int32_t{0x01020304}, {0x01, 0x02, 0x03, 0x04}},
      {"signed long", std::int32_t{-1582119980}, {0xA1, 0xB2, 0xC3, 0xD4}},
      {"real", 2.30f, {0x40, 0x13, 0x33, 0x33}},
      {"real", -2.30f, {0xC0, 0x13, 0x33, 0x33}},
      {"real", 3.14159274f, {0x40, 0x49, 0x0F, 0xDB}},
      {"fixed", Fixed{3.25}, {0x00, 0x03, 0x40, 0x00}},
      // The bits are unsigned: a top bit set is not a negative number.
      {"fixed", Fixed{0xA1B2C3D4 / 65536.0}, {0xA1, 0xB2, 0xC3, 0xD4}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.format);
    EXPECT_EQ(Written(c.value, c.wire.size()), Framed(c.wire));
    EXPECT_EQ(Read(c.wire, c.value), c.value);
  }
}

// To the wire: value times 65536 plus 0.499, truncated; a value at exactly half a step goes down,
// where ordinary rounding would take it up.
TEST(WireFormat, FixedPointToTheWireUsesTheBoardsRounding) {
  struct Case {
    double value;
    std::uint32_t bits;
  };
  for (const Case& c :
       {Case{1.5, 0x00018000}, Case{0.5 / 65536, 0}, Case{0.502 / 65536, 1},
        Case{2.5 + 0.5 / 65536, 0x00028000}, Case{2.5 + 0.502 / 65536, 0x00028001}}) {
    EXPECT_EQ(wire::ToFixed(c.value), c.bits) << c.value;
  }
}

// Wide text is UTF-16 with the low byte first, copied as it is and not swapped like the numbers.
// The field is 32 bytes and always zero-filled behind the text.
TEST(WireFormat, WideTextIsCopiedLowByteFirst) {
  struct Case {
    std::u16string text;
    Bytes wire;  // the field's first bytes; the rest of the 32 are zero
  };
  const Case cases[] = {
      {u"Ab", {0x41, 0x00, 0x62, 0x00, 0x00, 0x00}},
      {u"A\u20AC\u0102", {0x41, 0x00, 0xAC, 0x20, 0x02, 0x01, 0x00, 0x00}},
  };
  for (const Case& c : cases) {
    Bytes field = c.wire;
    field.resize(wire::kWideTextBytes, 0);
    Bytes written(wire::kWideTextBytes + 2, kGuard);
    wire::PutWideText(written, 1, c.text);
    EXPECT_EQ(written, Framed(field));
    EXPECT_EQ(wire::GetWideText(Framed(field), 1), c.text);
  }
}

TEST(WireFormat, WideTextEndsWithinItsField) {
  std::array<std::uint8_t, 34> b{};
  // A full field of 16 units with no end is taken whole; writing keeps an end within 32 bytes.
  for (std::size_t i = 0; i < 16; ++i) {
    b[1 + 2 * i] = static_cast<std::uint8_t>('a' + i);
    b[2 + 2 * i] = 0;
  }
  EXPECT_EQ(wire::GetWideText(b, 1).size(), 16u);
  wire::PutWideText(b, 1, u"0123456789ABCDEFGHIJ");
  EXPECT_EQ(wire::GetWideText(b, 1), u"0123456789ABCDE");
}

TEST(WireFormat, FieldsPastTheEndReadAsZeroAndAreNotWritten) {
  std::array<std::uint8_t, 4> b{1, 2, 3, 4};
  EXPECT_EQ(wire::GetLong(b, 1), 0u);
  EXPECT_EQ(wire::GetWord(b, 3), 0);
  EXPECT_EQ(wire::GetByte(b, 4), 0);
  EXPECT_EQ(wire::GetWideText(b, 0), u"");
  EXPECT_EQ(wire::GetLong(b, static_cast<std::size_t>(-1)), 0u);
  wire::PutLong(b, 2, 0xFFFFFFFF);
  wire::PutWideText(b, 0, u"x");
  EXPECT_EQ(b, (std::array<std::uint8_t, 4>{1, 2, 3, 4}));
}

}  // namespace
