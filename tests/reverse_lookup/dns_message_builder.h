// Builds DNS answers byte by byte for the reverse-lookup tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sorvalen::test {

using Bytes = std::vector<uint8_t>;

// Length-prefixed labels of a dotted name, with the closing zero byte.
inline Bytes encoded_name(const std::string& dotted) {
  Bytes out;
  std::string label;
  auto flush = [&] {
    out.push_back(static_cast<uint8_t>(label.size()));
    out.insert(out.end(), label.begin(), label.end());
    label.clear();
  };
  for (char c : dotted) {
    if (c == '.') {
      flush();
    } else {
      label.push_back(c);
    }
  }
  if (!label.empty())
    flush();
  out.push_back(0);
  return out;
}

inline void append_u16(Bytes* out, unsigned value) {
  out->push_back(static_cast<uint8_t>(value >> 8));
  out->push_back(static_cast<uint8_t>(value & 0xFF));
}

inline void append(Bytes* out, const Bytes& more) {
  out->insert(out->end(), more.begin(), more.end());
}

// Header with the given ID and ANCOUNT, followed by the question for `name`
// as a responder repeats it (QTYPE PTR, QCLASS IN).
inline Bytes answer_header(unsigned id, unsigned answer_count, const std::string& name) {
  Bytes out;
  append_u16(&out, id);
  append_u16(&out, 0x8400);  // response, authoritative
  append_u16(&out, 1);
  append_u16(&out, answer_count);
  append_u16(&out, 0);
  append_u16(&out, 0);
  append(&out, encoded_name(name));
  append_u16(&out, 12);
  append_u16(&out, 1);
  return out;
}

// One resource record with raw owner-name and RDATA bytes.
inline Bytes record(const Bytes& owner, unsigned type, const Bytes& rdata) {
  Bytes out = owner;
  append_u16(&out, type);
  append_u16(&out, 1);
  append_u16(&out, 0);
  append_u16(&out, 120);  // TTL
  append_u16(&out, static_cast<unsigned>(rdata.size()));
  append(&out, rdata);
  return out;
}

inline Bytes ptr_record(const std::string& owner, const std::string& target) {
  return record(encoded_name(owner), 12, encoded_name(target));
}

inline Bytes srv_record(const std::string& owner, unsigned port) {
  Bytes rdata;
  append_u16(&rdata, 0);  // priority
  append_u16(&rdata, 0);  // weight
  append_u16(&rdata, port);
  append(&rdata, encoded_name("host.local"));
  return record(encoded_name(owner), 33, rdata);
}

}  // namespace sorvalen::test
