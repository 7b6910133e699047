// Parsing received messages: well-formed responses and hostile ones.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "message_reader.h"
#include "names.h"

namespace {

using mdns::MessageHeader;
using mdns::MessageParser;
using mdns::ParsedQuestion;
using mdns::ParsedRecord;
using mdns::Reader;
using Result = MessageParser::Result;

// Builds raw messages byte by byte, so that tests can write what no sane
// encoder would.
struct Bytes {
  std::vector<uint8_t> b;

  size_t size() const { return b.size(); }
  Bytes& u8(unsigned v) {
    b.push_back(static_cast<uint8_t>(v));
    return *this;
  }
  Bytes& u16(unsigned v) { return u8(v >> 8).u8(v & 0xFF); }
  Bytes& u32(uint32_t v) { return u16(v >> 16).u16(v & 0xFFFF); }
  Bytes& raw(const std::string& s) {
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
  Bytes& label(const std::string& s) { return u8(static_cast<unsigned>(s.size())).raw(s); }
  // Labels of a dotted name, then the root unless `terminate` is false.
  Bytes& name(const std::string& dotted, bool terminate = true) {
    size_t start = 0;
    while (start < dotted.size()) {
      size_t dot = dotted.find('.', start);
      if (dot == std::string::npos)
        dot = dotted.size();
      label(dotted.substr(start, dot - start));
      start = dot + 1;
    }
    return terminate ? u8(0) : *this;
  }
  Bytes& ptr(size_t offset) { return u16(0xC000 | static_cast<unsigned>(offset)); }
  Bytes& header(unsigned qd, unsigned an, unsigned ns = 0, unsigned ar = 0, unsigned flags = 0x8400) {
    return u16(0).u16(flags).u16(qd).u16(an).u16(ns).u16(ar);
  }
  // A record's type, class, TTL, RDLENGTH and data (owner name written before).
  Bytes& rr(unsigned type, uint32_t ttl, const Bytes& data, unsigned cls = kDNSClass_IN) {
    return u16(type).u16(cls).u32(ttl).u16(static_cast<unsigned>(data.size())).raw(data.b);
  }
  Bytes& raw(const std::vector<uint8_t>& v) {
    b.insert(b.end(), v.begin(), v.end());
    return *this;
  }
};

domainname name_of(const char* text) {
  domainname n;
  EXPECT_NE(MakeDomainNameFromDNSNameString(&n, text), nullptr);
  return n;
}

bool read_name_at(const Bytes& m, size_t pos, domainname& out, size_t* after = nullptr) {
  Reader r(m.b.data(), m.size());
  EXPECT_TRUE(r.seek(pos));
  const bool ok = r.read_name(out);
  if (after != nullptr) {
    *after = r.position();
  }
  if (!ok) {
    EXPECT_EQ(r.position(), pos) << "a failed read must not move the cursor";
  }
  return ok;
}

// A response as a responder would send it: PTR answer, then SRV/TXT/A/AAAA/NSEC
// in the additional section, names compressed everywhere mDNS allows.
struct SampleResponse {
  Bytes m;
  std::vector<size_t> record_starts;
  SampleResponse() {
    constexpr unsigned kFlushIn = kDNSClass_IN | 0x8000;
    const size_t type_at = m.header(1, 1, 0, 5).size();
    m.name("_ipp._tcp.local").u16(kDNSType_PTR).u16(kFlushIn);
    const size_t local_at = type_at + 10;
    const size_t instance_at = start().ptr(type_at).size() + 10;
    m.rr(kDNSType_PTR, 4500, Bytes().label("Office Printer").ptr(type_at));
    const size_t host_at = start().ptr(instance_at).size() + 10 + 6;
    m.rr(kDNSType_SRV, 120, Bytes().u16(0).u16(5).u16(631).label("printer-3").ptr(local_at), kFlushIn);
    start()
        .ptr(instance_at)
        .rr(kDNSType_TXT, 4500, Bytes().label("txtvers=1").label("rp=ipp/print"), kFlushIn);
    start().ptr(host_at).rr(kDNSType_A, 120, Bytes().u32(0xC0A80714), kFlushIn);
    const std::string v6 = std::string("\xfe\x80", 2) + std::string(13, '\0') + "\x14";
    start().ptr(host_at).rr(kDNSType_AAAA, 120, Bytes().raw(v6), kFlushIn);
    start().ptr(host_at).rr(kDNSType_NSEC, 120, Bytes().ptr(host_at).u8(0).u8(4).u32(0x40000008), kFlushIn);
  }
  Bytes& start() {
    record_starts.push_back(m.size());
    return m;
  }
};

// Parses the whole message: the results of every question and record call.
std::vector<Result> parse_all(const uint8_t* data, size_t len, std::vector<ParsedRecord>* records = nullptr) {
  MessageParser p(data, len);
  MessageHeader h;
  std::vector<Result> results;
  if (!p.read_header(h))
    return results;
  for (unsigned i = 0; i < h.qdcount; ++i) {
    ParsedQuestion q;
    const Result r = p.next_question(q);
    results.push_back(r);
    if (r == Result::kEnd || r == Result::kMalformed)
      return results;
  }
  for (int guard = 0; guard < 70000; ++guard) {
    ParsedRecord rec;
    const Result r = p.next_record(rec);
    results.push_back(r);
    if (r == Result::kOk && records != nullptr)
      records->push_back(rec);
    if (r == Result::kEnd || r == Result::kMalformed)
      break;
  }
  return results;
}

TEST(ParseResponse, SampleResponseInFull) {
  SampleResponse s;
  MessageParser p(s.m.b.data(), s.m.size());
  MessageHeader h;
  ASSERT_TRUE(p.read_header(h));
  ParsedQuestion q;
  ASSERT_EQ(p.next_question(q), Result::kOk);
  EXPECT_TRUE(mdns::names_equal(q.name, name_of("_ipp._tcp.local")));
  EXPECT_EQ(q.qclass, kDNSClass_IN);
  EXPECT_TRUE(q.unicast_response);
  EXPECT_EQ(p.next_question(q), Result::kEnd);

  ParsedRecord r;
  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_EQ(r.section, mdns::Section::kAnswer);
  EXPECT_FALSE(r.cache_flush);
  EXPECT_EQ(r.ttl, 4500u);
  EXPECT_TRUE(mdns::names_equal(r.rdata.u.name, name_of("Office Printer._ipp._tcp.local")));
  EXPECT_EQ(r.rdata.length, mdns::name_length(r.rdata.u.name));
  EXPECT_EQ(r.received_rdlength, 17);

  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_EQ(r.section, mdns::Section::kAdditional);
  EXPECT_EQ(r.rrclass, kDNSClass_IN);
  EXPECT_TRUE(r.cache_flush);
  EXPECT_TRUE(mdns::names_equal(r.name, name_of("Office Printer._ipp._tcp.local")));
  EXPECT_EQ(r.rdata.u.srv.weight, 5);
  EXPECT_EQ(r.rdata.u.srv.port.b[0], 631 >> 8);
  EXPECT_EQ(r.rdata.u.srv.port.b[1], 631 & 0xFF);
  EXPECT_TRUE(mdns::names_equal(r.rdata.u.srv.target, name_of("printer-3.local")));
  EXPECT_EQ(r.rdata.length, 6 + mdns::name_length(r.rdata.u.srv.target));

  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_EQ(r.rrtype, kDNSType_TXT);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(r.rdata.u.data), r.rdata.length),
            "\x09txtvers=1\x0crp=ipp/print");

  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_TRUE(mdns::names_equal(r.name, name_of("printer-3.local")));
  EXPECT_EQ(r.rdata.length, 4);
  EXPECT_EQ(r.rdata.u.ipv4.b[3], 20);

  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_EQ(r.rdata.length, 16);
  EXPECT_EQ(r.rdata.u.ipv6.b[15], 0x14);

