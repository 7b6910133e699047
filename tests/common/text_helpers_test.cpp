// Splitting filter texts and comparing without regard to case, through the
// shared library's exported helpers.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "sorvalen/text_helpers.h"

namespace {

using Fields = std::vector<std::string>;

struct SplitCase {
  const char* text;
  char delimiter;
  Fields fields;
};

class SplitFields : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitFields, KeepsEmptyInnerFieldsAndDropsTheOneAfterATrailingDelimiter) {
  const SplitCase& c = GetParam();
  EXPECT_EQ(split(c.text, c.delimiter), c.fields) << "text: \"" << c.text << "\"";
}

INSTANTIATE_TEST_SUITE_P(
    Comma, SplitFields,
    ::testing::Values(SplitCase{"", ',', {}}, SplitCase{"tv", ',', {"tv"}}, SplitCase{"a,b", ',', {"a", "b"}},
                      SplitCase{"a,,b", ',', {"a", "", "b"}}, SplitCase{",a", ',', {"", "a"}},
                      SplitCase{"a,", ',', {"a"}}, SplitCase{",", ',', {""}}, SplitCase{",,", ',', {"", ""}},
                      SplitCase{"a,,", ',', {"a", ""}}, SplitCase{"a, b", ',', {"a", " b"}},
                      SplitCase{" Living Room TV ,Kitchen", ',', {" Living Room TV ", "Kitchen"}},
                      SplitCase{"a;b,c", ',', {"a;b", "c"}}, SplitCase{"a;b,c", ';', {"a", "b,c"}}));

TEST(SplitBytes, LeavesEveryNonDelimiterByteAlone) {
  const std::string text("\xc3\xa9t\xc3\xa9\t\n\x01,\xff", 10);
  EXPECT_EQ(split(text, ','), (Fields{std::string("\xc3\xa9t\xc3\xa9\t\n\x01", 8), "\xff"}));
}

TEST(SplitBytes, EmbeddedNulIsAnOrdinaryByte) {
  const std::string text("a\0b,c", 5);
  EXPECT_EQ(split(text, ','), (Fields{std::string("a\0b", 3), "c"}));
  EXPECT_EQ(split(text, '\0'), (Fields{"a", "b,c"}));
}

TEST(CaseInsensitiveCompare, EqualityTable) {
  EXPECT_TRUE(ci_compare("", ""));
  EXPECT_FALSE(ci_compare("", "a"));
  EXPECT_FALSE(ci_compare("a", ""));
  EXPECT_TRUE(ci_compare("Living Room TV", "living room tv"));
  EXPECT_TRUE(ci_compare("ABCXYZ", "abcxyz"));
  EXPECT_FALSE(ci_compare("tv", "tv "));
  EXPECT_FALSE(ci_compare("tv", "tw"));
  EXPECT_FALSE(ci_compare("abc", "abcd"));
  // A shorter text that is a prefix of the longer one must not read past its end.
  EXPECT_FALSE(ci_compare("abcd", "abc"));
}

TEST(CaseInsensitiveCompare, OnlyAsciiLettersFoldInThePosixLocale) {
  ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
  for (int x = 0; x < 256; ++x) {
    for (int y = 0; y < 256; ++y) {
      const bool same_letter = (x | 0x20) == (y | 0x20) && (x | 0x20) >= 'a' && (x | 0x20) <= 'z';
      const bool expected = x == y || same_letter;
      ASSERT_EQ(ci_compare_pred(static_cast<unsigned char>(x), static_cast<unsigned char>(y)), expected)
          << "bytes " << x << " and " << y;
    }
  }
  // Latin-1 capital and small E acute differ: high bytes match only themselves.
  EXPECT_FALSE(ci_compare("\xc9", "\xe9"));
  EXPECT_TRUE(ci_compare("\xc9t\xc9", "\xc9T\xc9"));
}

}  // namespace
