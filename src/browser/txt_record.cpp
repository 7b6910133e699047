#include "browser/txt_record.h"

#include <strings.h>

#include <algorithm>
#include <string>

namespace sorvalen::browser {

namespace {

bool key_seen(const std::vector<TxtAttribute>& attributes, const std::string& key) {
  return std::any_of(attributes.begin(), attributes.end(), [&](const TxtAttribute& attribute) {
    return attribute.key.size() == key.size() &&
           strncasecmp(attribute.key.data(), key.data(), key.size()) == 0;
  });
}

// One string of the record, without its length byte.
TxtAttribute attribute_of(const uint8_t* text, size_t length) {
  const auto* begin = reinterpret_cast<const char*>(text);
  const auto* end = begin + length;
  const auto* equals = std::find(begin, end, '=');
  TxtAttribute attribute;
  attribute.key.assign(begin, equals);
  if (equals != end) {
    attribute.has_value = true;
    attribute.value.assign(equals + 1, end);
  }
  return attribute;
}

}  // namespace

std::vector<TxtAttribute> parse_txt(const uint8_t* data, size_t length) {
  std::vector<TxtAttribute> attributes;
  for (size_t at = 0; at < length;) {
    const size_t size = data[at];
    if (at + 1 + size > length)
      break;
    if (size > 0 && data[at + 1] != '=') {
      TxtAttribute attribute = attribute_of(data + at + 1, size);
      if (!key_seen(attributes, attribute.key))
        attributes.push_back(std::move(attribute));
    }
    at += 1 + size;
  }
  return attributes;
}

}  // namespace sorvalen::browser
