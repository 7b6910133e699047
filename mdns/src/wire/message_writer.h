// Building outgoing mDNS query messages.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Writes a query message into a caller buffer, compressing names against those
// already written.  Every add_* either writes the whole item or nothing (and
// returns false when it does not fit), so a caller can fill a packet and carry
// the rest over to the next one.  Questions come before known answers: a
// question added after a known answer is refused.  Names are compressed only
// against byte-identical earlier names, so every name keeps its case.  PTR data
// is compressed; SRV targets are written whole, which every reader accepts.
class QueryWriter {
 public:
  static constexpr int kMaxCompressionTargets = 64;

  QueryWriter(uint8_t* buffer, size_t capacity, uint16_t id = 0, uint16_t flags = 0);

  bool add_question(const domainname& name, uint16_t qtype, uint16_t qclass, bool unicast_response = false);
  // A known answer: a cached record with its remaining TTL.
  bool add_known_answer(const domainname& name, uint16_t rrtype, uint16_t rrclass, uint32_t ttl,
                        const RData& rdata);
  void set_truncated();  // TC bit: more known answers follow

  // Finishes the header (ID, flags, counts) and returns the message length.
  size_t finish();
  uint16_t question_count() const { return qdcount_; }
  uint16_t answer_count() const { return ancount_; }
  size_t size() const { return pos_; }  // bytes written so far, header included

 private:
  struct Mark {
    size_t pos;
    int target_count;
  };
  Mark mark() const { return {pos_, target_count_}; }
  bool rollback(Mark m);  // returns false, for `return rollback(m);`
  bool put_u8(uint8_t v);
  bool put_u16(uint16_t v);
  bool put_u32(uint32_t v);
  bool put_bytes(const uint8_t* p, size_t n);
  int find_target(const uint8_t* suffix, size_t length) const;
  bool write_name(const domainname& name);
  bool write_name_uncompressed(const domainname& name);
  bool write_rdata(uint16_t rrtype, const RData& rdata);

  uint8_t* buf_;
  size_t cap_;
  size_t pos_;
  uint16_t qdcount_ = 0;
  uint16_t ancount_ = 0;
  uint16_t id_;
  uint16_t flags_;
  uint16_t targets_[kMaxCompressionTargets];        // offsets of names (and their suffixes) written
  uint32_t target_hashes_[kMaxCompressionTargets];  // of each one's bytes, uncompressed
  int target_count_ = 0;
};

}  // namespace mdns
