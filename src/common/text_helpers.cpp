#include "sorvalen/text_helpers.h"

#include <cctype>
#include <sstream>

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> fields;
  std::stringstream stream(text);
  std::string field;
  // getline fails only when nothing at all could be extracted, which is what
  // keeps empty inner fields and drops the one after a trailing delimiter.
  while (std::getline(stream, field, delimiter)) {
    fields.push_back(field);
  }
  return fields;
}

bool ci_compare_pred(unsigned char x, unsigned char y) {
  return std::tolower(x) == std::tolower(y);
}

bool ci_compare(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (std::string::size_type i = 0; i < a.size(); ++i) {
    if (!ci_compare_pred(static_cast<unsigned char>(b[i]), static_cast<unsigned char>(a[i]))) {
      return false;
    }
  }
  return true;
}
