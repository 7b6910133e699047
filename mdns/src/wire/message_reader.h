// Bounds-checked reading of received DNS messages.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// A cursor over one received message.  Every read can fail; a failed read leaves
// the cursor where it was.  Names are read with compression: pointers must land
// inside the message, earlier than the pointer itself (and earlier than the
// labels that lead to it), and at most kMaxCompressionPointers are followed.
class Reader {
 public:
  static constexpr int kMaxCompressionPointers = 32;

  Reader(const uint8_t* message, size_t length) : msg_(message), len_(length) {}

  bool read_u8(uint8_t& out);
  bool read_u16(uint16_t& out);  // big-endian
  bool read_u32(uint32_t& out);  // big-endian
  bool read_bytes(uint8_t* out, size_t n);
  bool skip(size_t n);
  // `last_label`, when given, receives where the name's last label begins in `out`.
  bool read_name(domainname& out,
                 size_t* last_label = nullptr);  // decompresses into wire form, advances past the name
  bool seek(size_t position);                    // absolute position, at most length()

  // A reader over the same message that ends at `end` (clamped to length()) and
  // starts at this reader's position: compression pointers may still reach any
  // earlier byte, but nothing at or after `end` is read.
  Reader limited_to(size_t end) const;

  size_t position() const { return pos_; }
  size_t remaining() const { return len_ - pos_; }
  const uint8_t* message() const { return msg_; }
  size_t length() const { return len_; }

 private:
  const uint8_t* msg_;
  size_t len_;
  size_t pos_ = 0;
};

struct MessageHeader {
  uint16_t id = 0;
  uint16_t flags = 0;
  uint16_t qdcount = 0;
  uint16_t ancount = 0;
  uint16_t nscount = 0;
  uint16_t arcount = 0;
};

enum class Section : uint8_t { kQuestion, kAnswer, kAuthority, kAdditional };

struct ParsedQuestion {
  domainname name;
  uint16_t qtype = 0;
  uint16_t qclass = 0;  // unicast-response bit removed
  bool unicast_response = false;
};

// One resource record with its data in canonical form: names inside PTR, SRV
// (target) and NSEC (next name) data are decompressed, so that two copies of the
// same record compare equal byte for byte (names case-insensitively).
struct ParsedRecord {
  Section section = Section::kAnswer;
  domainname name;
  uint16_t rrtype = 0;
  uint16_t rrclass = 0;  // cache-flush bit removed
  bool cache_flush = false;
  uint32_t ttl = 0;
  // rdata.length bytes of rdata.u in use, in canonical form: PTR the target's wire
  // length, SRV 6 + the target's wire length, NSEC the next name's wire length
  // plus the bitmaps, A 4, AAAA 16, anything else the received bytes.  This
  // canonical length is what a cached ResourceRecord's rdlength holds.
  RData rdata;
  bool rdata_truncated = false;    // data longer than mDNS_MaxRDataSize (TXT): first bytes kept
  size_t name_last_label = 0;      // where the owner name's last label begins
  uint16_t received_rdlength = 0;  // RDLENGTH as it was on the wire (names possibly compressed)
};

// Walks a message section by section.  next_question() is called qdcount times,
// then next_record() until it returns kEnd.  A malformed record whose extent is
// still known (RDLENGTH readable) yields kSkipped; anything else yields kMalformed
// and the rest of the message must be dropped.  Counts are not trusted: when the
// data ends exactly where a question or record would start, the message ends
// (kEnd); data ending anywhere else is kMalformed, and so is every later call.
// next_record() skips questions the caller did not read.  Record data must fill
// RDLENGTH exactly (a name in PTR/SRV data ending early, A not 4 bytes, AAAA not
// 16, SRV under 7 bytes: kSkipped).
class MessageParser {
 public:
  enum class Result { kOk, kSkipped, kEnd, kMalformed };

  MessageParser(const uint8_t* message, size_t length);

  bool read_header(MessageHeader& out);
  Result next_question(ParsedQuestion& out);
  Result next_record(ParsedRecord& out);

 private:
  void stop();
  Result end_at_data_end();
  bool next_section(Section& section);
  static bool read_rdata(Reader& data, ParsedRecord& out);

  Reader reader_;
  bool failed_ = false;
  MessageHeader header_;
  uint32_t questions_left_ = 0;
  uint32_t answers_left_ = 0;
  uint32_t authorities_left_ = 0;
  uint32_t additionals_left_ = 0;
};

}  // namespace mdns
