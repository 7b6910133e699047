// Reading received messages, hostile ones included, and writing queries.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "dns_builder.h"
#include "wire/constants.h"
#include "wire/message_reader.h"
#include "wire/message_writer.h"
#include "wire/names.h"

namespace {

using mdns::ParsedRecord;
using mdns::QueryWriter;
using Result = mdns::MessageParser::Result;
using sorvalen::test::Bytes;
using sorvalen::test::DnsMessage;
using sorvalen::test::record_data;
using sorvalen::test::wire_name;

Bytes hex(std::string digits) {
  digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
  return record_data(0, {"hex", digits});
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes wire_of(const domainname& n) {
  return Bytes(n.c, n.c + mdns::name_length(n));
}

domainname dn(const std::string& text) {
  domainname n;
  EXPECT_NE(MakeDomainNameFromDNSNameString(&n, text.c_str()), nullptr) << text;
  return n;
}

struct Parsed {
  mdns::MessageHeader header;
  std::vector<mdns::ParsedQuestion> questions;
  std::vector<ParsedRecord> records;  // those read kOk
  std::vector<Result> results;        // of every call after the header
  bool clean() const {
    return std::count(results.begin(), results.end(), Result::kOk) + 1 == static_cast<long>(results.size()) &&
           results.back() == Result::kEnd;
  }
};

// `m` holds exactly the message, so that a sanitizer sees any read past its end.
Parsed parse(const Bytes& m) {
  Parsed out;
  mdns::MessageParser p(m.data(), m.size());
  if (!p.read_header(out.header)) {
    return out;
  }
  for (unsigned i = 0; i < out.header.qdcount && (i == 0 || out.results.back() == Result::kOk); ++i) {
    out.questions.emplace_back();
    out.results.push_back(p.next_question(out.questions.back()));
  }
  while (out.results.empty() || out.results.back() == Result::kOk || out.results.back() == Result::kSkipped) {
    ParsedRecord r;
    out.results.push_back(p.next_record(r));
    if (out.results.back() == Result::kOk) {
      out.records.push_back(r);
    }
  }
  return out;
}

Parsed parse(const uint8_t* m, size_t length) {
  return parse(Bytes(m, m + length));
}

// Record data in the form the parser keeps: names decompressed.
Bytes canonical(const ParsedRecord& r) {
  const RDataBody& u = r.rdata.u;
  if (r.rrtype == kDNSType_PTR || r.rrtype == kDNSType_CNAME) {
    return wire_of(u.name);
  }
  if (r.rrtype == kDNSType_SRV) {
    const auto u8 = [](unsigned v) { return static_cast<uint8_t>(v); };
    return Bytes{u8(u.srv.priority >> 8), u8(u.srv.priority), u8(u.srv.weight >> 8),
                 u8(u.srv.weight),        u.srv.port.b[0],    u.srv.port.b[1]} +
           wire_of(u.srv.target);
  }
  return Bytes(u.data, u.data + r.rdata.length);
}

// Three 63-byte labels, each with a pointer to the next, ending in one of `last` bytes.
Bytes long_name(size_t last) {
  Bytes m = wire_name(std::string(last, 'z'));
  for (size_t next = 0; m.size() < last + 2 + 3 * 66; next = m.size() - 66) {
    m = m + Bytes{63} + Bytes(63, 'q') + Bytes{0xC0, static_cast<uint8_t>(next)};
  }
  return m;
}

TEST(ReadName, PointersOnlyBackwardAndWithinTheLimits) {
  const std::string q63(63, 'q');
  // bytes, where the name starts, where the cursor ends (0: rejected, it stays), the name
  const std::tuple<const char*, Bytes, size_t, size_t, std::string> cases[] = {
      {"backward pointer", hex("0161 00 0162 c000"), 3, 7, "b.a"},
      {"255 bytes", long_name(61), 63 + 132, 63 + 198,
       q63 + "." + q63 + "." + q63 + "." + std::string(61, 'z')},
      {"256 bytes", long_name(62), 64 + 132, 0, ""},
      {"forward pointer to a good name", hex("c002 0161 00"), 0, 0, ""},
      {"loop through a later label", hex("0178 0161 c002"), 0, 0, ""},
      {"pointer past the end", hex("ffff"), 0, 0, ""},
      {"pointer cut in half", hex("c0"), 0, 0, ""},
      {"label of 64", hex("40") + Bytes(64, 'x') + hex("00"), 0, 0, ""},
      {"reserved label type 0x80", hex("8000"), 0, 0, ""},
      {"no root label", hex("03 616263"), 0, 0, ""},
      {"label past the end", hex("0a 616263"), 0, 0, ""},
  };
  for (const auto& [what, bytes, start, end, name] : cases) {
    mdns::Reader r(bytes.data(), bytes.size());
    ASSERT_TRUE(r.seek(start)) << what;
    domainname out;
    EXPECT_EQ(r.read_name(out), end != 0) << what;
    EXPECT_EQ(r.position(), end != 0 ? end : start) << what;
    if (end != 0) {
      EXPECT_EQ(wire_of(out), wire_name(name)) << what;
    }
  }
}

// A response read in full and cut anywhere; then its questions and records, in
// the form the cache keeps, written back as a query into packets of every size.
TEST(MessageRoundTrip, ResponseCutAnywhereWrittenBackIntoAnyPacketSizeAndCompressedAfterRefusals) {
  const std::tuple<DnsMessage::Section, const char*, uint16_t, Bytes> recs[] = {
      {DnsMessage::kAnswer, "_ipp._tcp.local", kDNSType_PTR, wire_name("Office._ipp._tcp.local")},
      {DnsMessage::kAnswer, "_ipp._tcp.local", kDNSType_PTR, wire_name("Lab\\.1._ipp._tcp.local")},
      {DnsMessage::kAuthority, "p3.local", kDNSType_NSEC, wire_name("p3.local") + hex("0004 40000008")},
      {DnsMessage::kAdditional, "Office._ipp._tcp.local", kDNSType_SRV,
       record_data(kDNSType_SRV, {"0", "5", "631", "p3.local"})},
      {DnsMessage::kAdditional, "Office._ipp._tcp.local", kDNSType_TXT,
       record_data(kDNSType_TXT, {"txtvers=1", "rp=ipp/print"})},
      {DnsMessage::kAdditional, "p3.local", kDNSType_A, hex("c0a80714")},
      {DnsMessage::kAdditional, "P3.local", kDNSType_AAAA, record_data(kDNSType_AAAA, {"fe80::14"})},
  };
  DnsMessage response;
  std::vector<size_t> item_ends = {12,
                                   response.question("_ipp._tcp.local", kDNSType_PTR, true).bytes().size(),
                                   response.question("Printer.local", kDNSType_A).bytes().size()};
  for (const auto& [section, name, type, data] : recs) {
    response.add(section, {name, type, 120, data, /*cache_flush=*/type != kDNSType_PTR});
    item_ends.push_back(response.bytes().size());
  }
  const Bytes m = response.bytes();
  const Parsed full = parse(m);
  ASSERT_TRUE(full.clean() && full.records.size() == std::size(recs));
  EXPECT_TRUE(full.questions[0].unicast_response && !full.questions[1].unicast_response);
  for (size_t i = 0; i < std::size(recs); ++i) {
    const auto& [section, name, type, data] = recs[i];
    const ParsedRecord& r = full.records[i];
    EXPECT_EQ(r.section, mdns::Section(section + 1)) << i;  // the parser counts the question section
    EXPECT_EQ(wire_of(r.name), wire_name(name)) << i;
    EXPECT_TRUE(r.rrtype == type && r.rrclass == kDNSClass_IN && r.ttl == 120) << i;
    EXPECT_EQ(r.cache_flush, type != kDNSType_PTR) << i;
    EXPECT_EQ(canonical(r), data) << i;
  }
  // The counts promise more than a cut message holds: it ends cleanly only between items.
  for (size_t len = 0; len < m.size(); ++len) {
    const Parsed cut = parse(m.data(), len);
    ASSERT_EQ(cut.results.empty(), len < 12) << len;
    const bool between = std::count(item_ends.begin(), item_ends.end(), len) == 1;
    EXPECT_TRUE(len < 12 || cut.results.back() == (between ? Result::kEnd : Result::kMalformed)) << len;
    for (size_t i = 0; i < cut.records.size(); ++i) {
      EXPECT_EQ(canonical(cut.records[i]), canonical(full.records[i])) << len;
    }
  }

  for (size_t capacity = 12; capacity <= m.size(); ++capacity) {
    std::vector<uint8_t> buf(capacity + 16, 0xEE);
    QueryWriter w(buf.data(), capacity, 0xBEEF, mdns::kFlagRecursionDesired);
    std::vector<const mdns::ParsedQuestion*> asked;  // what fitted
    std::vector<const ParsedRecord*> known;
    for (const auto& q : full.questions) {
      const size_t before = w.size();
      const bool added = w.add_question(q.name, q.qtype, q.qclass, q.unicast_response);
      EXPECT_TRUE(added || w.size() == before) << capacity;
      asked.insert(asked.end(), added ? 1 : 0, &q);
    }
    for (const ParsedRecord& r : full.records) {
      const size_t before = w.size();
      const bool added = w.add_known_answer(r.name, r.rrtype, r.rrclass, r.ttl, r.rdata);
      EXPECT_TRUE(added || w.size() == before) << capacity;
      known.insert(known.end(), added ? 1 : 0, &r);
    }
    const Parsed query = parse(buf.data(), w.finish());
    ASSERT_EQ(std::count(buf.begin() + static_cast<long>(capacity), buf.end(), 0xEE), 16) << capacity;
    ASSERT_TRUE(query.clean() && query.questions.size() == asked.size() &&
                query.records.size() == known.size());
    EXPECT_TRUE(query.header.id == 0xBEEF && query.header.flags == mdns::kFlagRecursionDesired);
    EXPECT_TRUE(capacity < m.size() || known.size() == std::size(recs)) << "compressed, everything fits";
    for (size_t i = 0; i < asked.size(); ++i) {
      const auto& q = query.questions[i];
      EXPECT_EQ(wire_of(q.name), wire_of(asked[i]->name)) << capacity;
      EXPECT_TRUE(q.qtype == asked[i]->qtype && q.unicast_response == asked[i]->unicast_response) << capacity;
    }
    for (size_t i = 0; i < known.size(); ++i) {
      const ParsedRecord& r = query.records[i];
      EXPECT_EQ(wire_of(r.name), wire_of(known[i]->name)) << capacity;  // case kept
      EXPECT_TRUE(r.section == mdns::Section::kAnswer && r.rrtype == known[i]->rrtype && !r.cache_flush &&
                  r.rrclass == kDNSClass_IN && r.ttl == 120)
          << capacity;
      EXPECT_EQ(canonical(r), canonical(*known[i])) << capacity;
    }
  }

  // A refused item must take its names out of the compression targets again, and
  // names past the targets' table are written whole.
  uint8_t buf[1024];
  QueryWriter w(buf, 200);
  ASSERT_TRUE(w.add_question(dn("a.local"), kDNSType_A, kDNSClass_IN));
  RData data{};
  data.length = 300;
  for (int i = 0; i < 2 * QueryWriter::kMaxCompressionTargets; ++i) {
    ASSERT_FALSE(
        w.add_known_answer(dn("b" + std::to_string(i) + ".local"), kDNSType_TXT, kDNSClass_IN, 1, data));
  }
  data.length = 4;
  ASSERT_TRUE(w.add_known_answer(dn("b0.y.local"), kDNSType_A, kDNSClass_IN, 1, data));
  const size_t before = w.size();
  ASSERT_TRUE(w.add_known_answer(dn("z.y.local"), kDNSType_A, kDNSClass_IN, 1, data));
  EXPECT_EQ(w.size() - before, (2u + 2) + 10 + 4) << "y.local compressed";
  EXPECT_TRUE(parse(buf, w.finish()).clean());

  QueryWriter many(buf, sizeof buf);
  for (int i = 0; i < 60; ++i) {
    ASSERT_TRUE(many.add_question(dn("n" + std::to_string(i) + ".d" + std::to_string(i % 7)), kDNSType_A, 1));
  }
  EXPECT_EQ(wire_of(parse(buf, many.finish()).questions.at(59).name), wire_name("n59.d3"));
}

TEST(MessageParserTest, DataKeptDecompressedAndMalformedDataSkipsOnlyItsRecord) {
  Bytes long_txt(700);
  std::iota(long_txt.begin(), long_txt.end(), uint8_t{0});
  // The data kept; none: the record is skipped.  The next record's owner would
  // complete a name cut short: it must not be read as data.
  const std::tuple<const char*, uint16_t, Bytes, Bytes> cases[] = {
      {"compressed PTR", kDNSType_PTR, hex("0178 c00c"), wire_name("x.a.local")},
      {"compressed CNAME", kDNSType_CNAME, hex("c00c"), wire_name("a.local")},
      {"compressed SRV", kDNSType_SRV, hex("0001 0002 0050 c00c"),
       hex("0001 0002 0050") + wire_name("a.local")},
      {"compressed NSEC", kDNSType_NSEC, hex("c00c 0001 40"), wire_name("a.local") + hex("0001 40")},
      {"TXT over 512 bytes", kDNSType_TXT, long_txt, Bytes(long_txt.begin(), long_txt.begin() + 512)},
      {"AAAA of 4 bytes", kDNSType_AAAA, hex("01020304"), {}},
      {"SRV target without root", kDNSType_SRV, hex("000000000050 0178"), {}},
      {"PTR name past RDLENGTH", kDNSType_PTR, hex("0178"), {}},
      {"PTR with bytes after the name", kDNSType_PTR, hex("c00c 00"), {}},
      {"PTR with a forward pointer", kDNSType_PTR, hex("c03f"), {}},
      {"NSEC without a name", kDNSType_NSEC, {}, {}},
  };
  for (const auto& [what, type, data, kept] : cases) {
    const Parsed p = parse(DnsMessage()
                               .answer("a.local", type, 10, data)
                               .answer("a.local", kDNSType_A, 10, hex("0a000002"))
                               .bytes());
    EXPECT_EQ(p.results,
              (std::vector<Result>{kept.empty() ? Result::kSkipped : Result::kOk, Result::kOk, Result::kEnd}))
        << what;
    ASSERT_EQ(p.records.size(), kept.empty() ? 1u : 2u) << what;
    EXPECT_EQ(canonical(p.records.back()), hex("0a000002")) << what;
    if (!kept.empty()) {
      EXPECT_EQ(canonical(p.records[0]), kept) << what;
      EXPECT_EQ(p.records[0].received_rdlength, data.size()) << what;
      EXPECT_EQ(p.records[0].rdata_truncated, data.size() > kept.size()) << what;
    }
  }
}

}  // namespace
