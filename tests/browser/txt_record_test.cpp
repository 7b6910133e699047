// TXT record data read as RFC 6763 section 6 has it.
#include "browser/txt_record.h"

#include <gtest/gtest.h>

#include <string>

namespace sorvalen::browser {
namespace {

// "k=v" strings, each given its length byte.
std::string record(std::initializer_list<std::string> strings) {
  std::string data;
  for (const std::string& s : strings)
    data += static_cast<char>(s.size()) + s;
  return data;
}

std::string shown(const std::string& data) {
  std::string out;
  for (const TxtAttribute& a : parse_txt(reinterpret_cast<const uint8_t*>(data.data()), data.size()))
    out += "[" + a.key + (a.has_value ? "=" + a.value : "") + "]";
  return out;
}

TEST(TxtRecord, ReadsKeysAndValuesAsTheRulesForDnsSdTxtSay) {
  // A bare key differs from an empty value; the first of equal keys (any case) wins.
  EXPECT_EQ(shown(record({"flag", "empty=", "path=/a", "PATH=/b", "Flag=x"})), "[flag][empty=][path=/a]");
  // Empty strings and strings without a key are skipped; a value may hold '='.
  EXPECT_EQ(shown(record({"", "=v", "a=b=c"})), "[a=b=c]");
  // Values are bytes: NUL and bytes that are not UTF-8 stay as they are.
  const std::string binary = record({std::string("bin=\0\xff\x80", 7)});
  const auto attributes = parse_txt(reinterpret_cast<const uint8_t*>(binary.data()), binary.size());
  ASSERT_EQ(attributes.size(), 1u);
  EXPECT_EQ(attributes[0].value, std::string("\0\xff\x80", 3));
  // The empty record (one zero byte) has no attributes; a string running past
  // the data ends it, keeping what came before.
  EXPECT_EQ(shown(std::string(1, '\0')), "");
  EXPECT_EQ(shown(record({"a=1"}) + "\x09" + "b=2"), "[a=1]");
}

}  // namespace
}  // namespace sorvalen::browser
