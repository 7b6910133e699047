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

// The line and paragraph separators (Zl, Zp), which readers of lines may
// split on, and the format characters (Cf: invisible ones, the controls of
// text direction, tags), which hide or reorder what a name shows.  From
// UnicodeData.txt of Unicode 15.0.
constexpr struct {
  uint32_t first, last;
} kSeparatorsAndFormats[] = {
    {0x00ad, 0x00ad},   {0x0600, 0x0605},   {0x061c, 0x061c},   {0x06dd, 0x06dd},   {0x070f, 0x070f},
    {0x0890, 0x0891},   {0x08e2, 0x08e2},   {0x180e, 0x180e},   {0x200b, 0x200f},   {0x2028, 0x202e},
    {0x2060, 0x2064},   {0x2066, 0x206f},   {0xfeff, 0xfeff},   {0xfff9, 0xfffb},   {0x110bd, 0x110bd},
    {0x110cd, 0x110cd}, {0x13430, 0x1343f}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a}, {0xe0001, 0xe0001},
    {0xe0020, 0xe007f},
};

bool is_separator_or_format(uint32_t code) {
  for (const auto& range : kSeparatorsAndFormats) {
    if (code >= range.first && code <= range.last)
      return true;
  }
  return false;
}

bool needs_escape(uint32_t code) {
  return is_control(code) || is_separator_or_format(code);
}

std::string hex_escape(const char* format, unsigned value) {
  char escaped[12];
  std::snprintf(escaped, sizeof escaped, format, value);
  return escaped;
}

// \uHHHH, or \UHHHHHHHH beyond the first plane.
std::string text_escape(uint32_t code) {
  return hex_escape(code > 0xffff ? "\\U%08x" : "\\u%04x", code);
}

// JSON has only \uHHHH: beyond the first plane, a surrogate pair.
std::string json_escape(uint32_t code) {
  if (code <= 0xffff)
    return hex_escape("\\u%04x", code);
  const uint32_t offset = code - 0x10000;
  return hex_escape("\\u%04x", 0xd800 + (offset >> 10)) + hex_escape("\\u%04x", 0xdc00 + (offset & 0x3ff));
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
    } else if (needs_escape(c.code)) {
      out += text_escape(c.code);
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
    } else if (needs_escape(c.code)) {
      out += json_escape(c.code);
    } else {
      out.append(text, i, c.length);
    }
    i += c.length;
  }
  return out + "\"";
}

bool is_utf8(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    const Utf8Char c = utf8_at(text, i);
    if (c.length == 0)
      return false;
    i += c.length;
  }
  return true;
}
