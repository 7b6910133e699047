// Building outgoing mDNS query messages.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Writes a query message into a caller buffer, compressing names against those
// already written.  Every add_* either writes the whole item or nothing (and
// returns false when it does not fit), so a caller can fill a packet and carry
// the rest over to the next one.
class QueryWriter {
 public:
  static constexpr int kMaxCompressionTargets = 64;

  QueryWriter(uint8_t* buffer, size_t capacity);

  bool add_question(const domainname& name, uint16_t qtype, uint16_t qclass, bool unicast_response = false);
  // A known answer: a cached record with its remaining TTL.
  bool add_known_answer(const domainname& name, uint16_t rrtype, uint16_t rrclass, uint32_t ttl,
                        const RData& rdata);
  void set_truncated();  // TC bit: more known answers follow

  // Finishes the header (ID 0, counts) and returns the message length.
  size_t finish();
  uint16_t question_count() const { return qdcount_; }
  uint16_t answer_count() const { return ancount_; }

 private:
  bool write_name(const domainname& name);
  uint8_t* buf_;
  size_t cap_;
  size_t pos_;
  uint16_t qdcount_ = 0;
  uint16_t ancount_ = 0;
  bool truncated_ = false;
  uint16_t targets_[kMaxCompressionTargets];  // offsets of names (and their suffixes) written
  int target_count_ = 0;
};

}  // namespace mdns
