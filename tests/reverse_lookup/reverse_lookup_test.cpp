// The reverse lookup's answer decoder on hostile messages, and whole lookups
// against a scripted device on a loopback of its own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <initializer_list>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "reverse_lookup/answer_decoder.h"
#include "scripted_peer.h"
#include "sorvalen/dns_reverse_lookup.h"

namespace sorvalen::test {
namespace {

const Bytes kOwner = wire_name("x");

// A PTR record whose target is labels of these lengths.
Bytes ptr_of_labels(std::initializer_list<int> lengths) {
  Bytes target;
  for (int length : lengths) {
    target.push_back(static_cast<uint8_t>(length));
    target.insert(target.end(), static_cast<std::size_t>(length), 'x');
  }
  target.push_back(0);
  return rr(kOwner, 12, target);
}

TEST(AnswerDecoder, ReadsThePtrAndSrvAnswersAndRefusesAnythingElseKeepingTheId) {
  // Compressed owners; the target "tv" ends in a pointer to the question's name.
  const Bytes compressed = answer(5, "a.b",
                                  {rr({0xC0, 0x0C}, 12, {2, 't', 'v', 0xC0, 0x0C}),
                                   rr({0xC0, 0x0C}, 33, {0, 0, 0, 0, 0x1F, 0x49, 0xC0, 0x0C})});
  // The message with the byte at `at` (from the end when negative) changed.
  const auto with = [](Bytes m, int at, uint8_t value) {
    m[at < 0 ? m.size() + at : at] = value;
    return m;
  };
  const std::string x126(126, 'x'), x127(127, 'x');
  // No port: refused.
  const std::tuple<const char*, Bytes, uint16_t, std::string> cases[] = {
      {"PTR, SRV", answer(1, "a.b", {ptr("t.a.b"), srv(99)}), 99, "t.a.b"},
      {"SRV, PTR", answer(2, "a.b", {srv(98), ptr("u.a.b")}), 98, "u.a.b"},
      {"compressed", compressed, 8009, "tv.a.b"},
      {"255 bytes fit", answer(6, "a.b", {ptr_of_labels({126, 127}), srv(1)}), 1, x126 + "." + x127},
      {"PTR only", answer(7, "a.b", {ptr("t")}), 0, ""},
      {"SRV only", answer(8, "a.b", {srv(1)}), 0, ""},
      {"no answers", answer(9, "a.b", {}), 0, ""},
      {"SRV of 4 bytes", answer(10, "a.b", {ptr("t"), rr(kOwner, 33, {0, 0, 0, 0})}), 0, ""},
      {"ANCOUNT 3 of 2", with(answer(11, "a.b", {ptr("t"), srv(1)}), 7, 3), 0, ""},
      {"ANCOUNT 65535", with(with(answer(11, "a.b", {ptr("t"), srv(1)}), 7, 0xFF), 6, 0xFF), 0, ""},
      // The SRV's RDLENGTH, high byte.
      {"RDATA past the end", with(answer(12, "a.b", {ptr("t"), srv(5)}), -20, 0x7F), 0, ""},
      // At 64 the target is a pointer to itself.
      {"looping target", answer(13, "a.b", {srv(5), rr({0xC0, 0x0C}, 12, {0xC0, 64})}), 0, ""},
      {"256 bytes to copy", answer(14, "a.b", {ptr_of_labels({127, 127}), srv(1)}), 0, ""},
      {"labels of 191", answer(15, "a.b", {ptr_of_labels({191, 191}), srv(1)}), 0, ""},
      {"255 is a pointer", answer(16, "a.b", {ptr_of_labels({255}), srv(1)}), 0, ""},
      {"label past its name", answer(17, "a.b", {rr(kOwner, 12, {9, 'a', 'b', 0}), srv(1)}), 0, ""},
  };
  for (const auto& [what, message, port, name] : cases) {
    const AnswerOutcome outcome = decode_answer(message.data(), message.size(), 5, 0xBEEF);
    EXPECT_EQ(std::make_tuple(outcome.id, outcome.ok, outcome.port, outcome.name),
              std::make_tuple(message[0] << 8 | message[1], port != 0, port, name))
        << what;
  }
  // Every truncation is unusable; one too short for an ID reports the query's.
  for (std::size_t length = 2; length < compressed.size(); ++length)
    EXPECT_FALSE(decode_answer(compressed.data(), length, 5, 0xBEEF).ok) << length;
  EXPECT_EQ(decode_answer(compressed.data(), 1, 5, 0xBEEF).id, 0xBEEF);
}

using namespace std::chrono_literals;

constexpr const char* kDevice = "127.0.0.1";
constexpr const char* kService = "_http._tcp.local";

struct Call {
  int tag;
  unsigned short id;
  bool ok;
  IPAddressV4 record;
};

// Every callback call, in the order they happened.
std::mutex calls_mutex;
std::condition_variable calls_changed;
std::vector<Call> calls;

// The calls so far once there are `count` of them, waiting up to 20 s.
std::vector<Call> calls_when(std::size_t count) {
  std::unique_lock<std::mutex> lock(calls_mutex);
  calls_changed.wait_for(lock, 20s, [&] { return calls.size() >= count; });
  return calls;
}

template <int Tag>
void plain_callback(unsigned short id, bool ok, IPAddressV4 record) {
  std::lock_guard<std::mutex> lock(calls_mutex);
  calls.push_back({Tag, id, ok, std::move(record)});
  calls_changed.notify_all();
}

class ReverseLookupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(own_loopback_);
    calls.clear();
  }
  void TearDown() override {
    if (lookup_ != nullptr)
      lookup_->Dispose();
  }

