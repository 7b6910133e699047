// Builds DNS messages for tests from their presentation form: the one place
// where tests turn names and records into bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sorvalen::test {

using Bytes = std::vector<uint8_t>;

// Wire form, uncompressed.  "\." and "\DDD" escape a dot or any byte; "." is
// the root.  Throws std::invalid_argument on a label over 63 bytes.
Bytes wire_name(const std::string& dotted);

// A, AAAA, CNAME, PTR, TXT, SRV, NSEC, SOA, ANY or TYPE<n>.  Throws on others.
uint16_t type_code(const std::string& mnemonic);
std::string type_name(uint16_t code);

// Record data from its fields: A/AAAA an address; PTR/CNAME a name; SRV
// priority weight port target; TXT one string per field.  Any type: "hex" and
// hex digits.  Throws on other types and bad fields.
Bytes record_data(uint16_t type, const std::vector<std::string>& fields);

void append_u16(Bytes& out, unsigned value);

struct Record {  // class IN
  std::string name;
  uint16_t type = 0;
  uint32_t ttl = 120;
  Bytes data;
  bool cache_flush = false;
};

class DnsMessage {
 public:
  enum Section { kAnswer, kAuthority, kAdditional };

  explicit DnsMessage(uint16_t id = 0, uint16_t flags = 0x8400) : id_(id), flags_(flags) {}

  DnsMessage& question(const std::string& name, uint16_t type, bool unicast_response = false);
  DnsMessage& add(Section section, const Record& record);
  DnsMessage& answer(const std::string& name, uint16_t type, uint32_t ttl, const Bytes& data) {
    return add(kAnswer, Record{name, type, ttl, data});
  }
  Bytes bytes() const;

 private:
  uint16_t id_;
  uint16_t flags_;
  uint16_t counts_[4] = {};
  Bytes questions_;
  Bytes sections_[3];
};

}  // namespace sorvalen::test