  ASSERT_EQ(p.next_record(r), Result::kOk);  // NSEC: the next name decompressed
  const std::string next("\x09printer-3\x05local\x00", 17);
  ASSERT_EQ(r.rdata.length, next.size() + 6);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(r.rdata.u.data), next.size()), next);
  EXPECT_EQ(r.rdata.u.data[next.size() + 1], 4);

  EXPECT_EQ(p.next_record(r), Result::kEnd);
  EXPECT_EQ(p.next_record(r), Result::kEnd);

  MessageParser skipping(s.m.b.data(), s.m.size());
  ASSERT_TRUE(skipping.read_header(h));
  ASSERT_EQ(skipping.next_record(r), Result::kOk) << "questions not read are skipped";
  EXPECT_EQ(r.rrtype, kDNSType_PTR);
}

TEST(ParseResponse, EveryTruncationEndsSafely) {
  SampleResponse s;
  std::vector<ParsedRecord> full_records;
  const std::vector<Result> full = parse_all(s.m.b.data(), s.m.size(), &full_records);
  ASSERT_EQ(full.size(), 8u);
  ASSERT_EQ(full.back(), Result::kEnd);

  for (size_t len = 0; len < s.m.size(); ++len) {
    // A copy of exactly `len` bytes, so that a sanitizer sees any read past it.
    std::vector<uint8_t> cut(s.m.b.begin(), s.m.b.begin() + static_cast<long>(len));
    std::vector<ParsedRecord> records;
    const std::vector<Result> got = parse_all(cut.data(), cut.size(), &records);
    if (len < 12) {
      EXPECT_TRUE(got.empty()) << len;
      continue;
    }
    ASSERT_FALSE(got.empty()) << len;
    bool at_record_boundary = len == 12;  // where the question starts
    for (size_t start : s.record_starts) {
      at_record_boundary |= (start == len);
    }
    EXPECT_EQ(got.back(), at_record_boundary ? Result::kEnd : Result::kMalformed) << len;
    // Whatever was accepted before the cut is what the full parse accepted.
    ASSERT_LE(records.size(), full_records.size()) << len;
    for (size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(records[i].rrtype, full_records[i].rrtype) << len;
      EXPECT_TRUE(mdns::rdata_equal(records[i].rrtype, records[i].rdata, full_records[i].rdata)) << len;
    }
  }
}

