// A core in test mode with a fake clock: responses are injected, queries captured.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "engine.h"
#include "mdns/mdns.h"
#include "message_reader.h"
#include "names.h"
#include "platform.h"

namespace mdns_test {

constexpr uint32_t kEth0 = 2;
constexpr uint32_t kEth1 = 3;
constexpr int32_t kStartTime = 1000000;
using Bytes = std::vector<uint8_t>;

inline domainname dn(const char* text) {
  domainname name{};
  EXPECT_NE(MakeDomainNameFromDNSNameString(&name, text), nullptr) << text;
  return name;
}

inline std::string text_of(const domainname& name) {
  char buf[MAX_ESCAPED_DOMAIN_NAME];
  ConvertDomainNameToCString_withescape(&name, buf, '\\');
  return buf;
}

// Record data in wire form, uncompressed.
inline Bytes name_bytes(const char* text) {
  const domainname n = dn(text);
  return Bytes(n.c, n.c + mdns::name_length(n));
}
inline Bytes a_data(const char* ip) {
  Bytes out(4);
  inet_pton(AF_INET, ip, out.data());
  return out;
}
inline Bytes aaaa_data(const char* ip) {
  Bytes out(16);
  inet_pton(AF_INET6, ip, out.data());
  return out;
}
inline Bytes srv_data(uint16_t port, const char* target) {
  Bytes out = {0, 0, 0, 0, static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port)};
  const Bytes t = name_bytes(target);
  out.insert(out.end(), t.begin(), t.end());
  return out;
}
inline Bytes txt_data(const char* entry) {
  Bytes out = {static_cast<uint8_t>(std::strlen(entry))};
  out.insert(out.end(), entry, entry + std::strlen(entry));
  return out;
}

// A response built section by section.
class Message {
 public:
  explicit Message(uint16_t flags = 0x8400) : flags_(flags) {}
  Message& answer(const char* name, uint16_t type, uint32_t ttl, const Bytes& data, bool flush = false) {
    add(answers_, an_, name, type, ttl, data, flush);
    return *this;
  }
  Message& additional(const char* name, uint16_t type, uint32_t ttl, const Bytes& data, bool flush = true) {
    add(additionals_, ar_, name, type, ttl, data, flush);
    return *this;
  }
  Bytes bytes() const {
    Bytes out;
    for (uint16_t v : {uint16_t{0}, flags_, uint16_t{0}, an_, uint16_t{0}, ar_}) {
      push16(out, v);
    }
    out.insert(out.end(), answers_.begin(), answers_.end());
    out.insert(out.end(), additionals_.begin(), additionals_.end());
    return out;
  }

 private:
  static void push16(Bytes& out, uint32_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
  }
  static void add(Bytes& out, uint16_t& count, const char* name, uint16_t type, uint32_t ttl,
                  const Bytes& data, bool flush) {
    ++count;
    const Bytes owner = name_bytes(name);
    out.insert(out.end(), owner.begin(), owner.end());
    for (uint32_t v : {uint32_t{type}, flush ? 0x8001u : 0x0001u, ttl >> 16, ttl & 0xFFFF,
                       static_cast<uint32_t>(data.size())}) {
      push16(out, v);
    }
    out.insert(out.end(), data.begin(), data.end());
  }
  uint16_t flags_;
  uint16_t an_ = 0;
  uint16_t ar_ = 0;
  Bytes answers_;
  Bytes additionals_;
};

// One captured query, decoded.
struct SentQuery {
  int32_t time = 0;
  mDNSInterfaceID interface_id = nullptr;
  int family = 0;
  uint16_t flags = 0;
  std::vector<mdns::ParsedQuestion> questions;
  std::vector<mdns::ParsedRecord> known_answers;

  // How often the packet asks the question (0: not at all).
  int asks(const char* name, uint16_t qtype) const {
    int n = 0;
    for (const auto& q : questions) {
      n += q.qtype == qtype && mdns::names_equal(q.name, dn(name)) ? 1 : 0;
    }
    return n;
  }
};

struct Event {
  int32_t time;
  std::string data;  // PTR target text, or empty
  QC_result kind;
};

class EngineTest : public ::testing::Test {
 protected:
  explicit EngineTest(mDNSu32 cache_size = 128)
      : cache_(new CacheEntity[cache_size]), cache_size_(cache_size) {}

  void SetUp() override {
    p_.test_mode = 1;
    ASSERT_TRUE(mdns::platform_test_add_interface(&p_, "eth0", kEth0, "192.168.1.10", "255.255.255.0"));
    ASSERT_TRUE(mdns::platform_test_add_address(&p_, kEth0, "fe80::10", 64));
    init();
  }

  void TearDown() override {
    mDNS_StartExit(&m_);
    mDNS_FinalExit(&m_);
  }

  void init() {
    ASSERT_EQ(mDNS_Init(&m_, &p_, cache_.get(), cache_size_, mDNSfalse, nullptr, nullptr), mStatus_NoError);
    mdns::platform_set_send_hook(&p_, &EngineTest::capture, this);
    mdns::engine_set_fake_clock(&m_, now_);
  }

  // A second interface, eth1 on 10.0.0.0/8, IPv4 only.
  void add_eth1() {
    ASSERT_TRUE(mdns::platform_test_add_interface(&p_, "eth1", kEth1, "10.0.0.1", "255.0.0.0"));
    ASSERT_EQ(mDNSPlatformPosixRefreshInterfaceList(&m_), mStatus_NoError);
  }

  // Question storage that outlives the test body (the core's list points into it until exit).
  DNSQuestion& question() {
    questions_.push_back(std::make_unique<DNSQuestion>());
    std::memset(questions_.back().get(), 0, sizeof(DNSQuestion));
    return *questions_.back();
  }

