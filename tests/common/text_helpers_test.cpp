// Splitting filter texts and comparing without regard to case, through the
// shared library's exported helpers.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "sorvalen/text_helpers.h"

namespace {

using Fields = std::vector<std::string>;

TEST(Split, KeepsEmptyInnerFieldsDropsTheOneAfterATrailingDelimiterAndTrimsNothing) {
  const struct {
    std::string text;
    char delimiter;
    Fields fields;
  } cases[] = {
      {"", ',', {}},
      {"tv", ',', {"tv"}},
      {"a,,b", ',', {"a", "", "b"}},
      {",a", ',', {"", "a"}},
      {"a,", ',', {"a"}},
      {",", ',', {""}},
      {"a,,", ',', {"a", ""}},
      {" Living Room TV ,Kitchen", ',', {" Living Room TV ", "Kitchen"}},
      {"a;b,c", ';', {"a", "b,c"}},
      {std::string("\xc3\xa9\t\n\x01,\xff", 7), ',', {"\xc3\xa9\t\n\x01", "\xff"}},
      {std::string("a\0b,c", 5), ',', {std::string("a\0b", 3), "c"}},
      {std::string("a\0b,c", 5), '\0', {"a", "b,c"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("text: \"" + c.text + "\"");
    EXPECT_EQ(split(c.text, c.delimiter), c.fields);
  }
}

TEST(CaseInsensitiveCompare, WholeTextsOfEqualLength) {
  EXPECT_TRUE(ci_compare("", ""));
  EXPECT_TRUE(ci_compare("Living Room TV", "living room tv"));
  EXPECT_FALSE(ci_compare("", "a"));
  EXPECT_FALSE(ci_compare("tv", "tv "));
  EXPECT_FALSE(ci_compare("tv", "tw"));
  // A prefix of the other text, either way round, must not read past its end.
  EXPECT_FALSE(ci_compare("abc", "abcd"));
  EXPECT_FALSE(ci_compare("abcd", "abc"));
}

TEST(CaseInsensitiveCompare, OnlyAsciiLettersFoldInThePosixLocale) {
  ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
  for (int x = 0; x < 256; ++x) {
    for (int y = 0; y < 256; ++y) {
      const bool same_letter = (x | 0x20) == (y | 0x20) && (x | 0x20) >= 'a' && (x | 0x20) <= 'z';
      ASSERT_EQ(ci_compare_pred(static_cast<unsigned char>(x), static_cast<unsigned char>(y)),
                x == y || same_letter)
          << "bytes " << x << " and " << y;
    }
  }
  // Latin-1 capital and small E acute differ: high bytes match only themselves.
  EXPECT_FALSE(ci_compare("\xc9", "\xe9"));
  EXPECT_TRUE(ci_compare("\xc9t\xc9", "\xc9T\xc9"));
}

}  // namespace
