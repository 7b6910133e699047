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
  // Record fixed part; returns the offset of RDLENGTH for patch_rdlength().
  size_t record_head(unsigned type, unsigned cls, uint32_t ttl) {
    u16(type).u16(cls).u32(ttl);
    const size_t at = size();
    u16(0);
    return at;
  }
  void patch_rdlength(size_t at) {
    const size_t len = size() - at - 2;
    b[at] = static_cast<uint8_t>(len >> 8);
    b[at + 1] = static_cast<uint8_t>(len);
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
  if (after != nullptr)
    *after = r.position();
  if (!ok) {
    EXPECT_EQ(r.position(), pos) << "a failed read must not move the cursor";
  }
  return ok;
}

// A response as a responder would send it: PTR answer, then SRV/TXT/A/AAAA/NSEC
// in the additional section, names compressed everywhere mDNS allows.
struct SampleResponse {
  Bytes m;
  size_t record_starts[6] = {};
  SampleResponse() {
    m.header(1, 1, 0, 5);
    const size_t type_at = m.size();
    m.name("_ipp._tcp.local").u16(kDNSType_PTR).u16(kDNSClass_IN | 0x8000);
    const size_t local_at = type_at + 10;

    record_starts[0] = m.size();
    m.ptr(type_at);
    size_t rd = m.record_head(kDNSType_PTR, kDNSClass_IN, 4500);
    const size_t instance_at = m.size();
    m.label("Office Printer").ptr(type_at);
    m.patch_rdlength(rd);

    record_starts[1] = m.size();
    m.ptr(instance_at);
    rd = m.record_head(kDNSType_SRV, kDNSClass_IN | 0x8000, 120);
    const size_t host_at = m.size() + 6;
    m.u16(0).u16(5).u16(631).label("printer-3").ptr(local_at);
    m.patch_rdlength(rd);

    record_starts[2] = m.size();
    m.ptr(instance_at);
    rd = m.record_head(kDNSType_TXT, kDNSClass_IN | 0x8000, 4500);
    m.label("txtvers=1").label("rp=ipp/print");
    m.patch_rdlength(rd);

    record_starts[3] = m.size();
    m.ptr(host_at);
    rd = m.record_head(kDNSType_A, kDNSClass_IN | 0x8000, 120);
    m.u8(192).u8(168).u8(7).u8(20);
    m.patch_rdlength(rd);

    record_starts[4] = m.size();
    m.ptr(host_at);
    rd = m.record_head(kDNSType_AAAA, kDNSClass_IN | 0x8000, 120);
    m.u8(0xfe).u8(0x80);
    for (int i = 0; i < 13; ++i)
      m.u8(0);
    m.u8(0x14);
    m.patch_rdlength(rd);

    record_starts[5] = m.size();
    m.ptr(host_at);
    rd = m.record_head(kDNSType_NSEC, kDNSClass_IN | 0x8000, 120);
    m.ptr(host_at).u8(0).u8(4).u8(0x40).u8(0).u8(0).u8(0x08);
    m.patch_rdlength(rd);
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

TEST(ReaderPrimitives, BoundedReadsLeaveCursorOnFailure) {
  const uint8_t data[] = {0x12, 0x34, 0x56, 0x78, 0x9a};
  Reader r(data, sizeof data);
  uint32_t v32 = 0;
  uint16_t v16 = 0;
  uint8_t v8 = 0;
  ASSERT_TRUE(r.read_u32(v32));
  EXPECT_EQ(v32, 0x12345678u);
  EXPECT_FALSE(r.read_u16(v16));
  EXPECT_FALSE(r.read_u32(v32));
  EXPECT_FALSE(r.skip(2));
  uint8_t buf[2];
  EXPECT_FALSE(r.read_bytes(buf, 2));
  EXPECT_EQ(r.position(), 4u);
  ASSERT_TRUE(r.read_u8(v8));
  EXPECT_EQ(v8, 0x9a);
  EXPECT_FALSE(r.read_u8(v8));
  EXPECT_FALSE(r.seek(6));
  Reader limited = Reader(data, sizeof data).limited_to(2);
  EXPECT_EQ(limited.remaining(), 2u);
  EXPECT_FALSE(limited.read_u32(v32));
}

TEST(ParseResponse, SampleResponseInFull) {
  SampleResponse s;
  MessageParser p(s.m.b.data(), s.m.size());
  MessageHeader h;
  ASSERT_TRUE(p.read_header(h));
  EXPECT_EQ(h.flags, 0x8400);
  EXPECT_EQ(h.arcount, 5);

  ParsedQuestion q;
  ASSERT_EQ(p.next_question(q), Result::kOk);
  EXPECT_TRUE(mdns::names_equal(q.name, name_of("_ipp._tcp.local")));
  EXPECT_EQ(q.qtype, kDNSType_PTR);
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
  EXPECT_EQ(r.rdata.MaxRDLength, sizeof(RDataBody));

  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_EQ(r.section, mdns::Section::kAdditional);
  EXPECT_EQ(r.rrtype, kDNSType_SRV);
  EXPECT_EQ(r.rrclass, kDNSClass_IN);
  EXPECT_TRUE(r.cache_flush);
  EXPECT_TRUE(mdns::names_equal(r.name, name_of("Office Printer._ipp._tcp.local")));
  EXPECT_EQ(r.rdata.u.srv.priority, 0);
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
  EXPECT_EQ(r.rdata.u.ipv4.b[0], 192);
  EXPECT_EQ(r.rdata.u.ipv4.b[3], 20);

  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_EQ(r.rdata.length, 16);
  EXPECT_EQ(r.rdata.u.ipv6.b[0], 0xfe);
  EXPECT_EQ(r.rdata.u.ipv6.b[15], 0x14);

  ASSERT_EQ(p.next_record(r), Result::kOk);
  EXPECT_EQ(r.rrtype, kDNSType_NSEC);
  const std::string next("\x09printer-3\x05local\x00", 17);
  ASSERT_EQ(r.rdata.length, next.size() + 6);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(r.rdata.u.data), next.size()), next);
  EXPECT_EQ(r.rdata.u.data[next.size() + 1], 4);

