// The shared library's exported text helpers, which cut and match the filter.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <tuple>
#include <vector>

#include "sorvalen/text_helpers.h"

namespace {

TEST(TextHelpers, SplitKeepsEmptyInnerFieldsDropsTheOneAfterATrailingDelimiterAndTrimsNothing) {
  const std::tuple<std::string, char, std::vector<std::string>> cases[] = {
      {"", ',', {}},
      {"a,,b", ',', {"a", "", "b"}},
      {",a", ',', {"", "a"}},
      {",", ',', {""}},
      {"a,,", ',', {"a", ""}},
      {" Living Room TV ,Kitchen", ',', {" Living Room TV ", "Kitchen"}},
      {"a;b,c", ';', {"a", "b,c"}},
      {std::string("\xc3\xa9\t\0,\xff", 6), ',', {std::string("\xc3\xa9\t\0", 4), "\xff"}}};
  for (const auto& [text, delimiter, fields] : cases)
    EXPECT_EQ(split(text, delimiter), fields) << "text: \"" << text << "\"";
}

// Texts of other lengths never match, and a prefix must not read past its end.
TEST(TextHelpers, CompareFoldsOnlyAsciiLettersInThePosixLocale) {
  ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"", "", true},           {"Living Room TV", "living room tv", true},
      {"\xc9t", "\xc9T", true}, {"", "a", false},
      {"tv", "tw", false},      {"abc", "abcd", false},
      {"abcd", "abc", false},   {"AZ", "az", true},
      {"\xe9", "\xc9", false},  {"@[", "`{", false}};
  for (const auto& [a, b, equal] : cases)
    EXPECT_EQ(ci_compare(a, b), equal) << a << " / " << b;
}

}  // namespace
