#include "wire/identity.h"

#include <cstring>

#include "wire/constants.h"
#include "wire/names.h"

namespace mdns {
namespace {

uint8_t ascii_lower(uint8_t c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<uint8_t>(c + ('a' - 'A')) : c;
}

uint32_t fnv1a_lowered(const uint8_t* bytes, size_t n, uint32_t h = 2166136261u) {
  for (size_t i = 0; i < n; ++i) {
    h = (h ^ ascii_lower(bytes[i])) * 16777619u;
  }
  return h;
}

// NSEC data is the next name (decompressed) followed by the type bitmaps.
bool nsec_equal(const RData& a, const RData& b) {
  domainname na{};
  domainname nb{};
  const size_t len = a.length < sizeof(na.c) ? a.length : sizeof(na.c);
  std::memcpy(na.c, a.u.data, len);
  std::memcpy(nb.c, b.u.data, len);
  const size_t name_len = name_length(na);
  if (name_len == 0 || name_len > a.length || !names_equal(na, nb)) {
    return std::memcmp(a.u.data, b.u.data, a.length) == 0;
  }
  return std::memcmp(a.u.data + name_len, b.u.data + name_len, a.length - name_len) == 0;
}

}  // namespace

uint32_t wire_hash(const uint8_t* bytes, size_t n) {
  return fnv1a_lowered(bytes, n);
}

bool wire_equal(const uint8_t* a, const uint8_t* b, size_t n) {
  // Length bytes are at most 63, below 'A', so lowering the whole wire form is safe.
  for (size_t i = 0; i < n; ++i) {
    if (a[i] != b[i] && ascii_lower(a[i]) != ascii_lower(b[i])) {
      return false;
    }
  }
  return true;
}

// One pass over both, label by label: equal length bytes, equal labels, until
// the root; false for a malformed name.
bool names_equal(const domainname& a, const domainname& b) {
  size_t i = 0;
  for (;;) {
    const uint8_t len = a.c[i];
    if (len != b.c[i] || len > MAX_DOMAIN_LABEL || i + 1 + len > kMaxNameLength) {
      return false;
    }
    if (len == 0) {
      return true;
    }
    if (!wire_equal(a.c + i + 1, b.c + i + 1, len)) {
      return false;
    }
    i += 1 + static_cast<size_t>(len);
  }
}

uint32_t name_hash(const domainname& name) {
  uint32_t h = 2166136261u;
  size_t i = 0;
  for (;;) {
    const uint8_t len = name.c[i];
    if (len > MAX_DOMAIN_LABEL || i + 1 + len > kMaxNameLength) {
      return 0;  // malformed: equal to nothing anyway
    }
    h = fnv1a_lowered(name.c + i, 1 + static_cast<size_t>(len), h);
    if (len == 0) {
      return h;
    }
    i += 1 + static_cast<size_t>(len);
  }
}

bool rdata_equal(uint16_t rrtype, const RData& a, const RData& b) {
  if (a.length != b.length) {
    return false;
  }
  switch (rrtype) {
    case kDNSType_PTR:
    case kDNSType_CNAME:
      return names_equal(a.u.name, b.u.name);
    case kDNSType_SRV:
      return a.u.srv.priority == b.u.srv.priority && a.u.srv.weight == b.u.srv.weight &&
             a.u.srv.port.NotAnInteger == b.u.srv.port.NotAnInteger &&
             names_equal(a.u.srv.target, b.u.srv.target);
    case kDNSType_NSEC:
      return nsec_equal(a, b);
    default: {
      const size_t len = a.length < mDNS_MaxRDataSize ? a.length : mDNS_MaxRDataSize;
      return std::memcmp(a.u.data, b.u.data, len) == 0;
    }
  }
}

uint32_t rdata_hash(uint16_t rrtype, const RData& rdata) {
  switch (rrtype) {
    case kDNSType_PTR:
    case kDNSType_CNAME:
      return name_hash(rdata.u.name);
    case kDNSType_SRV:
      return name_hash(rdata.u.srv.target) ^ (static_cast<uint32_t>(rdata.u.srv.port.NotAnInteger) << 16) ^
             rdata.u.srv.priority ^ (static_cast<uint32_t>(rdata.u.srv.weight) << 8);
    default: {
      // Lowered bytes: NSEC's next name compares without case, and for other
      // data a hash that ignores case is merely less selective.
      const size_t n = rdata.length < sizeof(rdata.u.data) ? rdata.length : sizeof(rdata.u.data);
      return fnv1a_lowered(rdata.u.data, n);
    }
  }
}

bool same_record(const ResourceRecord& a, const ResourceRecord& b) {
  return a.rrtype == b.rrtype && a.rrclass == b.rrclass && a.namehash == b.namehash &&
         names_equal(*a.name, *b.name) && rdata_equal(a.rrtype, *a.rdata, *b.rdata);
}

bool name_is_under(const domainname& name, const domainname& ancestor) {
  const size_t n = label_count(name);
  const size_t a = label_count(ancestor);
  if (name_length(name) == 0 || name_length(ancestor) == 0 || n < a) {
    return false;
  }
  const uint8_t* rest = skip_labels(name, n - a);
  const size_t tail = name_length(name) - static_cast<size_t>(rest - name.c);
  return tail == name_length(ancestor) && wire_equal(rest, ancestor.c, tail);
}

bool split_first_label(const domainname& name, const domainname& parent, domainlabel& label) {
  const size_t first = name.c[0];
  const size_t rest = name_length(parent);
  if (first == 0 || first > MAX_DOMAIN_LABEL || rest == 0 || 1 + first + rest > kMaxNameLength ||
      !wire_equal(name.c + 1 + first, parent.c, rest)) {
    return false;
  }
  std::memcpy(label.c, name.c, 1 + first);
  return true;
}

bool addresses_equal(const mDNSAddr& a, const mDNSAddr& b) {
  return a.type == b.type && (a.type == mDNSAddrType_IPv4   ? std::memcmp(a.ip.v4.b, b.ip.v4.b, 4) == 0
                              : a.type == mDNSAddrType_IPv6 ? std::memcmp(a.ip.v6.b, b.ip.v6.b, 16) == 0
                                                            : true);
}

}  // namespace mdns