  EXPECT_EQ(p.next_record(r), Result::kEnd);
  EXPECT_EQ(p.next_record(r), Result::kEnd);
}

TEST(ParseResponse, RecordsWithoutReadingQuestions) {
  SampleResponse s;
  MessageParser p(s.m.b.data(), s.m.size());
  MessageHeader h;
  ASSERT_TRUE(p.read_header(h));
  ParsedRecord r;
  ASSERT_EQ(p.next_record(r), Result::kOk);
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
    for (size_t start : s.record_starts)
      at_record_boundary |= (start == len);
    EXPECT_EQ(got.back(), at_record_boundary ? Result::kEnd : Result::kMalformed) << len;
    // Whatever was accepted before the cut is what the full parse accepted.
    ASSERT_LE(records.size(), full_records.size()) << len;
    for (size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(records[i].rrtype, full_records[i].rrtype) << len;
      EXPECT_TRUE(mdns::rdata_equal(records[i].rrtype, records[i].rdata, full_records[i].rdata)) << len;
    }
  }
}

TEST(Compression, HostilePointersRejected) {
  struct Case {
    const char* what;
    Bytes m;
    size_t at;
  };
  std::vector<Case> cases;
  {
    Bytes m;
    m.header(0, 0).ptr(12);
    cases.push_back({"self pointer", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).ptr(14).ptr(12);
    cases.push_back({"forward pointer (pair pointing at each other)", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).label("a").ptr(12);
    cases.push_back({"loop through the name's own label", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).label("x").label("a").ptr(14);
    cases.push_back({"loop through a later label", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).ptr(0x3FFF);
    cases.push_back({"pointer past the end", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).u8(0xC0);
    cases.push_back({"pointer cut in half", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).u8(0x40).u8(0);
    cases.push_back({"reserved label type 0x40", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).u8(0x80).u8(0);
    cases.push_back({"reserved label type 0x80", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).label("abc");
    cases.push_back({"no root label", m, 12});
  }
  {
    Bytes m;
    m.header(0, 0).u8(10).raw("abc");
    cases.push_back({"label past the end", m, 12});
  }
  for (const Case& c : cases) {
    domainname out;
    EXPECT_FALSE(read_name_at(c.m, c.at, out)) << c.what;
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
  Bytes m;
  m.header(0, 0).u8(64).raw(std::string(64, 'x')).u8(0);
  domainname out;
  EXPECT_FALSE(read_name_at(m, 12, out)) << "label of 64";
}

TEST(Compression, MixedLabelsAndPointersRead) {
  Bytes m;
  m.header(0, 0).name("local");
  const size_t b = m.size();
  m.label("b").ptr(12);
  const size_t a = m.size();
  m.label("A").ptr(b);
  domainname out;
  size_t after = 0;
  ASSERT_TRUE(read_name_at(m, a, out, &after));
  EXPECT_TRUE(mdns::names_equal(out, name_of("a.b.local")));
  EXPECT_EQ(after, m.size());
}

TEST(HostileCounts, CountsBeyondTheData) {
  {
    Bytes m;  // 65535 questions promised, one present: the message simply ends.
    m.header(0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF).name("a.local").u16(1).u16(1);
    const std::vector<Result> got = parse_all(m.b.data(), m.size());
    EXPECT_EQ(got, (std::vector<Result>{Result::kOk, Result::kEnd}));
  }
  {
    Bytes m;  // many answers promised, one present and then a stray byte.
    m.header(0, 0xFFFF).name("a.local");
    const size_t rd = m.record_head(kDNSType_A, kDNSClass_IN, 10);
    m.u32(0x0a000001);
    m.patch_rdlength(rd);
    m.u8(7);
    const std::vector<Result> got = parse_all(m.b.data(), m.size());
    EXPECT_EQ(got, (std::vector<Result>{Result::kOk, Result::kMalformed}));
  }
  {
    Bytes m;  // RDLENGTH beyond the message.
    m.header(0, 2).name("a.local");
    m.record_head(kDNSType_TXT, kDNSClass_IN, 10);
    m.b[m.size() - 1] = 200;
    m.raw("abc");
    const std::vector<Result> got = parse_all(m.b.data(), m.size());
    EXPECT_EQ(got, (std::vector<Result>{Result::kMalformed}));
  }
}

TEST(RecordData, MalformedDataSkippedAndParsingGoesOn) {
  struct Case {
    const char* what;
    unsigned type;
    std::vector<uint8_t> rdata;
  };
  // `12` is the message offset of the owner name "a.local": pointers to it are valid.
  const std::vector<Case> cases = {
      {"A of 5 bytes", kDNSType_A, {1, 2, 3, 4, 5}},
      {"A of 3 bytes", kDNSType_A, {1, 2, 3}},
      {"AAAA of 4 bytes", kDNSType_AAAA, {1, 2, 3, 4}},
      {"SRV of 6 bytes", kDNSType_SRV, {0, 0, 0, 0, 0, 80}},
      {"SRV target without root", kDNSType_SRV, {0, 0, 0, 0, 0, 80, 1, 'x'}},
      {"PTR name running past RDLENGTH", kDNSType_PTR, {1, 'x'}},
      {"PTR with bytes after the name", kDNSType_PTR, {0xC0, 12, 0}},
      {"PTR with a forward pointer", kDNSType_PTR, {0xC0, 0x3F}},
      {"PTR empty", kDNSType_PTR, {}},
      {"NSEC without a name", kDNSType_NSEC, {}},
  };
  for (const Case& c : cases) {
    Bytes m;
    m.header(0, 2).name("a.local");
    size_t rd = m.record_head(c.type, kDNSClass_IN, 10);
    m.b.insert(m.b.end(), c.rdata.begin(), c.rdata.end());
    m.patch_rdlength(rd);
    // The bytes after RDLENGTH would complete the name: they must not be read as rdata.
    m.ptr(12);
    rd = m.record_head(kDNSType_A, kDNSClass_IN, 10);
    m.u32(0x0a000002);
    m.patch_rdlength(rd);
    std::vector<ParsedRecord> records;
    const std::vector<Result> got = parse_all(m.b.data(), m.size(), &records);
    EXPECT_EQ(got, (std::vector<Result>{Result::kSkipped, Result::kOk, Result::kEnd})) << c.what;
    ASSERT_EQ(records.size(), 1u) << c.what;
    EXPECT_EQ(records[0].rdata.u.ipv4.b[3], 2) << c.what;
  }
}

TEST(RecordData, LongDataCutAtTheStoredSize) {
  for (unsigned type : {unsigned{kDNSType_TXT}, 99u}) {
    Bytes m;
    m.header(0, 1).name("a.local");
    const size_t rd = m.record_head(type, kDNSClass_IN, 10);
    for (int i = 0; i < 700; ++i)
      m.u8(static_cast<unsigned>(i));
    m.patch_rdlength(rd);
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
  m.header(0, 4).name("Host.Local");
  size_t rd = m.record_head(kDNSType_SRV, kDNSClass_IN, 10);
  m.u16(1).u16(2).u16(80).ptr(12);
  m.patch_rdlength(rd);
  m.ptr(12);
  rd = m.record_head(kDNSType_SRV, kDNSClass_IN, 10);
  m.u16(1).u16(2).u16(80).name("host.local");
  m.patch_rdlength(rd);
  m.ptr(12);
  rd = m.record_head(kDNSType_PTR, kDNSClass_IN, 10);
  m.label("x").ptr(12);
  m.patch_rdlength(rd);
  m.ptr(12);
  rd = m.record_head(kDNSType_PTR, kDNSClass_IN, 10);
  m.name("X.HOST.local");
  m.patch_rdlength(rd);
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
