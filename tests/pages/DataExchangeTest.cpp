// The field texts the pages show and the cut of a long log.
#include <gtest/gtest.h>

#include "pages/DataExchange.h"
#include "util/Text.h"

namespace {

TEST(FieldText, FloatsTakeTheShortSixDigitFormAndIntegersTheirOwnWidth) {
  EXPECT_EQ(FieldText(2.3f), "2.3");  // not 2.29999995
  EXPECT_EQ(FieldText(-0.5f), "-0.5");
  EXPECT_EQ(FieldText(123456.7f), "123457");
  EXPECT_EQ(FieldText(1234567.0f), "1.23457e+06");
  EXPECT_EQ(FieldText(0.00001f), "1e-05");

  // A 16-bit field of the board read as signed: 0xFFFF shows as -1, not 65535.
  EXPECT_EQ(FieldText(static_cast<std::int16_t>(std::uint16_t{0xFFFF})), "-1");
  EXPECT_EQ(FieldText(std::int32_t{-2147483647 - 1}), "-2147483648");
  EXPECT_EQ(FieldText(std::uint32_t{4294967295u}), "4294967295");
}

// The page's own test covers the plain cut; here "é" and "€" are two and three bytes.
TEST(KeepLastCharacters, CountsCharactersAndNeverSplitsOne) {
  const std::string wide = "a\xC3\xA9\xE2\x82\xACz";
  for (const auto& [keep, expected] : {std::pair<std::size_t, std::string>{2, "\xE2\x82\xACz"},
                                       {3, "\xC3\xA9\xE2\x82\xACz"},
                                       {9, wide},
                                       {0, ""}}) {
    std::string s = wide;
    text::KeepLastCharacters(s, keep);
    EXPECT_EQ(s, expected) << keep;
  }
}

}  // namespace