  // A lookup, asked once the previous one's thread has let go, answered with
  // `reply` (none when empty); returns the calls once there are `calls_then`.
  std::vector<Call> exchange(unsigned short id, const Bytes& reply, std::size_t calls_then,
                             const std::string& name = kService) {
    bool sent = false;
    for (int i = 0; i < 4000 && !(sent = lookup_->Lookup(id, kDevice, name)); ++i)
      std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(sent);
    EXPECT_FALSE(lookup_->Lookup(id, kDevice, name)) << "busy";
    EXPECT_TRUE(peer_.await_query(&query_));
    EXPECT_NE(ntohs(query_.sender.sin_port), 5353);
    if (!reply.empty())
      peer_.reply(query_, reply);
    return calls_when(calls_then);
  }

  bool nothing_sent() { return !peer_.await_query(&query_, 300ms); }

  // Without the rights for a network namespace of its own, the host's loopback.
  const bool own_loopback_ = unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") == 0;
  ScriptedPeer peer_;
  DNSReverseLookup* lookup_ = DNSReverseLookup::CreateDNSReverseLookup();
  ReceivedQuery query_;
};

TEST_F(ReverseLookupTest, SendsTheQueryAndReportsEachOutcomeToEveryCallbackInOrder) {
  std::vector<bool> nested;
  lookup_->connect(
      [&](unsigned short, bool, IPAddressV4) { nested.push_back(lookup_->Lookup(9, kDevice, "")); });
  lookup_->connect(plain_callback<1>);
  lookup_->connect([](unsigned short id, bool ok, IPAddressV4 r) { plain_callback<9>(id, ok, r); });
  lookup_->connect([](unsigned short, bool, IPAddressV4) { throw std::runtime_error("application fault"); });
  lookup_->connect(plain_callback<2>);
  lookup_->connect(plain_callback<1>);
  lookup_->connect(LookupCallback{});
  EXPECT_FALSE(lookup_->Lookup(1, kDevice, kService)) << "before Init";
  ASSERT_TRUE(lookup_->Init());
  EXPECT_FALSE(lookup_->Init());
  EXPECT_FALSE(lookup_->Lookup(2, "printer.local", kService));
  EXPECT_FALSE(lookup_->Lookup(2, "::1", kService));
  EXPECT_FALSE(lookup_->Lookup(2, kDevice, std::string(1007, 'n')));
  EXPECT_FALSE(lookup_->Lookup(2, kDevice, "a." + std::string(256, 'l') + ".local"));
  EXPECT_TRUE(nothing_sent());

  // The question ends at the first empty label; the longest name that fits,
  // with 255-byte labels, is sent whole.
  const std::string x255(255, 'x'), longest = x255 + "." + x255 + "." + x255 + "." + std::string(238, 'y');
  // ID, recursion desired, one question for PTR in class IN, no unicast-response bit.
  const auto query = [](const char* name) { return DnsMessage(0x1234, 0x0100).question(name, 12).bytes(); };
  const std::pair<std::string, Bytes> queries[] = {
      {"a.b", query("a.b")}, {"a.b.", query("a.b")}, {"", query("")}, {"a..b", query("a")}};
  std::size_t n = 0;  // the calls so far
  for (const auto& [name, bytes] : queries) {
    exchange(0x1234, answer(0x1234, "", {}), n += 4, name);
    EXPECT_EQ(query_.bytes, bytes) << name;
  }
  exchange(0x1234, answer(0x1234, "", {}), n += 4, longest);
  EXPECT_EQ(query_.bytes.size(), 16 + longest.size() + 2);

  // Every callback gets the outcome in connection order, also past one that
  // throws or is empty; another ID than the query's is no reason to reject;
  // no answer ends the lookup after its 5 s time-out.
  const std::tuple<Bytes, unsigned short, bool, std::string> outcomes[] = {
      {answer(0x7777, kService, {ptr("tv.local"), srv(8080)}), 0x7777, true, "tv.local"},
      {answer(0x0505, kService, {ptr("tv.local")}), 0x0505, false, ""},
      {Bytes(1500, 0xC0), 0xC0C0, false, ""},  // more than the receive buffer holds
      {Bytes(), 1, false, ""},
  };
  for (const auto& [reply, id, ok, name] : outcomes) {
    const auto start = std::chrono::steady_clock::now();
    const std::vector<Call> now = exchange(1, reply, n + 4);
    EXPECT_TRUE(!reply.empty() || std::chrono::steady_clock::now() - start >= 4s);
    ASSERT_EQ(now.size(), n + 4);
    for (int tag : {1, 9, 2, 1}) {
      const Call& c = now[n++];
      EXPECT_EQ(std::make_tuple(c.tag, c.id, c.ok, c.record.address, c.record.port,
                                c.record.name + c.record.type + c.record.domain),
                std::make_tuple(tag, id, ok, ok ? inet_addr(kDevice) : 0u, ok ? 8080 : 0, name));
    }
  }
  EXPECT_EQ(nested, std::vector<bool>(9, false)) << "busy also inside a callback";

  // The earlier duplicate goes; a lambda, an absent function and an empty
  // wrapper have no identity and remove nothing.
  lookup_->disconnect(plain_callback<1>);
  lookup_->disconnect(plain_callback<4>);
  lookup_->disconnect([](unsigned short, bool, IPAddressV4) {});
  lookup_->disconnect(LookupCallback{});
  const std::vector<Call> last = exchange(2, answer(2, kService, {}), n + 3);
  ASSERT_GE(last.size(), n + 3);
  EXPECT_TRUE(last[n].tag == 9 && last[n + 1].tag == 2 && last[n + 2].tag == 1);

  lookup_->Destroy();
  lookup_->Destroy();
  EXPECT_FALSE(lookup_->Init());
  EXPECT_FALSE(lookup_->Lookup(5, kDevice, kService));
  EXPECT_TRUE(nothing_sent());
}

