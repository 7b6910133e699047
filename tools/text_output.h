// How names that devices chose are written, so that no name can break a line,
// a column or the terminal.
#pragma once

#include <string>

// For text output: backslash, control characters (C0, DEL and C1), the line
// and paragraph separators, format characters (among them those that reorder
// text and the invisible ones) and bytes that are not UTF-8 become escapes
// (\\, \n, \r, \t, \xHH for a byte, \uHHHH or \UHHHHHHHH for a
// character); everything else stays as it is.  The result holds no tab and
// nothing that any reader takes for a line break.
std::string escape_text(const std::string& text);

// A JSON string literal, quotes included, with the same characters escaped
// (\uHHHH, a surrogate pair beyond U+FFFF); bytes that are not UTF-8 become
// U+FFFD.
std::string json_string(const std::string& text);

// Whether every byte of `text` belongs to a UTF-8 sequence.
bool is_utf8(const std::string& text);
