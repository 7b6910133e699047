// The reverse lookup end to end against a scripted device on loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dns_message_builder.h"
#include "scripted_peer.h"
#include "sorvalen/dns_reverse_lookup.h"

namespace sorvalen::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kDevice = "127.0.0.1";
constexpr const char* kService = "_http._tcp.local";

struct Call {
  int tag;
  unsigned short id;
  bool ok;
  IPAddressV4 record;
};

// Every callback call of a test, in the order they happened.
class CallLog {
 public:
  void add(Call call) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
    changed_.notify_all();
  }
  bool wait_for(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, 20s, [&] { return calls_.size() >= count; });
  }
  std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  std::vector<int> tags() {
    std::vector<int> out;
    for (const Call& call : calls())
      out.push_back(call.tag);
    return out;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
};

CallLog& call_log() {
  static CallLog log;
  return log;
}

template <int Tag>
void plain_callback(unsigned short id, bool ok, IPAddressV4 record) {
  call_log().add({Tag, id, ok, std::move(record)});
}

Bytes good_answer(unsigned id, unsigned port = 8080) {
  Bytes message = answer_header(id, 2, kService);
  append(&message, ptr_record(kService, "printer._http._tcp.local"));
  append(&message, srv_record("printer._http._tcp.local", port));
  return message;
}

class ReverseLookupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    enter_private_loopback();
    call_log().clear();
    peer_ = std::make_unique<ScriptedPeer>();
    lookup_ = DNSReverseLookup::CreateDNSReverseLookup();
  }
  void TearDown() override {
    if (lookup_ != nullptr)
      lookup_->Dispose();
  }

  // Lookup once the previous lookup's thread has let go (it clears busy just
  // after its last callback).  Bounded: nothing is sent while it refuses.
  bool lookup_when_idle(unsigned short id, const std::string& name) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline) {
      if (lookup_->Lookup(id, kDevice, name))
        return true;
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }

  // One lookup answered with `answer`; returns the first callback's call.
  Call exchange(unsigned short id, const Bytes& answer) {
    const std::size_t before = call_log().calls().size();
    EXPECT_TRUE(lookup_when_idle(id, kService));
    ReceivedQuery query;
    EXPECT_TRUE(peer_->await_query(&query));
    peer_->reply(query, answer);
    EXPECT_TRUE(call_log().wait_for(before + 1));
    return call_log().calls().at(before);
  }

  // True when the peer receives nothing for a short while.
  bool nothing_sent() {
    ReceivedQuery query;
    return !peer_->await_query(&query, 300ms);
  }

  std::unique_ptr<ScriptedPeer> peer_;
  DNSReverseLookup* lookup_ = nullptr;
};

