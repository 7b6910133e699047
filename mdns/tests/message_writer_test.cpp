// Building queries: what the parser reads back, compression, limits.
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
using Result = MessageParser::Result;

domainname name_of(const std::string& text) {
  domainname n;
  EXPECT_NE(MakeDomainNameFromDNSNameString(&n, text.c_str()), nullptr) << text;
  return n;
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

struct Parsed {
  MessageHeader header;
  std::vector<ParsedQuestion> questions;
  std::vector<ParsedRecord> answers;
  bool clean = false;  // every item kOk and the message ended exactly
};

Parsed parse(const uint8_t* data, size_t len) {
  Parsed out;
  MessageParser p(data, len);
  if (!p.read_header(out.header))
    return out;
  for (unsigned i = 0; i < out.header.qdcount; ++i) {
    ParsedQuestion q;
    if (p.next_question(q) != Result::kOk)
      return out;
    out.questions.push_back(q);
  }
  for (;;) {
    ParsedRecord r;
    const Result res = p.next_record(r);
    if (res == Result::kEnd)
      break;
    if (res != Result::kOk)
      return out;
    out.answers.push_back(r);
  }
  out.clean = out.answers.size() == out.header.ancount;
  return out;
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
  ASSERT_TRUE(p.clean);
  EXPECT_EQ(p.header.id, 0);
  EXPECT_EQ(p.header.flags, 0);
  EXPECT_EQ(p.header.nscount + p.header.arcount, 0);
  ASSERT_EQ(p.questions.size(), 2u);
  EXPECT_TRUE(p.questions[0].unicast_response);
  EXPECT_FALSE(p.questions[1].unicast_response);
  EXPECT_EQ(p.questions[1].qtype, kDNSType_SRV);
  EXPECT_EQ(p.questions[1].qclass, kDNSClass_IN);
  ASSERT_EQ(p.answers.size(), answers.size());
  for (size_t i = 0; i < answers.size(); ++i) {
    const ParsedRecord& r = p.answers[i];
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
  ASSERT_TRUE(p.clean);
  EXPECT_TRUE(mdns::names_equal(p.answers[1].name, name_of("x._ipp._tcp.local")));
  EXPECT_EQ(p.answers[2].name.c[1], 'X') << "case kept";
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
    ASSERT_TRUE(p.clean) << capacity;
    EXPECT_EQ(p.questions.size(), q ? 1u : 0u);
    ASSERT_EQ(p.answers.size(), static_cast<size_t>(added));
    for (int i = 0; i < added; ++i) {
      EXPECT_TRUE(mdns::rdata_equal(kDNSType_PTR, p.answers[static_cast<size_t>(i)].rdata,
                                    ptr_data("printer " + std::to_string(i) + "._ipp._tcp.local")));
    }
  }
}

TEST(QueryWriterLimits, RefusedItemsLeaveNoCompressionTargets) {
  uint8_t buf[200];
  QueryWriter w(buf, sizeof buf);
  ASSERT_TRUE(w.add_question(name_of("a.local"), kDNSType_A, kDNSClass_IN));
  // Owner names fit, data does not: the owners must be forgotten with them, or
  // the table fills up and a later name points at bytes that were never kept.
  for (int i = 0; i < 2 * QueryWriter::kMaxCompressionTargets; ++i) {
    ASSERT_FALSE(w.add_known_answer(name_of("b" + std::to_string(i) + ".y.local"), kDNSType_TXT, kDNSClass_IN,
                                    1, raw_data(std::string(300, 'x'))));
  }
  const RData a = raw_data("\x0a\x00\x00\x01");
  ASSERT_TRUE(w.add_known_answer(name_of("b0.y.local"), kDNSType_A, kDNSClass_IN, 1, a));
  const size_t before = w.size();
  ASSERT_TRUE(w.add_known_answer(name_of("z.y.local"), kDNSType_A, kDNSClass_IN, 1, a));
  EXPECT_EQ(w.size() - before, (2u + 2) + 10 + 4) << "y.local compressed";
  const Parsed p = parse(buf, w.finish());
  ASSERT_TRUE(p.clean);
  EXPECT_TRUE(mdns::names_equal(p.answers[0].name, name_of("b0.y.local")));
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
  EXPECT_TRUE(p.clean);

  uint8_t tiny[11];
  QueryWriter t(tiny, sizeof tiny);
  EXPECT_FALSE(t.add_question(name_of("a"), kDNSType_A, kDNSClass_IN));
  EXPECT_EQ(t.finish(), 0u);
  QueryWriter bare(buf, 12);
  EXPECT_EQ(bare.finish(), 12u);
  EXPECT_FALSE(bare.add_question(name_of(""), kDNSType_A, kDNSClass_IN));
}

}  // namespace
