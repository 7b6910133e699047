#include "text_output.h"

#include <cstdint>
#include <cstdio>

namespace {

// The UTF-8 sequence at text[i]: its length (0 when the byte there starts no
// valid sequence) and the character it encodes.
struct Utf8Char {
  size_t length = 0;
  uint32_t code = 0;
};

Utf8Char utf8_at(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  Utf8Char c;
  uint32_t minimum = 0;
  if (lead < 0x80) {
    c.length = 1, c.code = lead;
    return c;
  } else if (lead >= 0xc2 && lead <= 0xdf) {
    c.length = 2, minimum = 0x80, c.code = lead & 0x1fu;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    c.length = 3, minimum = 0x800, c.code = lead & 0x0fu;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    c.length = 4, minimum = 0x10000, c.code = lead & 0x07u;
  } else {
    return Utf8Char{};
  }
  if (i + c.length > text.size())
    return Utf8Char{};
  for (size_t k = 1; k < c.length; ++k) {
    if ((byte(i + k) & 0xc0) != 0x80)
      return Utf8Char{};
    c.code = (c.code << 6) | (byte(i + k) & 0x3fu);
  }
  if (c.code < minimum || c.code > 0x10ffff || (c.code >= 0xd800 && c.code <= 0xdfff))
    return Utf8Char{};
  return c;
}

bool is_control(uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code <= 0x9f);
}

// Characters that change the order in which a terminal shows what follows.
bool is_bidi_control(uint32_t code) {
  return code == 0x061c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069);
}

std::string hex_escape(const char* format, unsigned value) {
  char escaped[12];
  std::snprintf(escaped, sizeof escaped, format, value);
  return escaped;
}

}  // namespace

std::string escape_text(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const Utf8Char c = utf8_at(text, i);
    if (c.length == 0) {
      out += hex_escape("\\x%02x", static_cast<unsigned char>(text[i]));
      ++i;
      continue;
    }
    if (c.code == '\\') {
      out += "\\\\";
    } else if (c.code == '\n') {
      out += "\\n";
    } else if (c.code == '\r') {
      out += "\\r";
    } else if (c.code == '\t') {
      out += "\\t";
    } else if (c.code < 0x20 || c.code == 0x7f) {
      out += hex_escape("\\x%02x", c.code);
    } else if (is_control(c.code) || is_bidi_control(c.code)) {
      out += hex_escape("\\u%04x", c.code);
    } else {
      out.append(text, i, c.length);
    }
    i += c.length;
  }
  return out;
}

std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const Utf8Char c = utf8_at(text, i);
    if (c.length == 0) {
      out += "\\ufffd";
      ++i;
      continue;
    }
    if (c.code == '"' || c.code == '\\') {
      out += '\\';
      out += static_cast<char>(c.code);
    } else if (c.code == '\n') {
      out += "\\n";
    } else if (c.code == '\r') {
      out += "\\r";
    } else if (c.code == '\t') {
      out += "\\t";
    } else if (is_control(c.code) || is_bidi_control(c.code)) {
      out += hex_escape("\\u%04x", c.code);
    } else {
      out.append(text, i, c.length);
    }
    i += c.length;
  }
  return out + "\"";
}
