// The public text <-> wire conversions of DNS names.
#include <cstring>

#include "wire/constants.h"
#include "wire/names.h"

namespace {

using mdns::kMaxNameLength;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Reads one possibly escaped character of a label.  `\DDD` is a decimal byte
// value; `\` before any other character takes that character literally.
bool read_text_char(const char*& p, uint8_t& out) {
  if (*p != '\\') {
    out = static_cast<uint8_t>(*p++);
    return true;
  }
  ++p;
  if (*p == '\0')
    return false;
  if (!is_digit(*p)) {
    out = static_cast<uint8_t>(*p++);
    return true;
  }
  if (!is_digit(p[1]) || !is_digit(p[2]))
    return false;
  const int value = (p[0] - '0') * 100 + (p[1] - '0') * 10 + (p[2] - '0');
  if (value > 255)
    return false;
  out = static_cast<uint8_t>(value);
  p += 3;
  return true;
}

// Parses dotted text into `out`; returns the wire length, 0 on failure.
size_t parse_name_text(const char* p, uint8_t* out) {
  size_t pos = 0;
  if (p[0] == '.' && p[1] == '\0')
    ++p;  // "." is the root
  while (*p != '\0') {
    const size_t len_at = pos++;
    size_t label_len = 0;
    while (*p != '\0' && *p != '.') {
      uint8_t c;
      if (!read_text_char(p, c))
        return 0;
      if (++label_len > MAX_DOMAIN_LABEL)
        return 0;
      if (pos + 1 > kMaxNameLength - 1)
        return 0;  // keep room for the root label
      out[pos++] = c;
    }
    if (label_len == 0)
      return 0;  // "..", a leading dot
    out[len_at] = static_cast<uint8_t>(label_len);
    if (*p == '.')
      ++p;
  }
  out[pos++] = 0;
  return pos;
}

bool is_plain(uint8_t c) {
  return c > 0x20 && c < 0x7F;
}

// Writes one label's bytes as text; returns the position after them.
char* write_label_text(const uint8_t* bytes, size_t len, char* out, char esc) {
  const uint8_t esc_byte = static_cast<uint8_t>(esc);
  for (size_t i = 0; i < len; ++i) {
    const uint8_t c = bytes[i];
    if (esc == 0) {
      *out++ = static_cast<char>(c);
    } else if (c == '.' || c == esc_byte) {
      *out++ = esc;
      *out++ = static_cast<char>(c);
    } else if (is_plain(c)) {
      *out++ = static_cast<char>(c);
    } else {
      *out++ = esc;
      *out++ = static_cast<char>('0' + c / 100);
      *out++ = static_cast<char>('0' + c / 10 % 10);
      *out++ = static_cast<char>('0' + c % 10);
    }
  }
  return out;
}

void clear_label(domainlabel* label) {
  if (label != nullptr)
    label->c[0] = 0;
}

void clear_name(domainname* name) {
  if (name != nullptr)
    name->c[0] = 0;
}

}  // namespace

extern "C" {

MDNS_API mDNSu8* MakeDomainNameFromDNSNameString(domainname* const name, const char* cstr) {
  if (name == nullptr || cstr == nullptr)
    return nullptr;
  domainname tmp;
  const size_t len = parse_name_text(cstr, tmp.c);
  if (len == 0) {
    name->c[0] = 0;
    return nullptr;
  }
  std::memcpy(name->c, tmp.c, len);
  return name->c + len;
}

// The domain must hold at least one label: a service name directly under the
// root is not something DNS-SD announces, so it is rejected like any other
// shape that is not <instance>.<_app>.<_tcp|_udp>.<domain>.
MDNS_API mDNSBool DeconstructServiceName(const domainname* const fqdn, domainlabel* const name,
                                         domainname* const type, domainname* const domain) {
  clear_label(name);
  clear_name(type);
  clear_name(domain);
  if (fqdn == nullptr || name == nullptr || type == nullptr || domain == nullptr)
    return mDNSfalse;
  if (mdns::label_count(*fqdn) < 4)
    return mDNSfalse;
  const uint8_t* proto = mdns::skip_labels(*fqdn, 2);
  if (!mdns::label_equals(proto, "_tcp") && !mdns::label_equals(proto, "_udp"))
    return mDNSfalse;

  const uint8_t* app = mdns::skip_labels(*fqdn, 1);
  const uint8_t* rest = mdns::skip_labels(*fqdn, 3);
  const size_t instance_len = fqdn->c[0];
  const size_t type_len = static_cast<size_t>(rest - app);
  std::memcpy(name->c, fqdn->c, 1 + instance_len);
  std::memcpy(type->c, app, type_len);
  type->c[type_len] = 0;
  domainname rest_name;
  std::memcpy(rest_name.c, rest, mdns::name_length(*fqdn) - static_cast<size_t>(rest - fqdn->c));
  mdns::copy_name(*domain, rest_name);
  return mDNStrue;
}

MDNS_API char* ConvertDomainLabelToCString_withescape(const domainlabel* const label, char* ptr, char esc) {
  if (ptr == nullptr)
    return nullptr;
  if (label != nullptr && label->c[0] <= MAX_DOMAIN_LABEL)
    ptr = write_label_text(label->c + 1, label->c[0], ptr, esc);
  *ptr = '\0';
  return ptr;
}

// A malformed name (bad label length, no root within 255 bytes) is written up
// to the last label that is whole and safe to read.
MDNS_API char* ConvertDomainNameToCString_withescape(const domainname* const name, char* ptr, char esc) {
  if (ptr == nullptr)
    return nullptr;
  if (name == nullptr) {
    *ptr = '\0';
    return ptr;
  }
  if (name->c[0] == 0) {
    *ptr++ = '.';
    *ptr = '\0';
    return ptr;
  }
  size_t i = 0;
  while (name->c[i] != 0) {
    const size_t len = name->c[i];
    if (len > MAX_DOMAIN_LABEL || i + 1 + len >= kMaxNameLength)
      break;
    ptr = write_label_text(name->c + i + 1, len, ptr, esc);
    *ptr++ = '.';
    i += 1 + len;
  }
  *ptr = '\0';
  return ptr;
}

}  // extern "C"
