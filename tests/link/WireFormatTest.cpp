#include "link/WireFormat.h"

#include <gtest/gtest.h>

#include <array>

namespace {

TEST(WireFormat, RealsAndFixedPointRoundTripWithTheBoardsRounding) {
  std::array<std::uint8_t, 8> b{};
  wire::PutReal(b, 0, 2.30f);
  EXPECT_EQ(wire::GetLong(b, 0), 0x40133333u);
  EXPECT_FLOAT_EQ(wire::GetReal(b, 0), 2.30f);

  // 0.499, not 0.5: a value whose fraction lands at exactly half a step rounds down.
  EXPECT_EQ(wire::ToFixed(1.5), 0x18000u);
  EXPECT_EQ(wire::ToFixed(0.5 / 65536.0), 0u);
  EXPECT_EQ(wire::ToFixed(0.502 / 65536.0), 1u);
  wire::PutFixed(b, 4, 3.25);
  EXPECT_DOUBLE_EQ(wire::GetFixed(b, 4), 3.25);
}

TEST(WireFormat, WideTextIsLittleEndianAndEndsWithinItsField) {
  std::array<std::uint8_t, 34> b{};
  wire::PutWideText(b, 1, u"Auto Vision");
  EXPECT_EQ(b[1], 'A');
  EXPECT_EQ(b[2], 0);
  EXPECT_EQ(wire::GetWideText(b, 1), u"Auto Vision");

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
