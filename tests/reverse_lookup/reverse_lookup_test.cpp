// The reverse lookup: its answer decoder on well-formed and hostile messages,
// and the whole lookup against a scripted device on a loopback of its own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <initializer_list>
#include <memory>
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

TEST(AnswerDecoder, ReadsTheLatestPtrAndSrvAnswersAndRefusesAnythingElseKeepingTheId) {
  // The question is skipped by the query's length, not parsed.
  Bytes garbage_question = answer(1, "a.b", {ptr("t.a.b"), srv(99)});
  std::fill(garbage_question.begin() + 12, garbage_question.begin() + 21, 0xC0);
  // A PTR is stepped over by its target name, not by an RDLENGTH of 40.
  Bytes long_ptr = ptr("t.a.b");
  long_ptr[long_ptr.size() - 8] = 40;
  // Compressed owners; the target "tv" ends in a pointer to the question's name.
  const Bytes compressed = answer(5, "a.b",
                                  {rr({0xC0, 0x0C}, 12, {2, 't', 'v', 0xC0, 0x0C}),
                                   rr({0xC0, 0x0C}, 33, {0, 0, 0, 0, 0x1F, 0x49, 0xC0, 0x0C})});
  Bytes counts_too_many = answer(11, "a.b", {ptr("t"), srv(1)});
  counts_too_many[7] = 3;
  Bytes counts_most = counts_too_many;
  counts_most[6] = counts_most[7] = 0xFF;
  Bytes rdata_past_end = answer(12, "a.b", {ptr("t"), srv(5)});
  rdata_past_end[rdata_past_end.size() - 20] = 0x7F;  // the SRV's RDLENGTH, high byte
  const std::string x126(126, 'x'), x127(127, 'x');
  const std::tuple<const char*, Bytes, uint16_t, bool, uint16_t, std::string> cases[] = {
      {"PTR, SRV", answer(1, "a.b", {ptr("t.a.b"), srv(99)}), 1, true, 99, "t.a.b"},
      {"SRV, PTR", answer(2, "a.b", {srv(98), ptr("u.a.b")}), 2, true, 98, "u.a.b"},
      {"later ones win", answer(3, "a.b", {ptr("one"), srv(1000), ptr("two"), srv(2000)}), 3, true, 2000,
       "two"},
      {"question not parsed", garbage_question, 1, true, 99, "t.a.b"},
      {"PTR by its name", answer(4, "a.b", {long_ptr, srv(97)}), 4, true, 97, "t.a.b"},
      {"compressed", compressed, 5, true, 8009, "tv.a.b"},
      {"255 bytes fill the block", answer(6, "a.b", {ptr_of_labels({126, 127}), srv(1)}), 6, true, 1,
       x126 + "." + x127},
      {"PTR only", answer(7, "a.b", {ptr("t")}), 7, false, 0, ""},
      {"SRV only", answer(8, "a.b", {srv(1)}), 8, false, 0, ""},
      {"no answers", answer(9, "a.b", {}), 9, false, 0, ""},
      {"SRV of 4 bytes", answer(10, "a.b", {ptr("t"), rr(kOwner, 33, {0, 0, 0, 0})}), 10, false, 0, ""},
      {"ANCOUNT 3 of 2", counts_too_many, 11, false, 0, ""},
      {"ANCOUNT 65535", counts_most, 11, false, 0, ""},
      {"RDATA past the end", rdata_past_end, 12, false, 0, ""},
      // At 64 the target is a pointer to itself.
      {"looping target", answer(13, "a.b", {srv(5), rr({0xC0, 0x0C}, 12, {0xC0, 64})}), 13, false, 0, ""},
      {"256 bytes to copy", answer(14, "a.b", {ptr_of_labels({127, 127}), srv(1)}), 14, false, 0, ""},
      {"labels of 191", answer(15, "a.b", {ptr_of_labels({191, 191}), srv(1)}), 15, false, 0, ""},
      {"255 is a pointer", answer(16, "a.b", {ptr_of_labels({255}), srv(1)}), 16, false, 0, ""},
      {"label past its name", answer(17, "a.b", {rr(kOwner, 12, {9, 'a', 'b', 0}), srv(1)}), 17, false, 0,
       ""},
  };
  for (const auto& [what, message, id, ok, port, name] : cases) {
    const AnswerOutcome outcome = decode_answer(message.data(), message.size(), 5, 0xBEEF);
    EXPECT_EQ(std::make_tuple(outcome.id, outcome.ok, outcome.port, outcome.name),
              std::make_tuple(id, ok, port, name))
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
    ASSERT_TRUE(unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") == 0);
    calls.clear();
    peer_ = std::make_unique<ScriptedPeer>();
    lookup_ = DNSReverseLookup::CreateDNSReverseLookup();
  }
  void TearDown() override {
    if (lookup_ != nullptr)
      lookup_->Dispose();
  }

  // Asks once the previous lookup's thread has let go (it clears busy just
  // after its last callback); bounded, and nothing is sent while it refuses.
  void ask(unsigned short id, const std::string& name = kService, bool check_busy = true) {
    bool sent = false;
    for (int i = 0; i < 4000 && !(sent = lookup_->Lookup(id, kDevice, name)); ++i)
      std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(sent);
    EXPECT_TRUE(!check_busy || !lookup_->Lookup(id, kDevice, name)) << "busy";
    ASSERT_TRUE(peer_->await_query(&query_));
    EXPECT_NE(ntohs(query_.sender.sin_port), 5353);
  }

  // One lookup answered with `reply`; returns the calls once there are `calls_then`.
  std::vector<Call> exchange(unsigned short id, const Bytes& reply, std::size_t calls_then,
                             const std::string& name = kService) {
    ask(id, name);
    peer_->reply(query_, reply);
    return calls_when(calls_then);
  }

  bool nothing_sent() { return !peer_->await_query(&query_, 300ms); }

  std::unique_ptr<ScriptedPeer> peer_;
  DNSReverseLookup* lookup_ = nullptr;
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
  std::string longest;
  while (longest.size() + 256 <= 1006)
    longest += std::string(255, 'x') + ".";
  longest += std::string(1006 - longest.size(), 'y');
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
  // throws or is empty; another ID than the query's is no reason to reject.
  in_addr device{};
  inet_pton(AF_INET, kDevice, &device);
  const std::tuple<Bytes, unsigned short, bool, std::string> outcomes[] = {
      {answer(0x7777, kService, {ptr("tv._http._tcp.local"), srv(8080)}), 0x7777, true,
       "tv._http._tcp.local"},
      {answer(0x0505, kService, {ptr("tv._http._tcp.local")}), 0x0505, false, ""},
      {Bytes(1500, 0xC0), 0xC0C0, false, ""},  // more than the receive buffer holds
  };
  for (const auto& [reply, id, ok, name] : outcomes) {
    const std::vector<Call> now = exchange(1, reply, n + 4);
    ASSERT_EQ(now.size(), n + 4);
    for (int tag : {1, 9, 2, 1}) {
      const Call& c = now[n++];
      EXPECT_EQ(std::make_tuple(c.tag, c.id, c.ok, c.record.address, c.record.port,
                                c.record.name + c.record.type + c.record.domain),
                std::make_tuple(tag, id, ok, ok ? device.s_addr : 0u, ok ? 8080 : 0, name));
    }
  }
  EXPECT_EQ(nested, std::vector<bool>(8, false)) << "busy also inside a callback";

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

TEST_F(ReverseLookupTest, NoAnswerEndsAfterFiveSecondsAndALateAnswerIsTakenByTheNextLookup) {
  lookup_->connect(plain_callback<1>);
  lookup_->connect(plain_callback<2>);
  ASSERT_TRUE(lookup_->Init());
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(lookup_->Lookup(0x0F0F, kDevice, kService));
  const std::vector<Call> timed_out = calls_when(2);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 4s);  // the receive waited for its time-out
  ASSERT_EQ(timed_out.size(), 2u);
  for (int i : {0, 1})
    EXPECT_EQ(std::make_tuple(timed_out[i].tag, timed_out[i].id, timed_out[i].ok),
              std::make_tuple(i + 1, 0x0F0F, false));

  ASSERT_TRUE(peer_->await_query(&query_));  // the unanswered one
  exchange(1, answer(1, kService, {ptr("a"), srv(1111)}), 4);
  peer_->reply(query_, answer(1, kService, {ptr("a"), srv(2222)}));
  ask(2, kService, false);
  const std::vector<Call> late = calls_when(6);
  ASSERT_EQ(late.size(), 6u);
  EXPECT_EQ(late[4].id, 1);
  EXPECT_EQ(late[4].record.port, 2222);
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
    ASSERT_TRUE(peer_->await_query(&query_));
    if (id % 2 == 0)
      peer_->reply(query_, answer(id, kService, {ptr("a"), srv(1)}));
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
