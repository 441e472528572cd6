// The field texts the pages show, the element ids of numbered rows, and the cut of a long log.
#include <gtest/gtest.h>

#include "pages/DataExchange.h"
#include "util/Text.h"

namespace {

TEST(FieldText, FloatsTakeTheShortSixDigitForm) {
  EXPECT_EQ(FieldText(2.3f), "2.3");  // not 2.29999995
  EXPECT_EQ(FieldText(1.81f), "1.81");
  EXPECT_EQ(FieldText(0.0f), "0");
  EXPECT_EQ(FieldText(-0.5f), "-0.5");
  EXPECT_EQ(FieldText(123456.7f), "123457");
  EXPECT_EQ(FieldText(1234567.0f), "1.23457e+06");
  EXPECT_EQ(FieldText(0.0001f), "0.0001");
  EXPECT_EQ(FieldText(0.00001f), "1e-05");
}

TEST(FieldText, IntegersAreDecimalInTheirOwnWidth) {
  EXPECT_EQ(FieldText(std::int16_t{-1}), "-1");
  // A 16-bit field of the board read as signed: 0xFFFF shows as -1, not 65535.
  EXPECT_EQ(FieldText(static_cast<std::int16_t>(std::uint16_t{0xFFFF})), "-1");
  EXPECT_EQ(FieldText(std::int32_t{-2147483647 - 1}), "-2147483648");
  EXPECT_EQ(FieldText(std::uint32_t{4294967295u}), "4294967295");
}

TEST(FieldText, NumberedIdsLeaveTheFirstBareWhereTheFamilyDoes) {
  EXPECT_EQ(IndexedId("PMDName", 0, true), "PMDName");
  EXPECT_EQ(IndexedId("PMDName", 1, true), "PMDName1");
  EXPECT_EQ(IndexedId("Light", 0, false), "Light0");
  EXPECT_EQ(IndexedId("Light", 12, false), "Light12");
}

TEST(KeepLastCharacters, CountsCharactersAndNeverSplitsOne) {
  std::string s(20001, 'a');
  s[0] = 'x';
  s[1] = 'y';
  text::KeepLastCharacters(s, 20000);
  EXPECT_EQ(s.size(), 20000u);
  EXPECT_EQ(s[0], 'y');  // exactly the oldest one went

  std::string short_text = "abc";
  text::KeepLastCharacters(short_text, 20000);
  EXPECT_EQ(short_text, "abc");

  // "é" and "€" are two and three bytes: the cut counts them as one character each.
  std::string wide =
      "a\xC3\xA9\xE2\x82\xAC"
      "b";
  text::KeepLastCharacters(wide, 2);
  EXPECT_EQ(wide,
            "\xE2\x82\xAC"
            "b");
  wide =
      "a\xC3\xA9\xE2\x82\xAC"
      "b";
  text::KeepLastCharacters(wide, 3);
  EXPECT_EQ(wide,
            "\xC3\xA9\xE2\x82\xAC"
            "b");
  text::KeepLastCharacters(wide, 0);
  EXPECT_EQ(wide, "");
}

}  // namespace