  static mDNSInterfaceID eth0() { return mdns::platform_interface_id(kEth0); }
  static mDNSInterfaceID eth1() { return mdns::platform_interface_id(kEth1); }

  void receive(const Message& msg, const char* source = "192.168.1.20", uint16_t port = 5353,
               mDNSInterfaceID interface_id = eth0()) {
    receive_bytes(msg.bytes(), source, port, interface_id);
  }

  void receive_bytes(const Bytes& bytes, const char* source = "192.168.1.20", uint16_t port = 5353,
                     mDNSInterfaceID interface_id = eth0()) {
    mDNSAddr addr{};
    addr.type = mDNSAddrType_IPv4;
    if (inet_pton(AF_INET, source, &addr.ip.v4) != 1) {
      ASSERT_EQ(inet_pton(AF_INET6, source, &addr.ip.v6), 1);
      addr.type = mDNSAddrType_IPv6;
    }
    const mDNSIPPort p{{static_cast<mDNSu8>(port >> 8), static_cast<mDNSu8>(port)}};
    mdns::engine_receive(&m_, bytes.data(), bytes.size(), addr, p, interface_id, now_);
  }

  // One event pass at the current time.
  void run() { mdns::engine_run_scheduled(&m_, now_); }

  // Moves the clock forward to `target`, running a pass at every event on the way.
  void run_until(int32_t target) {
    for (int guard = 0; guard < 100000; ++guard) {
      run();
      const int32_t wait = std::max(mdns::engine_time_to_next_event(&m_, now_), 1);
      if (now_ + wait - target >= 0) {
        break;
      }
      now_ += wait;
      mdns::engine_set_fake_clock(&m_, now_);
    }
    now_ = target;
    mdns::engine_set_fake_clock(&m_, now_);
    run();
  }
  void run_for(int32_t ms) { run_until(now_ + ms); }

  std::vector<SentQuery> queries_asking(const char* name, uint16_t qtype, int family = 4) const {
    std::vector<SentQuery> out;
    for (const auto& q : sent_) {
      if (q.family == family && q.asks(name, qtype) > 0) {
        out.push_back(q);
      }
    }
    return out;
  }

  static void capture(void* context, mDNSInterfaceID interface_id, int family, const uint8_t* message,
                      size_t length) {
    auto* self = static_cast<EngineTest*>(context);
    SentQuery q;
    q.time = self->now_;
    q.interface_id = interface_id;
    q.family = family;
    mdns::MessageParser parser(message, length);
    mdns::MessageHeader h;
    EXPECT_TRUE(parser.read_header(h));
    q.flags = h.flags;
    q.questions.resize(h.qdcount);
    for (auto& pq : q.questions) {
      EXPECT_EQ(parser.next_question(pq), mdns::MessageParser::Result::kOk);
    }
    mdns::ParsedRecord rec;
    while (parser.next_record(rec) == mdns::MessageParser::Result::kOk) {
      q.known_answers.push_back(rec);
    }
    EXPECT_EQ(q.known_answers.size(), h.ancount);
    EXPECT_LE(length, 1500u);
    self->sent_.push_back(q);
  }

  static void record_event(mDNS* const, DNSQuestion* question, const ResourceRecord* const answer,
                           QC_result kind) {
    auto* self = static_cast<EngineTest*>(question->QuestionContext);
    const bool ptr = answer->rrtype == kDNSType_PTR;
    self->events_.push_back({self->now_, ptr ? text_of(answer->rdata->u.name) : "", kind});
  }

  void start_browse(DNSQuestion* q, const char* type = "_http._tcp", mDNSInterfaceID id = mDNSInterface_Any,
                    mDNSQuestionCallback* callback = &EngineTest::record_event) {
    const domainname t = dn(type);
    const domainname d = dn("local.");
    ASSERT_EQ(mDNS_StartBrowse(&m_, q, &t, &d, id, mDNSfalse, callback, this), mStatus_NoError);
  }

  void start_query(DNSQuestion* q, const char* name, uint16_t qtype) {
    std::memset(q, 0, sizeof *q);
    q->qname = dn(name);
    q->qtype = qtype;
    q->qclass = kDNSClass_IN;
    q->QuestionCallback = &EngineTest::record_event;
    q->QuestionContext = this;
    ASSERT_EQ(mDNS_StartQuery(&m_, q), mStatus_NoError);
  }

  size_t count_events(QC_result kind, const char* data = nullptr) const {
    size_t n = 0;
    for (const auto& e : events_) {
      n += e.kind == kind && (data == nullptr || e.data == data) ? 1 : 0;
    }
    return n;
  }

  // The usual announcement: PTR answer with SRV, TXT, A and AAAA additionals.
  static Message announcement(const char* instance, const char* host, uint32_t ttl = 120) {
    const std::string full = std::string(instance) + "._http._tcp.local.";
    Message msg;
    msg.answer("_http._tcp.local.", kDNSType_PTR, ttl * 37, name_bytes(full.c_str()))
        .additional(full.c_str(), kDNSType_SRV, ttl, srv_data(8080, host))
        .additional(full.c_str(), kDNSType_TXT, ttl * 37, txt_data("path=/"))
        .additional(host, kDNSType_A, ttl, a_data("192.168.1.20"))
        .additional(host, kDNSType_AAAA, ttl, aaaa_data("fe80::20"));
    return msg;
  }

  mDNS m_{};
  mDNS_PlatformSupport p_{};
  std::unique_ptr<CacheEntity[]> cache_;
  mDNSu32 cache_size_;
  int32_t now_ = kStartTime;
  std::vector<SentQuery> sent_;
  std::vector<Event> events_;
  std::vector<std::unique_ptr<DNSQuestion>> questions_;
};

}  // namespace mdns_test
