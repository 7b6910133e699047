// Reading received messages, hostile ones included, and writing queries.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "message_reader.h"
#include "message_writer.h"
#include "names.h"

namespace {

using mdns::MessageHeader;
using mdns::MessageParser;
using mdns::ParsedQuestion;
using mdns::ParsedRecord;
using mdns::QueryWriter;
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
  Bytes& name(const std::string& dotted) {
    domainname n;
    EXPECT_NE(MakeDomainNameFromDNSNameString(&n, dotted.c_str()), nullptr) << dotted;
    b.insert(b.end(), n.c, n.c + mdns::name_length(n));
    return *this;
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

domainname name_of(const std::string& text) {
  domainname n;
  EXPECT_NE(MakeDomainNameFromDNSNameString(&n, text.c_str()), nullptr) << text;
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

// A whole message as the parser reads it.
struct Parsed {
  MessageHeader header;
  std::vector<ParsedQuestion> questions;
  std::vector<ParsedRecord> records;  // those read kOk
  std::vector<Result> results;        // of every question and record call; none without a header

  // Every call kOk until the end, and as many records as the header counts.
  bool clean() const {
    for (size_t i = 0; i + 1 < results.size(); ++i) {
      if (results[i] != Result::kOk) {
        return false;
      }
    }
    return !results.empty() && results.back() == Result::kEnd &&
           records.size() == size_t{header.ancount} + header.nscount + header.arcount;
  }
};

Parsed parse(const uint8_t* data, size_t len) {
  Parsed out;
  MessageParser p(data, len);
  if (!p.read_header(out.header)) {
    return out;
  }
  for (unsigned i = 0; i < out.header.qdcount; ++i) {
    ParsedQuestion q;
    out.results.push_back(p.next_question(q));
    if (out.results.back() != Result::kOk) {
      return out;
    }
    out.questions.push_back(q);
  }
  for (int guard = 0; guard < 70000; ++guard) {
    ParsedRecord rec;
    out.results.push_back(p.next_record(rec));
    if (out.results.back() == Result::kOk) {
      out.records.push_back(rec);
    } else if (out.results.back() != Result::kSkipped) {
      break;
    }
  }
  return out;
}
Parsed parse(const Bytes& m) {
  return parse(m.b.data(), m.size());
}

TEST(ParseResponse, SampleResponseInFullAndEveryTruncationOfIt) {
  SampleResponse s;
  const Parsed full = parse(s.m);
  ASSERT_TRUE(full.clean());
  ASSERT_EQ(full.questions.size(), 1u);
  EXPECT_TRUE(mdns::names_equal(full.questions[0].name, name_of("_ipp._tcp.local")));
  EXPECT_EQ(full.questions[0].qclass, kDNSClass_IN);
  EXPECT_TRUE(full.questions[0].unicast_response);
  ASSERT_EQ(full.records.size(), 6u);

  const ParsedRecord& ptr = full.records[0];
  EXPECT_EQ(ptr.section, mdns::Section::kAnswer);
  EXPECT_FALSE(ptr.cache_flush);
  EXPECT_EQ(ptr.ttl, 4500u);
  EXPECT_TRUE(mdns::names_equal(ptr.rdata.u.name, name_of("Office Printer._ipp._tcp.local")));
  EXPECT_EQ(ptr.rdata.length, mdns::name_length(ptr.rdata.u.name));
  EXPECT_EQ(ptr.received_rdlength, 17);

  const ParsedRecord& srv = full.records[1];
  EXPECT_EQ(srv.section, mdns::Section::kAdditional);
  EXPECT_EQ(srv.rrclass, kDNSClass_IN);
  EXPECT_TRUE(srv.cache_flush);
  EXPECT_TRUE(mdns::names_equal(srv.name, name_of("Office Printer._ipp._tcp.local")));
  EXPECT_EQ(srv.rdata.u.srv.weight, 5);
  EXPECT_EQ(srv.rdata.u.srv.port.b[0] << 8 | srv.rdata.u.srv.port.b[1], 631);
  EXPECT_TRUE(mdns::names_equal(srv.rdata.u.srv.target, name_of("printer-3.local")));
  EXPECT_EQ(srv.rdata.length, 6 + mdns::name_length(srv.rdata.u.srv.target));

  auto data_of = [](const ParsedRecord& r) {
    return std::string(reinterpret_cast<const char*>(r.rdata.u.data), r.rdata.length);
  };
  EXPECT_EQ(data_of(full.records[2]), "\x09txtvers=1\x0crp=ipp/print");
  EXPECT_TRUE(mdns::names_equal(full.records[3].name, name_of("printer-3.local")));
  EXPECT_EQ(data_of(full.records[3]), "\xc0\xa8\x07\x14");
  EXPECT_EQ(full.records[4].rdata.length, 16);
  EXPECT_EQ(full.records[4].rdata.u.ipv6.b[15], 0x14);
  // NSEC: the next name decompressed, then the bitmap.
  EXPECT_EQ(data_of(full.records[5]), std::string("\x09printer-3\x05local\x00\x00\x04\x40\x00\x00\x08", 23));

  MessageParser skipping(s.m.b.data(), s.m.size());
  MessageHeader h;
  ParsedRecord r;
  ASSERT_TRUE(skipping.read_header(h));
  ASSERT_EQ(skipping.next_record(r), Result::kOk) << "questions not read are skipped";
  EXPECT_EQ(r.rrtype, kDNSType_PTR);

  for (size_t len = 0; len < s.m.size(); ++len) {
    // A copy of exactly `len` bytes, so that a sanitizer sees any read past it.
    std::vector<uint8_t> cut(s.m.b.begin(), s.m.b.begin() + static_cast<long>(len));
    const Parsed cut_parse = parse(cut.data(), cut.size());
    const std::vector<Result>& got = cut_parse.results;
    const std::vector<ParsedRecord>& records = cut_parse.records;
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
    ASSERT_LE(records.size(), full.records.size()) << len;
    for (size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(records[i].rrtype, full.records[i].rrtype) << len;
      EXPECT_TRUE(mdns::rdata_equal(records[i].rrtype, records[i].rdata, full.records[i].rdata)) << len;
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
    EXPECT_EQ(parse(c.m).results, c.results) << c.what;
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
    const Parsed p = parse(m);
    EXPECT_EQ(p.results, (std::vector<Result>{Result::kSkipped, Result::kOk, Result::kEnd})) << c.what;
    ASSERT_EQ(p.records.size(), 1u) << c.what;
    EXPECT_EQ(p.records[0].rdata.u.ipv4.b[3], 2) << c.what;
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
    const Parsed p = parse(m);
    ASSERT_TRUE(p.clean());
    const std::vector<ParsedRecord>& records = p.records;
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
  const std::vector<ParsedRecord> r = parse(m).records;
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

RData ptr_data(const std::string& target) {
  RData d{};
  d.u.name = name_of(target);
  d.length = static_cast<uint16_t>(mdns::name_length(d.u.name));
  return d;
}

RData srv_data(uint16_t priority, uint16_t weight, uint16_t port, const std::string& target) {
  RData d{};
  d.u.srv.priority = priority;
  d.u.srv.weight = weight;
  d.u.srv.port.b[0] = static_cast<uint8_t>(port >> 8);
  d.u.srv.port.b[1] = static_cast<uint8_t>(port);
  d.u.srv.target = name_of(target);
  d.length = static_cast<uint16_t>(6 + mdns::name_length(d.u.srv.target));
  return d;
}

RData raw_data(const std::string& bytes) {
  RData d{};
  std::memcpy(d.u.data, bytes.data(), bytes.size());
  d.length = static_cast<uint16_t>(bytes.size());
  return d;
}

struct KnownAnswer {
  std::string name;
  uint16_t type;
  uint32_t ttl;
  RData rdata;
};

TEST(QueryWriterRoundTrip, QuestionsAndKnownAnswersReadBack) {
  const std::vector<KnownAnswer> answers = {
      {"_ipp._tcp.local", kDNSType_PTR, 4500, ptr_data("Office Printer._ipp._tcp.local")},
      {"_ipp._tcp.local", kDNSType_PTR, 4000, ptr_data("Lab\\.Printer._ipp._tcp.local")},
      {"Office Printer._ipp._tcp.local", kDNSType_SRV, 100, srv_data(1, 2, 631, "printer-3.local")},
      {"Office Printer._ipp._tcp.local", kDNSType_TXT, 4500, raw_data("\x09txtvers=1")},
      {"printer-3.local", kDNSType_A, 120, raw_data("\xc0\xa8\x07\x14")},
      {"printer-3.local", kDNSType_AAAA, 120,
       raw_data(std::string("\xfe\x80", 2) + std::string(13, '\0') + "\x14")},
      {"printer-3.local", kDNSType_NSEC, 120,
       raw_data(std::string("\x09printer-3\x05local\x00\x00\x04\x40\x00\x00\x08", 23))},
  };
  uint8_t buf[1440];
  QueryWriter w(buf, sizeof buf);
  ASSERT_TRUE(w.add_question(name_of("_ipp._tcp.local"), kDNSType_PTR, kDNSClass_IN, true));
  ASSERT_TRUE(w.add_question(name_of("Office Printer._ipp._tcp.local"), kDNSType_SRV, kDNSClass_IN));
  for (const KnownAnswer& a : answers) {
    ASSERT_TRUE(w.add_known_answer(name_of(a.name), a.type, kDNSClass_IN, a.ttl, a.rdata)) << a.name;
  }
  const size_t len = w.finish();
  ASSERT_EQ(len, w.size());

  const Parsed p = parse(buf, len);
  ASSERT_TRUE(p.clean());
  EXPECT_EQ(p.header.id, 0);
  EXPECT_EQ(p.header.flags, 0);
  ASSERT_EQ(p.questions.size(), 2u);
  EXPECT_TRUE(p.questions[0].unicast_response);
  EXPECT_FALSE(p.questions[1].unicast_response);
  EXPECT_EQ(p.questions[1].qtype, kDNSType_SRV);
  ASSERT_EQ(p.records.size(), answers.size());
  for (size_t i = 0; i < answers.size(); ++i) {
    const ParsedRecord& r = p.records[i];
    EXPECT_TRUE(mdns::names_equal(r.name, name_of(answers[i].name))) << i;
    EXPECT_EQ(r.rrtype, answers[i].type) << i;
    EXPECT_EQ(r.rrclass, kDNSClass_IN) << i;
    EXPECT_FALSE(r.cache_flush) << i;
    EXPECT_EQ(r.ttl, answers[i].ttl) << i;
    EXPECT_EQ(r.rdata.length, answers[i].rdata.length) << i;
    EXPECT_TRUE(mdns::rdata_equal(r.rrtype, r.rdata, answers[i].rdata)) << i;
  }
}

TEST(QueryWriterCompression, RepeatedNamesAndSuffixesBecomePointers) {
  uint8_t buf[512];
  QueryWriter w(buf, sizeof buf);
  ASSERT_TRUE(w.add_question(name_of("_http._tcp.local"), kDNSType_PTR, kDNSClass_IN));
  EXPECT_EQ(w.size(), 12u + 18 + 4);
  ASSERT_TRUE(w.add_question(name_of("_ipp._tcp.local"), kDNSType_PTR, kDNSClass_IN));
  EXPECT_EQ(w.size(), 34u + (5 + 2) + 4);  // "_ipp" then a pointer to "_tcp.local"
  ASSERT_TRUE(w.add_known_answer(name_of("_ipp._tcp.local"), kDNSType_PTR, kDNSClass_IN, 10,
                                 ptr_data("x._ipp._tcp.local")));
  // Owner a pointer; data "x" and a pointer.
  EXPECT_EQ(w.size(), 45u + 2 + 10 + (2 + 2));
  ASSERT_TRUE(w.add_known_answer(name_of("x._ipp._tcp.local"), kDNSType_TXT, kDNSClass_IN, 10,
                                 raw_data(std::string(1, '\0'))));
  EXPECT_EQ(w.size(), 61u + 2 + 10 + 1);  // the PTR data's name is reused
  ASSERT_TRUE(w.add_known_answer(name_of("X._IPP._tcp.local"), kDNSType_TXT, kDNSClass_IN, 10,
                                 raw_data(std::string(1, '\0'))));
  EXPECT_EQ(w.size(), 74u + (2 + 5 + 2) + 10 + 1) << "only byte-identical names compress";
  const Parsed p = parse(buf, w.finish());
  ASSERT_TRUE(p.clean());
  EXPECT_TRUE(mdns::names_equal(p.records[1].name, name_of("x._ipp._tcp.local")));
  EXPECT_EQ(p.records[2].name.c[1], 'X') << "case kept";
}

TEST(QueryWriterCompression, ManyNamesBeyondTheTargetTable) {
  std::vector<uint8_t> buf(9000);
  QueryWriter w(buf.data(), buf.size());
  std::vector<std::string> names;
  for (int i = 0; i < 150; ++i) {
    names.push_back("n" + std::to_string(i) + ".d" + std::to_string(i % 7) + ".local");
    ASSERT_TRUE(w.add_question(name_of(names.back()), kDNSType_A, kDNSClass_IN)) << i;
  }
  const Parsed p = parse(buf.data(), w.finish());
  ASSERT_EQ(p.questions.size(), names.size());
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_TRUE(mdns::names_equal(p.questions[i].name, name_of(names[i]))) << names[i];
  }
}

TEST(QueryWriterLimits, FullPacketTakesWholeItemsOnly) {
  // Fill small packets with known answers; every message must parse cleanly and
  // the answers carried over must be exactly the ones that did not fit.
  for (size_t capacity = 12; capacity < 160; ++capacity) {
    std::vector<uint8_t> buf(capacity + 16, 0xEE);
    QueryWriter w(buf.data(), capacity);
    const bool q = w.add_question(name_of("_ipp._tcp.local"), kDNSType_PTR, kDNSClass_IN);
    int added = 0;
    for (int i = 0; i < 10; ++i) {
      const size_t before = w.size();
      if (w.add_known_answer(name_of("_ipp._tcp.local"), kDNSType_PTR, kDNSClass_IN, 100,
                             ptr_data("printer " + std::to_string(i) + "._ipp._tcp.local"))) {
        ++added;
      } else {
        EXPECT_EQ(w.size(), before) << capacity;
      }
    }
    EXPECT_EQ(w.answer_count(), added);
    const size_t len = w.finish();
    ASSERT_LE(len, capacity);
    for (size_t i = capacity; i < buf.size(); ++i)
      ASSERT_EQ(buf[i], 0xEE) << "wrote past " << capacity;
    const Parsed p = parse(buf.data(), len);
    ASSERT_TRUE(p.clean()) << capacity;
    EXPECT_EQ(p.questions.size(), q ? 1u : 0u);
    ASSERT_EQ(p.records.size(), static_cast<size_t>(added));
    for (int i = 0; i < added; ++i) {
      EXPECT_TRUE(mdns::rdata_equal(kDNSType_PTR, p.records[static_cast<size_t>(i)].rdata,
                                    ptr_data("printer " + std::to_string(i) + "._ipp._tcp.local")));
    }
  }
}

TEST(QueryWriterLimits, RefusedItemsUseUpNoCompressionTargets) {
  uint8_t buf[200];
  QueryWriter w(buf, sizeof buf);
  ASSERT_TRUE(w.add_question(name_of("a.local"), kDNSType_A, kDNSClass_IN));
  // Owner names fit, data does not: the owners must leave the target table with them.
  for (int i = 0; i < 2 * QueryWriter::kMaxCompressionTargets; ++i) {
    ASSERT_FALSE(w.add_known_answer(name_of("b" + std::to_string(i) + ".local"), kDNSType_TXT, kDNSClass_IN,
                                    1, raw_data(std::string(300, 'x'))));
  }
  const RData a = raw_data("\x0a\x00\x00\x01");
  ASSERT_TRUE(w.add_known_answer(name_of("b0.y.local"), kDNSType_A, kDNSClass_IN, 1, a));
  const size_t before = w.size();
  ASSERT_TRUE(w.add_known_answer(name_of("z.y.local"), kDNSType_A, kDNSClass_IN, 1, a));
  EXPECT_EQ(w.size() - before, (2u + 2) + 10 + 4) << "y.local compressed";
  const Parsed p = parse(buf, w.finish());
  ASSERT_TRUE(p.clean());
  EXPECT_TRUE(mdns::names_equal(p.records[0].name, name_of("b0.y.local")));
}

TEST(QueryWriterLimits, HeaderFlagsTinyBuffersAndMalformedInput) {
  uint8_t buf[600];
  QueryWriter w(buf, sizeof buf);
  domainname bad;
  std::memset(bad.c, 1, sizeof bad.c);  // no root within 255 bytes
  EXPECT_FALSE(w.add_question(bad, kDNSType_A, kDNSClass_IN));
  RData big = raw_data("");
  big.length = mDNS_MaxRDataSize + 1;
  EXPECT_FALSE(w.add_known_answer(name_of("a"), kDNSType_TXT, kDNSClass_IN, 1, big));
  RData bad_ptr{};
  bad_ptr.u.name = bad;
  EXPECT_FALSE(w.add_known_answer(name_of("a"), kDNSType_PTR, kDNSClass_IN, 1, bad_ptr));
  EXPECT_EQ(w.size(), 12u);
  ASSERT_TRUE(w.add_known_answer(name_of("a"), kDNSType_A, kDNSClass_IN, 1, raw_data("\1\2\3\4")));
  EXPECT_FALSE(w.add_question(name_of("a"), kDNSType_A, kDNSClass_IN)) << "questions go first";
  w.set_truncated();
  const Parsed p = parse(buf, w.finish());
  EXPECT_EQ(p.header.id, 0);
  EXPECT_EQ(p.header.flags, 0x0200);
  EXPECT_TRUE(p.clean());

  uint8_t tiny[11];
  QueryWriter t(tiny, sizeof tiny);
  EXPECT_FALSE(t.add_question(name_of("a"), kDNSType_A, kDNSClass_IN));
  EXPECT_EQ(t.finish(), 0u);
  QueryWriter bare(buf, 12);
  EXPECT_EQ(bare.finish(), 12u);
  EXPECT_FALSE(bare.add_question(name_of(""), kDNSType_A, kDNSClass_IN));
}

}  // namespace
