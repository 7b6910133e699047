#include "names.h"

#include <cstring>

namespace mdns {

namespace {

constexpr size_t kMaxNameLength = 255;

uint8_t ascii_lower(uint8_t c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<uint8_t>(c + ('a' - 'A')) : c;
}

}  // namespace

size_t name_length(const domainname& name) {
  size_t i = 0;
  while (i < kMaxNameLength) {
    const uint8_t len = name.c[i];
    if (len == 0)
      return i + 1;
    if (len > MAX_DOMAIN_LABEL)
      return 0;  // also rejects 0x40 / 0x80 / 0xC0 label types
    i += 1 + len;
  }
  return 0;
}

bool names_equal(const domainname& a, const domainname& b) {
  const size_t la = name_length(a);
  if (la == 0 || la != name_length(b))
    return false;
  // Length bytes are at most 63, below 'A', so lowering the whole wire form is safe.
  for (size_t i = 0; i < la; ++i) {
    if (ascii_lower(a.c[i]) != ascii_lower(b.c[i]))
      return false;
  }
  return true;
}

uint32_t name_hash(const domainname& name) {
  const size_t len = name_length(name);
  uint32_t h = 2166136261u;  // FNV-1a
  for (size_t i = 0; i < len; ++i) {
    h ^= ascii_lower(name.c[i]);
    h *= 16777619u;
  }
  return h;
}

bool append_name(domainname& head, const domainname& tail) {
  const size_t lh = name_length(head);
  const size_t lt = name_length(tail);
  if (lh == 0 || lt == 0 || lh - 1 + lt > kMaxNameLength)
    return false;
  std::memmove(head.c + lh - 1, tail.c, lt);
  return true;
}

bool prepend_label(domainname& out, const domainlabel& label, const domainname& rest) {
  const size_t ll = label.c[0];
  const size_t lr = name_length(rest);
  if (ll == 0 || ll > MAX_DOMAIN_LABEL || lr == 0 || 1 + ll + lr > kMaxNameLength)
    return false;
  domainname tmp;  // `out` may be `rest`
  std::memcpy(tmp.c, label.c, 1 + ll);
  std::memcpy(tmp.c + 1 + ll, rest.c, lr);
  std::memcpy(out.c, tmp.c, 1 + ll + lr);
  return true;
}

void set_root(domainname& name) {
  name.c[0] = 0;
}

size_t label_count(const domainname& name) {
  if (name_length(name) == 0)
    return 0;
  size_t count = 0;
  for (size_t i = 0; name.c[i] != 0; i += 1 + name.c[i])
    ++count;
  return count;
}

bool copy_name(domainname& out, const domainname& in) {
  const size_t len = name_length(in);
  if (len == 0)
    return false;
  std::memmove(out.c, in.c, len);
  return true;
}

const uint8_t* skip_labels(const domainname& name, size_t count) {
  if (name_length(name) == 0)
    return nullptr;
  size_t i = 0;
  for (; count > 0; --count) {
    if (name.c[i] == 0)
      return nullptr;
    i += 1 + name.c[i];
  }
  return name.c + i;
}

bool label_equals(const uint8_t* label, const char* text) {
  const size_t len = std::strlen(text);
  if (label[0] != len)
    return false;
  for (size_t i = 0; i < len; ++i) {
    if (ascii_lower(label[1 + i]) != ascii_lower(static_cast<uint8_t>(text[i])))
      return false;
  }
  return true;
}

}  // namespace mdns
