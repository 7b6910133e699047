#include "txt_output.h"

#include <cstdio>

#include "text_output.h"

namespace {

std::string blanks_escaped(const std::string& text) {
  std::string out;
  for (const char c : text)
    out += c == ' ' ? std::string("\\x20") : std::string(1, c);
  return out;
}

std::string hex_of(const std::string& bytes) {
  std::string out;
  char digits[3];
  for (const char c : bytes) {
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
    out += digits;
  }
  return out;
}

}  // namespace

std::string txt_text(const std::vector<sorvalen::TxtAttribute>& txt) {
  std::string out;
  for (const sorvalen::TxtAttribute& attribute : txt) {
    out += out.empty() ? "" : " ";
    out += blanks_escaped(escape_text(attribute.key));
    if (attribute.has_value)
      out += "=" + blanks_escaped(escape_text(attribute.value));
  }
  return out;
}

std::string txt_json(const std::vector<sorvalen::TxtAttribute>& txt) {
  std::string out = "{";
  for (const sorvalen::TxtAttribute& attribute : txt) {
    out += (out.size() > 1 ? "," : "") + json_string(attribute.key) + ":";
    if (!attribute.has_value) {
      out += "null";
    } else if (is_utf8(attribute.value)) {
      out += json_string(attribute.value);
    } else {
      out += "{\"hex\":\"" + hex_of(attribute.value) + "\"}";
    }
  }
  return out + "}";
}
