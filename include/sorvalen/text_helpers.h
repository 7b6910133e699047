// Small text helpers: splitting a filter text and comparing without regard to case.
#pragma once

#include <string>
#include <vector>

#include "sorvalen/export.h"

// Cuts `text` at every `delimiter`.  Empty fields between delimiters (or before
// a leading one) are kept; a delimiter at the very end opens no further field;
// nothing is trimmed.  "" gives no field, "," gives one empty field.
SORVALEN_API std::vector<std::string> split(const std::string& text, char delimiter);

// Equal without regard to case, byte by byte, by the C library's tolower (so in
// the default POSIX locale only ASCII letters fold).
SORVALEN_API bool ci_compare(const std::string& a, const std::string& b);
SORVALEN_API bool ci_compare_pred(unsigned char x, unsigned char y);