TEST_F(ReverseLookupTest, SendsTheExactQueryFromAnEphemeralPort) {
  ASSERT_TRUE(lookup_->Init());
  const Bytes a_b{0x12, 0x34, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00,
                  0x00, 0x01, 0x61, 0x01, 0x62, 0x00, 0x00, 0x0C, 0x00, 0x01};
  const struct {
    const char* name;
    Bytes query;
  } cases[] = {
      {"a.b", a_b},
      {"a.b.", a_b},
      {"", {0x12, 0x34, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0x0C, 0, 1}},
      // The question stops at the first empty label.
      {"a..b", {0x12, 0x34, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 'a', 0, 0, 0x0C, 0, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(lookup_when_idle(0x1234, c.name));
    ReceivedQuery query;
    ASSERT_TRUE(peer_->await_query(&query));
    EXPECT_EQ(query.bytes, c.query);
    EXPECT_NE(ntohs(query.sender.sin_port), 5353);
    peer_->reply(query, answer_header(0x1234, 0, c.name));
  }
}

TEST_F(ReverseLookupTest, ReportsSenderPortAndTargetOfAUsableAnswer) {
  lookup_->connect(plain_callback<1>);
  ASSERT_TRUE(lookup_->Init());
  Bytes srv_first = answer_header(1, 2, kService);
  append(&srv_first, srv_record("printer._http._tcp.local", 631));
  append(&srv_first, ptr_record(kService, "printer._http._tcp.local"));
  Bytes twice_each = answer_header(2, 4, kService);
  for (const char* instance : {"one", "two"}) {
    append(&twice_each, ptr_record(kService, instance + std::string("._http._tcp.local")));
    append(&twice_each,
           srv_record(instance + std::string("._http._tcp.local"), instance[0] == 'o' ? 1000 : 2000));
  }
  // Target "tv" followed by a pointer to the question's name at byte 12.
  Bytes compressed = answer_header(3, 2, kService);
  append(&compressed, record({0xC0, 0x0C}, 12, Bytes{2, 't', 'v', 0xC0, 0x0C}));
  append(&compressed, record({0xC0, 0x0C}, 33, Bytes{0, 0, 0, 0, 0x1F, 0x49, 0xC0, 0x0C}));
  const struct {
    const char* what;
    Bytes answer;
    unsigned short id;  // the answer's: another ID is no reason to reject
    uint16_t port;
    const char* name;
  } cases[] = {
      {"SRV before PTR", srv_first, 1, 631, "printer._http._tcp.local"},
      {"the later PTR and SRV win", twice_each, 2, 2000, "two._http._tcp.local"},
      {"compressed target", compressed, 3, 8009, "tv._http._tcp.local"},
      {"another ID", good_answer(0x7777), 0x7777, 8080, "printer._http._tcp.local"},
  };
  in_addr device{};
  inet_pton(AF_INET, kDevice, &device);
  unsigned short query_id = 0x0100;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Call call = exchange(++query_id, c.answer);
    EXPECT_TRUE(call.ok);
    EXPECT_EQ(call.id, c.id);
    EXPECT_EQ(call.record.address, device.s_addr);
    EXPECT_EQ(call.record.port, c.port);
    EXPECT_EQ(call.record.name, c.name);
    EXPECT_EQ(call.record.type, "");
    EXPECT_EQ(call.record.domain, "");
  }
}

TEST_F(ReverseLookupTest, ReportsAnUnusableAnswerWithItsIdAndAnEmptyRecord) {
  lookup_->connect(plain_callback<1>);
  ASSERT_TRUE(lookup_->Init());

  Bytes ptr_only = answer_header(0x0505, 1, kService);
  append(&ptr_only, ptr_record(kService, "printer._http._tcp.local"));
  Call call = exchange(5, ptr_only);
  EXPECT_FALSE(call.ok);
  EXPECT_EQ(call.id, 0x0505);
  EXPECT_EQ(call.record.address, 0u);
  EXPECT_EQ(call.record.port, 0);
  EXPECT_EQ(call.record.name, "");

  // More than the receive buffer holds.
  call = exchange(7, Bytes(1500, 0xC0));
  EXPECT_FALSE(call.ok);
  EXPECT_EQ(call.id, 0xC0C0);
}

TEST_F(ReverseLookupTest, TakesALateAnswerAsTheNextLookupsAnswer) {
  lookup_->connect(plain_callback<1>);
  ASSERT_TRUE(lookup_->Init());
  ASSERT_TRUE(lookup_when_idle(1, kService));
  ReceivedQuery query;
  ASSERT_TRUE(peer_->await_query(&query));
  peer_->reply(query, good_answer(1, 1111));
  peer_->reply(query, good_answer(1, 2222));
  ASSERT_TRUE(call_log().wait_for(1));

  ASSERT_TRUE(lookup_when_idle(2, kService));
  ASSERT_TRUE(call_log().wait_for(2));
  const Call late = call_log().calls().at(1);
  EXPECT_EQ(late.id, 1);
  EXPECT_TRUE(late.ok);
  EXPECT_EQ(late.record.port, 2222);
}

TEST_F(ReverseLookupTest, ReportsTheQueryIdWhenNoAnswerComesAndRecovers) {
  lookup_->connect(plain_callback<1>);
  lookup_->connect(plain_callback<2>);
  ASSERT_TRUE(lookup_->Init());
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(lookup_->Lookup(0x0F0F, kDevice, kService));
  ASSERT_TRUE(call_log().wait_for(2));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 4s);  // the receive waited for its time-out
  for (const Call& call : call_log().calls()) {
    EXPECT_EQ(call.id, 0x0F0F);
    EXPECT_FALSE(call.ok);
    EXPECT_EQ(call.record.address, 0u);
    EXPECT_EQ(call.record.name, "");
  }
  EXPECT_EQ(call_log().tags(), (std::vector<int>{1, 2}));

  ReceivedQuery unanswered;
  ASSERT_TRUE(peer_->await_query(&unanswered));
  EXPECT_TRUE(exchange(0x1010, good_answer(0x1010)).ok);
}

TEST_F(ReverseLookupTest, RefusesWhileBusyBeforeInitAndOnUnusableInputWithoutSending) {
  std::vector<bool> nested_results;
  DNSReverseLookup* self = lookup_;
  lookup_->connect([&nested_results, self](unsigned short, bool, IPAddressV4) {
    nested_results.push_back(self->Lookup(99, kDevice, kService));
  });
  lookup_->connect(plain_callback<1>);
  EXPECT_FALSE(lookup_->Lookup(1, kDevice, kService));  // before Init
  ASSERT_TRUE(lookup_->Init());

  EXPECT_FALSE(lookup_->Lookup(2, "printer.local", kService));
  EXPECT_FALSE(lookup_->Lookup(2, "::1", kService));
  EXPECT_FALSE(lookup_->Lookup(2, kDevice, std::string(1007, 'n')));
  EXPECT_FALSE(lookup_->Lookup(2, kDevice, "a." + std::string(256, 'l') + ".local"));
  EXPECT_TRUE(nothing_sent());

  // The longest name that fits, with 255-byte labels, is sent.
  std::string longest;
  while (longest.size() + 256 <= 1006)
    longest += std::string(255, 'x') + ".";
  longest += std::string(1006 - longest.size(), 'y');
  ASSERT_TRUE(lookup_->Lookup(3, kDevice, longest));
  ReceivedQuery query;
  ASSERT_TRUE(peer_->await_query(&query));
  EXPECT_EQ(query.bytes.size(), 16 + longest.size() + 2);

  EXPECT_FALSE(lookup_->Lookup(4, kDevice, kService));  // busy
  peer_->reply(query, good_answer(3));
  ASSERT_TRUE(call_log().wait_for(1));
  EXPECT_EQ(call_log().calls().at(0).id, 3);
  EXPECT_EQ(nested_results, std::vector<bool>{false}) << "busy also inside a callback";
  EXPECT_TRUE(nothing_sent());
}