// Disposal needs neither Init nor a lookup; Destroy and Dispose end an
// outstanding lookup at once, also right after an answer, with one outcome.
TEST_F(ReverseLookupTest, DestroyAndDisposeEndAnOutstandingLookupAtOnceWithOneOutcome) {
  DNSReverseLookup::CreateDNSReverseLookup()->Dispose();
  for (unsigned short id = 1; id <= 20; ++id) {
    lookup_ = id == 1 ? lookup_ : DNSReverseLookup::CreateDNSReverseLookup();
    lookup_->connect(plain_callback<1>);
    ASSERT_TRUE(lookup_->Init());
    ASSERT_TRUE(lookup_->Lookup(id, kDevice, kService));
    ASSERT_TRUE(peer_.await_query(&query_));
    if (id % 2 == 0)
      peer_.reply(query_, answer(id, kService, {ptr("a"), srv(1)}));
    const auto start = std::chrono::steady_clock::now();
    if (id % 4 == 1) {
      lookup_->Destroy();
      EXPECT_FALSE(lookup_->Lookup(id, kDevice, kService));
    }
    lookup_->Dispose();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);  // well before the 5 s receive time-out
    ASSERT_EQ(calls.size(), id);
    EXPECT_TRUE(calls.back().id == id && (id % 2 == 0 || !calls.back().ok));
  }
  lookup_ = nullptr;
}

}  // namespace
}  // namespace sorvalen::test
