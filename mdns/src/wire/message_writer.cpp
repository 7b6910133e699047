#include "wire/message_writer.h"

#include <cstring>

#include "wire/constants.h"
#include "wire/identity.h"
#include "wire/message_reader.h"
#include "wire/names.h"

namespace mdns {

namespace {

constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxPointerOffset = 0x3FFF;

}  // namespace

QueryWriter::QueryWriter(uint8_t* buffer, size_t capacity, uint16_t id, uint16_t flags)
    : buf_(buffer),
      cap_(capacity),
      pos_(capacity < kHeaderSize ? capacity : kHeaderSize),
      id_(id),
      flags_(flags) {}

bool QueryWriter::rollback(Mark m) {
  pos_ = m.pos;
  target_count_ = m.target_count;
  return false;
}

bool QueryWriter::put_bytes(const uint8_t* p, size_t n) {
  if (pos_ < kHeaderSize || cap_ - pos_ < n)
    return false;
  if (n > 0)
    std::memcpy(buf_ + pos_, p, n);
  pos_ += n;
  return true;
}

bool QueryWriter::put_u8(uint8_t v) {
  return put_bytes(&v, 1);
}

bool QueryWriter::put_u16(uint16_t v) {
  const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  return put_bytes(b, 2);
}

bool QueryWriter::put_u32(uint32_t v) {
  const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                        static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  return put_bytes(b, 4);
}

// Finds an earlier written name (or suffix of one) equal byte for byte to the
// uncompressed `suffix`; its message offset, or -1.
int QueryWriter::find_target(const uint8_t* suffix, size_t length) const {
  const uint32_t hash = wire_hash(suffix, length);
  for (int i = 0; i < target_count_; ++i) {
    if (target_hashes_[i] != hash)
      continue;
    Reader r(buf_, pos_);
    domainname written;
    if (!r.seek(targets_[i]) || !r.read_name(written))
      continue;
    if (name_length(written) == length && std::memcmp(written.c, suffix, length) == 0)
      return targets_[i];
  }
  return -1;
}

bool QueryWriter::write_name(const domainname& name) {
  const size_t length = name_length(name);
  if (length == 0)
    return false;
  uint16_t new_targets[MAX_DOMAIN_NAME / 2];
  uint32_t new_hashes[MAX_DOMAIN_NAME / 2];
  int new_count = 0;
  size_t i = 0;
  while (name.c[i] != 0) {
    const int target = find_target(name.c + i, length - i);
    if (target >= 0) {
      if (!put_u16(static_cast<uint16_t>(0xC000 | target)))
        return false;
      break;
    }
    const size_t at = pos_;
    if (!put_bytes(name.c + i, 1 + name.c[i]))
      return false;
    if (at <= kMaxPointerOffset) {
      new_hashes[new_count] = wire_hash(name.c + i, length - i);
      new_targets[new_count++] = static_cast<uint16_t>(at);
    }
    i += 1 + name.c[i];
  }
  if (name.c[i] == 0 && !put_u8(0))
    return false;
  // Registered only now, so that a name never points into itself.
  for (int k = 0; k < new_count && target_count_ < kMaxCompressionTargets; ++k) {
    target_hashes_[target_count_] = new_hashes[k];
    targets_[target_count_++] = new_targets[k];
  }
  return true;
}

bool QueryWriter::write_name_uncompressed(const domainname& name) {
  const size_t length = name_length(name);
  return length != 0 && put_bytes(name.c, length);
}

bool QueryWriter::write_rdata(uint16_t rrtype, const RData& rdata) {
  switch (rrtype) {
    case kDNSType_A:
      return put_bytes(rdata.u.ipv4.b, 4);
    case kDNSType_AAAA:
      return put_bytes(rdata.u.ipv6.b, 16);
    case kDNSType_PTR:
      return write_name(rdata.u.name);
    case kDNSType_SRV:
      return put_u16(rdata.u.srv.priority) && put_u16(rdata.u.srv.weight) &&
             put_bytes(rdata.u.srv.port.b, 2) && write_name_uncompressed(rdata.u.srv.target);
    default:  // TXT, NSEC (kept in wire form, uncompressed) and anything else
      return rdata.length <= mDNS_MaxRDataSize && put_bytes(rdata.u.data, rdata.length);
  }
}

bool QueryWriter::add_question(const domainname& name, uint16_t qtype, uint16_t qclass,
                               bool unicast_response) {
  if (ancount_ > 0 || qdcount_ == UINT16_MAX)
    return false;
  const Mark m = mark();
  const uint16_t cls = static_cast<uint16_t>(unicast_response ? (qclass | kClassTopBit) : qclass);
  if (!write_name(name) || !put_u16(qtype) || !put_u16(cls))
    return rollback(m);
  ++qdcount_;
  return true;
}

bool QueryWriter::add_known_answer(const domainname& name, uint16_t rrtype, uint16_t rrclass, uint32_t ttl,
                                   const RData& rdata) {
  if (ancount_ == UINT16_MAX)
    return false;
  const Mark m = mark();
  if (!write_name(name) || !put_u16(rrtype) || !put_u16(rrclass) || !put_u32(ttl))
    return rollback(m);
  const size_t rdlength_at = pos_;
  if (!put_u16(0) || !write_rdata(rrtype, rdata))
    return rollback(m);
  const size_t rdlength = pos_ - rdlength_at - 2;
  buf_[rdlength_at] = static_cast<uint8_t>(rdlength >> 8);
  buf_[rdlength_at + 1] = static_cast<uint8_t>(rdlength);
  ++ancount_;
  return true;
}

void QueryWriter::set_truncated() {
  flags_ = static_cast<uint16_t>(flags_ | kFlagTruncated);
}

size_t QueryWriter::finish() {
  if (cap_ < kHeaderSize)
    return 0;
  const uint16_t fields[6] = {id_, flags_, qdcount_, ancount_, 0, 0};
  for (int i = 0; i < 6; ++i) {
    buf_[2 * i] = static_cast<uint8_t>(fields[i] >> 8);
    buf_[2 * i + 1] = static_cast<uint8_t>(fields[i]);
  }
  return pos_;
}

}  // namespace mdns
