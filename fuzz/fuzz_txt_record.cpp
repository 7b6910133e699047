// TXT record data from the network as the browser reads it: whatever the
// bytes, the attributes are whole strings of the data, with a key each, no two
// keys equal ignoring case, and no '=' inside a key.
#include <strings.h>

#include <cstddef>
#include <cstdint>

#include "browser/txt_record.h"

namespace {

void require(bool condition) {
  if (!condition)
    __builtin_trap();
}

void check_attribute(const sorvalen::TxtAttribute& attribute, size_t length) {
  require(!attribute.key.empty());
  require(attribute.key.find('=') == std::string::npos);
  require(attribute.has_value || attribute.value.empty());
  // Key, '=' and value came from one string of at most 255 bytes.
  require(attribute.key.size() + (attribute.has_value ? 1 : 0) + attribute.value.size() <= 255);
  require(attribute.key.size() < length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto attributes = sorvalen::browser::parse_txt(data, size);
  size_t bytes = 0;
  for (size_t i = 0; i < attributes.size(); ++i) {
    check_attribute(attributes[i], size);
    bytes += 1 + attributes[i].key.size() + (attributes[i].has_value ? 1 : 0) + attributes[i].value.size();
    for (size_t j = 0; j < i; ++j) {
      const auto& a = attributes[i].key;
      const auto& b = attributes[j].key;
      require(a.size() != b.size() || strncasecmp(a.data(), b.data(), a.size()) != 0);
    }
  }
  require(bytes <= size);
  return 0;
}
