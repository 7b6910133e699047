// TXT attributes as the tool writes them.
#pragma once

#include <string>
#include <vector>

#include "sorvalen/service_browser.h"

// "key=value key2 key3=" with each key and value escaped as escape_text does,
// and blanks written as \x20 so that a blank always separates attributes.
std::string txt_text(const std::vector<sorvalen::TxtAttribute>& txt);

// A JSON object {"key":"value","bare":null,"binary":{"hex":"00ff"}}: a value
// that is not UTF-8 is given as its bytes in hexadecimal.
std::string txt_json(const std::vector<sorvalen::TxtAttribute>& txt);
