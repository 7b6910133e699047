#include "wire/message_reader.h"

#include <cstring>

#include "wire/constants.h"
#include "wire/names.h"

namespace mdns {

namespace {

constexpr size_t kSrvFixedSize = 6;

}  // namespace

bool Reader::read_u8(uint8_t& out) {
  if (remaining() < 1)
    return false;
  out = msg_[pos_++];
  return true;
}

bool Reader::read_u16(uint16_t& out) {
  if (remaining() < 2)
    return false;
  out = static_cast<uint16_t>(msg_[pos_] << 8 | msg_[pos_ + 1]);
  pos_ += 2;
  return true;
}

bool Reader::read_u32(uint32_t& out) {
  if (remaining() < 4)
    return false;
  out = static_cast<uint32_t>(msg_[pos_]) << 24 | static_cast<uint32_t>(msg_[pos_ + 1]) << 16 |
        static_cast<uint32_t>(msg_[pos_ + 2]) << 8 | msg_[pos_ + 3];
  pos_ += 4;
  return true;
}

bool Reader::read_bytes(uint8_t* out, size_t n) {
  if (remaining() < n)
    return false;
  if (n > 0)
    std::memcpy(out, msg_ + pos_, n);
  pos_ += n;
  return true;
}

bool Reader::skip(size_t n) {
  if (remaining() < n)
    return false;
  pos_ += n;
  return true;
}

bool Reader::seek(size_t position) {
  if (position > len_)
    return false;
  pos_ = position;
  return true;
}

Reader Reader::limited_to(size_t end) const {
  Reader r(msg_, end < len_ ? end : len_);
  r.pos_ = pos_ < r.len_ ? pos_ : r.len_;
  return r;
}

// Iterative on purpose: a hostile pointer chain must cost bounded stack and time.
// Each pointer must land before the start of the run of labels it ends, so the
// positions visited strictly decrease and no loop (not even through a later
// label of the same name) can form; kMaxCompressionPointers bounds it further.
bool Reader::read_name(domainname& out, size_t* last_label) {
  size_t pos = pos_;
  size_t run_start = pos_;
  size_t resume = 0;  // where the cursor goes after the name; set at the first pointer or the root
  int pointers = 0;
  size_t written = 0;
  for (;;) {
    if (pos >= len_)
      return false;
    const uint8_t b = msg_[pos];
    if ((b & 0xC0) == 0xC0) {
      if (pos + 1 >= len_)
        return false;
      const size_t target = static_cast<size_t>(b & 0x3F) << 8 | msg_[pos + 1];
      if (target >= run_start || ++pointers > kMaxCompressionPointers)
        return false;
      if (pointers == 1)
        resume = pos + 2;
      pos = target;
      run_start = target;
      continue;
    }
    if (b > MAX_DOMAIN_LABEL)
      return false;  // 0x40 and 0x80 label types are reserved
    if (b == 0) {
      out.c[written++] = 0;
      if (pointers == 0)
        resume = pos + 1;
      break;
    }
    if (pos + 1 + b > len_ || written + 1 + b + 1 > kMaxNameLength)
      return false;
    std::memcpy(out.c + written, msg_ + pos, 1 + b);
    if (last_label != nullptr) {
      *last_label = written;
    }
    written += 1 + b;
    pos += 1 + b;
  }
  pos_ = resume;
  return true;
}

MessageParser::MessageParser(const uint8_t* message, size_t length) : reader_(message, length) {}

bool MessageParser::read_header(MessageHeader& out) {
  Reader r = reader_;
  r.seek(0);
  MessageHeader h;
  if (!r.read_u16(h.id) || !r.read_u16(h.flags) || !r.read_u16(h.qdcount) || !r.read_u16(h.ancount) ||
      !r.read_u16(h.nscount) || !r.read_u16(h.arcount)) {
    return false;
  }
  reader_ = r;
  header_ = h;
  out = h;
  questions_left_ = h.qdcount;
  answers_left_ = h.ancount;
  authorities_left_ = h.nscount;
  additionals_left_ = h.arcount;
  return true;
}

void MessageParser::stop() {
  questions_left_ = answers_left_ = authorities_left_ = additionals_left_ = 0;
  failed_ = true;
}

// The counts promised more, but the data ends exactly here: a whole message.
MessageParser::Result MessageParser::end_at_data_end() {
  questions_left_ = answers_left_ = authorities_left_ = additionals_left_ = 0;
  return Result::kEnd;
}

MessageParser::Result MessageParser::next_question(ParsedQuestion& out) {
  if (failed_)
    return Result::kMalformed;
  if (questions_left_ == 0)
    return Result::kEnd;
  if (reader_.remaining() == 0)
    return end_at_data_end();
  uint16_t qclass;
  if (!reader_.read_name(out.name) || !reader_.read_u16(out.qtype) || !reader_.read_u16(qclass)) {
    stop();
    return Result::kMalformed;
  }
  out.qclass = static_cast<uint16_t>(qclass & ~kClassTopBit);
  out.unicast_response = (qclass & kClassTopBit) != 0;
  --questions_left_;
  return Result::kOk;
}

bool MessageParser::next_section(Section& section) {
  if (answers_left_ > 0) {
    --answers_left_;
    section = Section::kAnswer;
  } else if (authorities_left_ > 0) {
    --authorities_left_;
    section = Section::kAuthority;
  } else if (additionals_left_ > 0) {
    --additionals_left_;
    section = Section::kAdditional;
  } else {
    return false;
  }
  return true;
}

MessageParser::Result MessageParser::next_record(ParsedRecord& out) {
  ParsedQuestion unused;
  while (questions_left_ > 0) {  // questions the caller did not read
    const Result r = next_question(unused);
    if (r != Result::kOk)
      return r;
  }
  if (failed_)
    return Result::kMalformed;
  if (answers_left_ + authorities_left_ + additionals_left_ == 0)
    return Result::kEnd;
  if (reader_.remaining() == 0)
    return end_at_data_end();

  uint16_t rrclass;
  uint16_t rdlength;
  if (!reader_.read_name(out.name, &out.name_last_label) || !reader_.read_u16(out.rrtype) ||
      !reader_.read_u16(rrclass) || !reader_.read_u32(out.ttl) || !reader_.read_u16(rdlength) ||
      reader_.remaining() < rdlength) {
    stop();
    return Result::kMalformed;
  }
  next_section(out.section);
  out.rrclass = static_cast<uint16_t>(rrclass & ~kClassTopBit);
  out.cache_flush = (rrclass & kClassTopBit) != 0;
  out.received_rdlength = rdlength;
  out.rdata_truncated = false;
  out.rdata.MaxRDLength = sizeof(RDataBody);
  out.rdata.length = 0;

  Reader data = reader_.limited_to(reader_.position() + rdlength);
  reader_.skip(rdlength);
  return read_rdata(data, out) ? Result::kOk : Result::kSkipped;
}

namespace {

bool read_name_exactly(Reader& data, domainname& out) {
  return data.read_name(out) && data.remaining() == 0;
}

bool read_raw(Reader& data, ParsedRecord& out) {
  size_t n = data.remaining();
  if (n > mDNS_MaxRDataSize) {
    n = mDNS_MaxRDataSize;
    out.rdata_truncated = true;
  }
  out.rdata.length = static_cast<uint16_t>(n);
  return data.read_bytes(out.rdata.u.data, n);
}

// NSEC keeps the next-domain name decompressed, followed by the type bitmaps.
bool read_nsec(Reader& data, ParsedRecord& out) {
  domainname next;
  if (!data.read_name(next))
    return false;
  const size_t name_len = name_length(next);
  std::memcpy(out.rdata.u.data, next.c, name_len);
  size_t n = data.remaining();
  if (name_len + n > mDNS_MaxRDataSize) {
    n = mDNS_MaxRDataSize - name_len;
    out.rdata_truncated = true;
  }
  out.rdata.length = static_cast<uint16_t>(name_len + n);
  return data.read_bytes(out.rdata.u.data + name_len, n);
}

}  // namespace

bool MessageParser::read_rdata(Reader& data, ParsedRecord& out) {
  RData& rd = out.rdata;
  switch (out.rrtype) {
    case kDNSType_A:
      if (data.remaining() != 4)
        return false;
      rd.length = 4;
      return data.read_bytes(rd.u.ipv4.b, 4);
    case kDNSType_AAAA:
      if (data.remaining() != 16)
        return false;
      rd.length = 16;
      return data.read_bytes(rd.u.ipv6.b, 16);
    case kDNSType_PTR:
    case kDNSType_CNAME:
      if (!read_name_exactly(data, rd.u.name))
        return false;
      rd.length = static_cast<uint16_t>(name_length(rd.u.name));
      return true;
    case kDNSType_SRV:
      if (data.remaining() < kSrvFixedSize + 1 || !data.read_u16(rd.u.srv.priority) ||
          !data.read_u16(rd.u.srv.weight) || !data.read_bytes(rd.u.srv.port.b, 2) ||
          !read_name_exactly(data, rd.u.srv.target)) {
        return false;
      }
      rd.length = static_cast<uint16_t>(kSrvFixedSize + name_length(rd.u.srv.target));
      return true;
    case kDNSType_NSEC:
      return read_nsec(data, out);
    default:
      return read_raw(data, out);
  }
}

}  // namespace mdns