TEST_F(ReverseLookupTest, InitsOnceAndNotAfterDestroy) {
  ASSERT_TRUE(lookup_->Init());
  EXPECT_FALSE(lookup_->Init());
  ASSERT_TRUE(lookup_when_idle(1, kService));  // the first socket still works
  ReceivedQuery query;
  ASSERT_TRUE(peer_->await_query(&query));
  peer_->reply(query, good_answer(1));

  lookup_->Destroy();
  lookup_->Destroy();
  EXPECT_FALSE(lookup_->Init());
  EXPECT_FALSE(lookup_->Lookup(2, kDevice, kService));
  EXPECT_TRUE(nothing_sent());

  // Disposal needs neither Init nor a lookup.
  DNSReverseLookup::CreateDNSReverseLookup()->Dispose();
}

TEST_F(ReverseLookupTest, CallbacksRunInOrderSurviveThrowsAndOnlyPlainFunctionsDisconnect) {
  lookup_->connect(plain_callback<1>);
  lookup_->connect([](unsigned short id, bool ok, IPAddressV4 r) { call_log().add({9, id, ok, r}); });
  lookup_->connect([](unsigned short, bool, IPAddressV4) { throw std::runtime_error("application fault"); });
  lookup_->connect(plain_callback<2>);
  lookup_->connect(plain_callback<1>);
  lookup_->connect(LookupCallback{});
  lookup_->connect([](unsigned short, bool, IPAddressV4) { throw 42; });
  lookup_->connect(plain_callback<3>);
  ASSERT_TRUE(lookup_->Init());
  EXPECT_TRUE(exchange(1, good_answer(1)).ok);
  ASSERT_TRUE(call_log().wait_for(5));
  EXPECT_EQ(call_log().tags(), (std::vector<int>{1, 9, 2, 1, 3}));

  // The earlier duplicate goes first; a lambda has no identity and stays.
  lookup_->disconnect(plain_callback<1>);
  lookup_->disconnect(plain_callback<4>);
  lookup_->disconnect([](unsigned short, bool, IPAddressV4) {});
  lookup_->disconnect(LookupCallback{});
  call_log().clear();
  exchange(2, good_answer(2));
  ASSERT_TRUE(call_log().wait_for(4));
  EXPECT_EQ(call_log().tags(), (std::vector<int>{9, 2, 1, 3}));
}

TEST_F(ReverseLookupTest, DestroyAndDisposeEndAnOutstandingLookupAtOnce) {
  lookup_->connect(plain_callback<1>);
  ASSERT_TRUE(lookup_->Init());
  ReceivedQuery query;
  ASSERT_TRUE(lookup_->Lookup(21, kDevice, kService));
  ASSERT_TRUE(peer_->await_query(&query));
  lookup_->Destroy();
  ASSERT_EQ(call_log().calls().size(), 1u);
  EXPECT_EQ(call_log().calls()[0].id, 21);
  EXPECT_FALSE(call_log().calls()[0].ok);
  EXPECT_FALSE(lookup_->Lookup(22, kDevice, kService));
  lookup_->Dispose();

  lookup_ = DNSReverseLookup::CreateDNSReverseLookup();
  lookup_->connect(plain_callback<1>);
  ASSERT_TRUE(lookup_->Init());
  ASSERT_TRUE(lookup_->Lookup(23, kDevice, kService));
  ASSERT_TRUE(peer_->await_query(&query));
  const auto start = std::chrono::steady_clock::now();
  lookup_->Dispose();
  lookup_ = nullptr;
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);  // well before the 5 s receive time-out
  ASSERT_EQ(call_log().calls().size(), 2u);
  EXPECT_EQ(call_log().calls()[1].id, 23);
  EXPECT_FALSE(call_log().calls()[1].ok);
}

TEST_F(ReverseLookupTest, DisposeRightAfterAnAnswerDoesNotLoseTheOutcome) {
  for (unsigned short id = 1; id <= 20; ++id) {
    lookup_->connect(plain_callback<1>);
    ASSERT_TRUE(lookup_->Init());
    ASSERT_TRUE(lookup_->Lookup(id, kDevice, kService));
    ReceivedQuery query;
    ASSERT_TRUE(peer_->await_query(&query));
    peer_->reply(query, good_answer(id));
    lookup_->Dispose();
    lookup_ = DNSReverseLookup::CreateDNSReverseLookup();
    ASSERT_EQ(call_log().calls().size(), id);  // exactly one outcome per lookup, ok or not
  }
}

}  // namespace
}  // namespace sorvalen::test