TEST(Compression, HostileNamesRejected) {
  struct Case {
    const char* what;
    Bytes m;
  };
  const Case cases[] = {
      {"self pointer", Bytes().header(0, 0).ptr(12)},
      {"forward pointer (pair pointing at each other)", Bytes().header(0, 0).ptr(14).ptr(12)},
      {"loop through the name's own label", Bytes().header(0, 0).label("a").ptr(12)},
      {"loop through a later label", Bytes().header(0, 0).label("x").label("a").ptr(14)},
      {"pointer past the end", Bytes().header(0, 0).ptr(0x3FFF)},
      {"pointer cut in half", Bytes().header(0, 0).u8(0xC0)},
      {"reserved label type 0x40", Bytes().header(0, 0).u8(0x40).u8(0)},
      {"reserved label type 0x80", Bytes().header(0, 0).u8(0x80).u8(0)},
      {"label of 64", Bytes().header(0, 0).u8(64).raw(std::string(64, 'x')).u8(0)},
      {"no root label", Bytes().header(0, 0).label("abc")},
      {"label past the end", Bytes().header(0, 0).u8(10).raw("abc")},
  };
  for (const Case& c : cases) {
    domainname out;
    EXPECT_FALSE(read_name_at(c.m, 12, out)) << c.what;
  }
}

TEST(Compression, PointerChainLimit) {
  // name at 12, then pointers each pointing at the previous one.
  for (int chain : {Reader::kMaxCompressionPointers, Reader::kMaxCompressionPointers + 1}) {
    Bytes m;
    m.header(0, 0).name("host.local");
    size_t prev = 12;
    for (int i = 0; i < chain; ++i) {
      const size_t here = m.size();
      m.ptr(prev);
      prev = here;
    }
    domainname out;
    size_t after = 0;
    const bool ok = read_name_at(m, prev, out, &after);
    EXPECT_EQ(ok, chain <= Reader::kMaxCompressionPointers) << chain;
    if (ok) {
      EXPECT_TRUE(mdns::names_equal(out, name_of("host.local")));
      EXPECT_EQ(after, prev + 2);
    }
  }
}

TEST(Compression, NameLengthLimitAcrossPointers) {
  // Four 63-byte labels reached through pointers: 256 wire bytes.
  const std::string l63(63, 'q');
  for (size_t last : {61u, 62u}) {
    Bytes m;
    m.header(0, 0);
    const size_t tail = m.size();
    m.label(std::string(last, 'z')).u8(0);
    const size_t third = m.size();
    m.label(l63).ptr(tail);
    const size_t second = m.size();
    m.label(l63).ptr(third);
    const size_t first = m.size();
    m.label(l63).ptr(second);
    domainname out;
    const bool ok = read_name_at(m, first, out);
    EXPECT_EQ(ok, last == 61u) << last;
    if (ok) {
      EXPECT_EQ(mdns::name_length(out), 255u);
    }
  }
}

