// What makes two names, and two records, the same: names compare without
// regard to ASCII case; record data compares in canonical (decompressed) form,
// with names inside it compared the same way.  Each hash is equal whenever
// its equality holds.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

bool names_equal(const domainname& a, const domainname& b);
// Wire bytes (labels with their length bytes) equal without regard to ASCII case.
bool wire_equal(const uint8_t* a, const uint8_t* b, size_t n);
// Of wire bytes, without regard to ASCII case: equal when wire_equal holds.
uint32_t wire_hash(const uint8_t* bytes, size_t n);
uint32_t name_hash(const domainname& name);

bool rdata_equal(uint16_t rrtype, const RData& a, const RData& b);
uint32_t rdata_hash(uint16_t rrtype, const RData& rdata);

// True when `name` is `ancestor` or a name under it.
bool name_is_under(const domainname& name, const domainname& ancestor);

// Whether `name` is exactly one label (returned in `label`) followed by `parent`.
bool split_first_label(const domainname& name, const domainname& parent, domainlabel& label);

// Same owner, type, class and data: one record.
bool same_record(const ResourceRecord& a, const ResourceRecord& b);

// The same IPv4 or IPv6 address.
bool addresses_equal(const mDNSAddr& a, const mDNSAddr& b);

}  // namespace mdns
