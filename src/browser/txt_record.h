// TXT record data as key/value attributes (RFC 6763 section 6).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sorvalen/service_browser.h"

namespace sorvalen::browser {

// The attributes of TXT record data: a sequence of length-prefixed strings,
// each "key", "key=" or "key=value".  Keys compare case-insensitively and the
// first of equal keys wins; empty strings and strings that start with '=' (no
// key) are skipped; a string whose length runs past the data ends it.
std::vector<TxtAttribute> parse_txt(const uint8_t* data, size_t length);

}  // namespace sorvalen::browser