TEST(HostileCounts, CountsBeyondTheData) {
  const Bytes a = Bytes().u32(0x0a000001);
  struct Case {
    const char* what;
    Bytes m;
    std::vector<Result> results;
  };
  const Case cases[] = {
      {"65535 of each promised, one question present: the message simply ends",
       Bytes().header(0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF).name("a.local").u16(1).u16(1),
       {Result::kOk, Result::kEnd}},
      {"many answers promised, one present and then a stray byte",
       Bytes().header(0, 0xFFFF).name("a.local").rr(kDNSType_A, 10, a).u8(7),
       {Result::kOk, Result::kMalformed}},
      {"RDLENGTH beyond the message",
       Bytes().header(0, 2).name("a.local").u16(kDNSType_TXT).u16(1).u32(10).u16(200).raw("abc"),
       {Result::kMalformed}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(parse_all(c.m.b.data(), c.m.size()), c.results) << c.what;
  }
}

TEST(RecordData, MalformedDataSkippedAndParsingGoesOn) {
  struct Case {
    const char* what;
    unsigned type;
    Bytes rdata;
  };
  // 12 is the message offset of the owner name "a.local": pointers to it are valid.
  const Case cases[] = {
      {"A of 5 bytes", kDNSType_A, Bytes().u32(0x01020304).u8(5)},
      {"A of 3 bytes", kDNSType_A, Bytes().u16(0x0102).u8(3)},
      {"AAAA of 4 bytes", kDNSType_AAAA, Bytes().u32(0x01020304)},
      {"SRV of 6 bytes", kDNSType_SRV, Bytes().u32(0).u16(80)},
      {"SRV target without root", kDNSType_SRV, Bytes().u32(0).u16(80).label("x")},
      {"PTR name running past RDLENGTH", kDNSType_PTR, Bytes().label("x")},
      {"PTR with bytes after the name", kDNSType_PTR, Bytes().ptr(12).u8(0)},
      {"PTR with a forward pointer", kDNSType_PTR, Bytes().ptr(0x3F)},
      {"PTR empty", kDNSType_PTR, Bytes()},
      {"NSEC without a name", kDNSType_NSEC, Bytes()},
  };
  for (const Case& c : cases) {
    Bytes m;
    m.header(0, 2).name("a.local").rr(c.type, 10, c.rdata);
    // The bytes after RDLENGTH would complete the name: they must not be read as rdata.
    m.ptr(12).rr(kDNSType_A, 10, Bytes().u32(0x0a000002));
    std::vector<ParsedRecord> records;
    const std::vector<Result> got = parse_all(m.b.data(), m.size(), &records);
    EXPECT_EQ(got, (std::vector<Result>{Result::kSkipped, Result::kOk, Result::kEnd})) << c.what;
    ASSERT_EQ(records.size(), 1u) << c.what;
    EXPECT_EQ(records[0].rdata.u.ipv4.b[3], 2) << c.what;
  }
}

TEST(RecordData, LongDataCutAtTheStoredSize) {
  Bytes data;
  for (int i = 0; i < 700; ++i) {
    data.u8(static_cast<unsigned>(i));
  }
  for (unsigned type : {unsigned{kDNSType_TXT}, 99u}) {
    Bytes m;
    m.header(0, 1).name("a.local").rr(type, 10, data);
    std::vector<ParsedRecord> records;
    EXPECT_EQ(parse_all(m.b.data(), m.size(), &records), (std::vector<Result>{Result::kOk, Result::kEnd}));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].rdata_truncated);
    EXPECT_EQ(records[0].rdata.length, mDNS_MaxRDataSize);
    EXPECT_EQ(records[0].received_rdlength, 700);
    EXPECT_EQ(records[0].rdata.u.data[511], 511 & 0xFF);
  }
}

TEST(RecordData, EqualityIsCanonical) {
  // The same SRV and PTR, once compressed and once not, with different case.
  Bytes m;
  m.header(0, 4).name("Host.Local").rr(kDNSType_SRV, 10, Bytes().u16(1).u16(2).u16(80).ptr(12));
  m.ptr(12).rr(kDNSType_SRV, 10, Bytes().u16(1).u16(2).u16(80).name("host.local"));
  m.ptr(12).rr(kDNSType_PTR, 10, Bytes().label("x").ptr(12));
  m.ptr(12).rr(kDNSType_PTR, 10, Bytes().name("X.HOST.local"));
  std::vector<ParsedRecord> r;
  parse_all(m.b.data(), m.size(), &r);
  ASSERT_EQ(r.size(), 4u);
  EXPECT_TRUE(mdns::rdata_equal(kDNSType_SRV, r[0].rdata, r[1].rdata));
  EXPECT_TRUE(mdns::rdata_equal(kDNSType_PTR, r[2].rdata, r[3].rdata));

  RData other = r[1].rdata;
  other.u.srv.port.b[1] = 81;
  EXPECT_FALSE(mdns::rdata_equal(kDNSType_SRV, r[0].rdata, other));
  other = r[1].rdata;
  other.u.srv.weight = 3;
  EXPECT_FALSE(mdns::rdata_equal(kDNSType_SRV, r[0].rdata, other));
  // TXT data compares byte for byte, case included.
  RData t1;
  RData t2;
  t1.length = t2.length = 2;
  std::memcpy(t1.u.data, "\1a", 2);
  std::memcpy(t2.u.data, "\1A", 2);
  EXPECT_FALSE(mdns::rdata_equal(kDNSType_TXT, t1, t2));
  t2.length = 1;
  EXPECT_FALSE(mdns::rdata_equal(kDNSType_TXT, t1, t2));
}

}  // namespace
