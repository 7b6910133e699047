#include "wire/names.h"

#include <cstring>

#include "wire/constants.h"

namespace mdns {

size_t name_length(const domainname& name) {
  size_t i = 0;
  while (i < kMaxNameLength) {
    const uint8_t len = name.c[i];
    if (len == 0) {
      return i + 1;
    }
    if (len > MAX_DOMAIN_LABEL) {
      return 0;  // also rejects 0x40 / 0x80 / 0xC0 label types
    }
    i += 1 + len;
  }
  return 0;
}

bool append_name(domainname& head, const domainname& tail) {
  const size_t lh = name_length(head);
  const size_t lt = name_length(tail);
  if (lh == 0 || lt == 0 || lh - 1 + lt > kMaxNameLength) {
    return false;
  }
  std::memmove(head.c + lh - 1, tail.c, lt);
  return true;
}

bool prepend_label(domainname& out, const domainlabel& label, const domainname& rest) {
  const size_t ll = label.c[0];
  const size_t lr = name_length(rest);
  if (ll == 0 || ll > MAX_DOMAIN_LABEL || lr == 0 || 1 + ll + lr > kMaxNameLength) {
    return false;
  }
  domainname tmp;  // `out` may be `rest`
  std::memcpy(tmp.c, label.c, 1 + ll);
  std::memcpy(tmp.c + 1 + ll, rest.c, lr);
  std::memcpy(out.c, tmp.c, 1 + ll + lr);
  return true;
}

size_t label_count(const domainname& name) {
  if (name_length(name) == 0) {
    return 0;
  }
  size_t count = 0;
  for (size_t i = 0; name.c[i] != 0; i += 1 + name.c[i]) {
    ++count;
  }
  return count;
}

bool copy_name(domainname& out, const domainname& in) {
  const size_t len = name_length(in);
  if (len == 0) {
    return false;
  }
  std::memmove(out.c, in.c, len);
  return true;
}

const uint8_t* skip_labels(const domainname& name, size_t count) {
  if (name_length(name) == 0) {
    return nullptr;
  }
  size_t i = 0;
  for (; count > 0; --count) {
    if (name.c[i] == 0) {
      return nullptr;
    }
    i += 1 + name.c[i];
  }
  return name.c + i;
}

bool label_equals(const uint8_t* label, const char* text) {
  const size_t len = std::strlen(text);
  if (label[0] != len) {
    return false;
  }
  for (size_t i = 0; i < len; ++i) {
    const auto lower = [](uint8_t c) { return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c + 32) : c; };
    if (lower(label[1 + i]) != lower(static_cast<uint8_t>(text[i]))) {
      return false;
    }
  }
  return true;
}

namespace {

// The last label is "local", without regard to ASCII case (| 0x20 lowers
// exactly the letters' capitals here).
bool is_local_label(const uint8_t* label) {
  return label[0] == 5 && (label[1] | 0x20) == 'l' && (label[2] | 0x20) == 'o' && (label[3] | 0x20) == 'c' &&
         (label[4] | 0x20) == 'a' && (label[5] | 0x20) == 'l';
}

}  // namespace

// The link-local reverse zones, for a name whose last label is "arpa" and
// that has `count` labels.
bool in_link_local_reverse_zone(const domainname& name, size_t count) {
  if (count < 4) {
    return false;
  }
  const uint8_t* label = skip_labels(name, count - 4);
  const uint8_t* l[4];
  for (const uint8_t*& each : l) {
    each = label;
    label += 1u + label[0];
  }
  if (label_equals(l[2], "in-addr")) {
    return label_equals(l[1], "169") && label_equals(l[0], "254");
  }
  // fe80::/10: the nibbles f, e, then 8, 9, a or b.
  if (count < 5 || !label_equals(l[2], "ip6") || !label_equals(l[1], "f") || !label_equals(l[0], "e")) {
    return false;
  }
  const uint8_t* nibble = skip_labels(name, count - 5);
  return label_equals(nibble, "8") || label_equals(nibble, "9") || label_equals(nibble, "a") ||
         label_equals(nibble, "b");
}

// Called for every new record received on the link: one walk to the last
// label, which is "local" for almost all of them.
bool name_is_link_local(const domainname& name) {
  const uint8_t* last = nullptr;
  size_t count = 0;
  size_t at = 0;
  while (name.c[at] != 0) {
    if (name.c[at] > MAX_DOMAIN_LABEL || at + 1u + name.c[at] >= MAX_DOMAIN_NAME) {
      return false;
    }
    last = &name.c[at];
    ++count;
    at += 1u + name.c[at];
  }
  if (last == nullptr) {
    return false;
  }
  return is_local_label(last) || (label_equals(last, "arpa") && in_link_local_reverse_zone(name, count));
}

bool name_is_link_local(const domainname& name, size_t last_label) {
  if (last_label >= kMaxNameLength || name.c[last_label] == 0) {
    return false;
  }
  return is_local_label(&name.c[last_label]) || name_is_link_local(name);
}

}  // namespace mdns
