// Builds DNS answers byte by byte for the reverse-lookup tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace sorvalen::test {

using Bytes = std::vector<uint8_t>;

inline void append(Bytes* out, const Bytes& more) {
  out->insert(out->end(), more.begin(), more.end());
}

inline void append_u16(Bytes* out, unsigned value) {
  append(out, {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xFF)});
}

// Length-prefixed labels of a dotted name, with the closing zero byte.
inline Bytes encoded_name(const std::string& dotted) {
  Bytes out;
  std::size_t start = 0;
  while (start < dotted.size()) {
    const std::size_t end = std::min(dotted.find('.', start), dotted.size());
    out.push_back(static_cast<uint8_t>(end - start));
    out.insert(out.end(), dotted.begin() + static_cast<long>(start), dotted.begin() + static_cast<long>(end));
    start = end + 1;
  }
  out.push_back(0);
  return out;
}

// Header with the given ID and ANCOUNT, followed by the question for `name`
// as a responder repeats it (QTYPE PTR, QCLASS IN).
inline Bytes answer_header(unsigned id, unsigned answer_count, const std::string& name) {
  Bytes out;
  for (unsigned field : {id, 0x8400u, 1u, answer_count, 0u, 0u})
    append_u16(&out, field);
  append(&out, encoded_name(name));
  append(&out, {0, 12, 0, 1});
  return out;
}

// One resource record with raw owner-name and RDATA bytes (class IN, TTL 120).
inline Bytes record(const Bytes& owner, unsigned type, const Bytes& rdata) {
  Bytes out = owner;
  for (unsigned field : {type, 1u, 0u, 120u, static_cast<unsigned>(rdata.size())})
    append_u16(&out, field);
  append(&out, rdata);
  return out;
}

inline Bytes ptr_record(const std::string& owner, const std::string& target) {
  return record(encoded_name(owner), 12, encoded_name(target));
}

// Priority and weight 0, target host.local.
inline Bytes srv_record(const std::string& owner, unsigned port) {
  Bytes rdata{0, 0, 0, 0};
  append_u16(&rdata, port);
  append(&rdata, encoded_name("host.local"));
  return record(encoded_name(owner), 33, rdata);
}

}  // namespace sorvalen::test
