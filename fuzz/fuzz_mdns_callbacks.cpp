// A program against one core in test mode: questions, browses and resolves
// started and stopped over a small pool of slots; multicast, one-shot and
// unicast DNS responses built from a small dictionary of names; time that
// passes; interfaces that change; and callbacks that themselves stop, start,
// restart or shut the core down.  Checked as it runs: a callback comes only
// inside a pass, only for what is started (never after its stop), with an
// answer to what was asked; a browse reports an instance once and its removal
// only after its add; what the application did not stop stays started; between
// operations no walk is open and no packet's records wait.  Stopped storage is
// freed once the core hands control back, so that a later use of it is a
// heap-use-after-free.
//
// Input: [config: bit 0 a second interface, bits 1-2 the cache size]
//        [program length, 2 bytes big-endian][program (see run_operation)]
//        [callback actions: each callback takes the next byte (see act)]
// fuzz/mdns_callbacks_seeds.py writes the seeds (and shows the format in use).
#include <sys/select.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "dns_builder.h"
#include "engine/engine.h"
#include "mdns/mdns.h"
#include "platform/interfaces_posix.h"
#include "platform/platform.h"
#include "platform/test_platform.h"
#include "wire/identity.h"
#include "wire/message_reader.h"
#include "wire/names.h"

extern "C" const char ProgramName[] = "fuzz_mdns_callbacks";

namespace {

using sorvalen::test::Bytes, sorvalen::test::DnsMessage, sorvalen::test::Record, sorvalen::test::wire_name;

constexpr int kQuestionSlots = 5, kSlots = 8;  // slots from kQuestionSlots on are resolves
constexpr int kMaxOperations = 200, kMaxNesting = 4, kMaxPassesPerAdvance = 400;
constexpr int kMaxCallbacks = 20000;  // later callbacks do nothing
constexpr size_t kMaxDatagram = 9000;
constexpr unsigned kMaxBulkRecords = 510;

void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "fuzz_mdns_callbacks: %s\n", what);
    std::abort();
  }
}

struct ByteStream {
  const uint8_t* data = nullptr;
  size_t size = 0, pos = 0;
  bool empty() const { return pos >= size; }
  uint8_t next() { return pos < size ? data[pos++] : 0; }
};

const char* const kInstances[] = {"tv", "Speaker", "printer (2)", "a\\.b"};
const char* const kTypes[] = {"_http._tcp", "_ipp._udp"};
const char* const kDomains[] = {"local.", "example.com."};
const char* const kHosts[] = {"host1", "host2", "HOST1", "dev-3"};

domainname name_of(const std::string& text) {
  domainname out{};
  return MakeDomainNameFromDNSNameString(&out, text.c_str()) != nullptr ? out : domainname{};
}

std::string text_of(const domainname& name) {
  char text[MAX_ESCAPED_DOMAIN_NAME];
  ConvertDomainNameToCString_withescape(&name, text, '\\');
  return text;
}

// 0-3 from the dictionary, then the names that bulk records use ("b0", "h0"...).
std::string service_type(unsigned type, unsigned domain) {
  return std::string(kTypes[type & 1]) + "." + kDomains[domain & 1];
}
std::string instance_label(unsigned i) {
  return i < 4 ? kInstances[i] : "b" + std::to_string(i - 4);
}
std::string instance_name(unsigned i, unsigned type, unsigned domain) {
  return instance_label(i) + "." + service_type(type, domain);
}
std::string host_name(unsigned i, unsigned domain) {
  return (i < 4 ? kHosts[i] : "h" + std::to_string(i - 4)) + "." + kDomains[domain & 1];
}

// A record of `type` for `owner`; `variant` picks the values, `index` keeps
// bulk records apart.  A PTR points under its owner: what a browse of it takes
// for an instance.
Record make_record(const std::string& owner, uint16_t type, unsigned names, uint8_t variant, unsigned index) {
  Record r{owner, type, 120, {variant}, false};
  const unsigned domain = mdns::name_is_under(name_of(owner), name_of("local.")) ? 0 : 1;
  const uint8_t low = uint8_t(index), high = uint8_t(index >> 8);
  const bool alt = (variant & 0x80) != 0;
  if (type == kDNSType_PTR) {
    r.data =
        wire_name((index > 0 ? "b" + std::to_string(index - 1) : instance_label(names & 7)) + "." + owner);
  } else if (type == kDNSType_SRV) {
    const unsigned port = 80 + (variant & 7) + index;
    r.data = wire_name(host_name((names >> 5) & 7, domain));
    r.data.insert(r.data.begin(), {0, 0, 0, 0, uint8_t(port >> 8), uint8_t(port)});
  } else if (type == kDNSType_TXT) {
    const size_t length = alt ? 600 : 1 + (variant & 15);  // over 512: cut when stored
    r.data.assign(length, uint8_t('a' + (variant & 7)));
    r.data[0] = uint8_t(std::min<size_t>(length - 1, 255));
    if (index > 0) {
      r.data.insert(r.data.end(), {low, high});
    }
  } else if (type == kDNSType_A) {
    r.data = {uint8_t(alt ? 10 : 192), high, low, variant};
  } else if (type == kDNSType_AAAA) {
    r.data = {uint8_t(alt ? 0x20 : 0xfe), uint8_t(alt ? 0x01 : 0x80)};
    r.data.resize(13);
    r.data.insert(r.data.end(), {high, low, variant});
  }
  return r;
}

// A one-shot or unicast query the core sent (none when it has no questions):
// what an answer must repeat.
struct Asked {
  mdns::SentMessage sent{};  // without its data
  uint16_t id = 0;
  std::vector<mdns::ParsedQuestion> questions;
};

struct Slot {
  bool resolve = false, started = false, browse = false;
  DNSQuestion* question = nullptr;  // freed when retired: a later use is caught
  ServiceInfoQuery* query = nullptr;
  ServiceInfo* info = nullptr;
  bool free_pending = false;
  uint8_t params[2] = {0, 0};
  std::map<std::string, int> reported;  // answers added and not yet removed
};

// What one input changes, reset before the next.
struct Run {
  int32_t now = 1000000;
  uint32_t cache_size = 64;
  bool two_interfaces = false, core_up = false, retire_all = false;
  bool driving = false;       // inside a pass: callbacks may run
  bool exit_started = false;  // StartExit without FinalExit yet
  int depth = 0, callbacks = 0;
  ByteStream actions;
  Asked asked[2][4];  // one-shot, unicast: the last four of each
  unsigned asked_next[2] = {0, 0};
};

mDNS g_core;
mDNS_PlatformSupport g_platform;
CacheEntity g_cache[600];
mdns::InterfaceSnapshot g_interfaces;
Slot g_slots[kSlots];
Run g;

void on_send(void*, const mdns::SentMessage& sent) {
  const int unicast = sent.transport == mdns::Transport::kOneShot ? 0 : 1;
  if (sent.transport == mdns::Transport::kMulticast) {
    return;
  }
  Asked& a = g.asked[unicast][g.asked_next[unicast]++ % 4];
  a = Asked{sent, 0, {}};
  a.sent.data = nullptr;
  const size_t prefix = sent.transport == mdns::Transport::kUnicastTcp ? 2 : 0;
  mdns::MessageParser parser(sent.data + prefix, sent.length - std::min(sent.length, prefix));
  mdns::MessageHeader header{};
  mdns::ParsedQuestion q;
  for (bool ok = sent.length >= prefix && parser.read_header(header);
       ok && a.questions.size() < header.qdcount && a.questions.size() < 64 &&
       parser.next_question(q) == mdns::MessageParser::Result::kOk;) {
    a.questions.push_back(q);
  }
  a.id = header.id;
}

void publish_interfaces(bool second) {
  g_interfaces.count = second ? 2 : 1;
  for (size_t i = 0; i < g_interfaces.count; ++i) {
    mdns::InterfaceRecord& e = g_interfaces.entries[i];
    mdns::interface_reset(e, i == 0 ? "eth0" : "eth1", i == 0 ? 2u : 3u);
    mdns::interface_add_address(e, mdns::address_from_text(i == 0 ? "192.168.1.10" : "10.0.0.10"), 24);
    mdns::interface_add_address(e, mdns::address_from_text(i == 0 ? "fe80::10" : "fe80::11"), 64);
    e.v4usable = e.v6usable = true;
  }
  if (second) {
    mdns::interface_add_address(g_interfaces.entries[1], mdns::address_from_text("2001:db8:1::10"), 64);
  }
}

mStatus init_core() {
  std::memset(&g_platform, 0, sizeof g_platform);
  mdns::platform_use_test_mode(&g_platform, &g_interfaces);
  mdns::platform_set_send_hook(&g_platform, on_send, nullptr);
  const mDNSAddr servers[] = {mdns::address_from_text("192.0.2.53"), mdns::address_from_text("2001:db8::53")};
  const uint16_t ports[] = {53, 53};
  mdns::platform_test_set_name_servers(&g_platform, servers, ports, 2);
  mdns::engine_set_fake_clock(&g_core, g.now);
  const mStatus status = mDNS_Init(&g_core, &g_platform, g_cache, g.cache_size, mDNSfalse, nullptr, nullptr);
  mdns::engine_set_fake_clock(&g_core, g.now);
  mdns::core_of(&g_core).random_state = 0x2545f491;
  g.core_up = status == mStatus_NoError;
  return status;
}

mDNSInterfaceID interface_of(unsigned code) {
  return (code & 3) == 1   ? mdns::platform_interface_id_of(&g_core, "eth0")
         : (code & 3) == 2 ? mdns::platform_interface_id_of(&g_core, "eth1")
                           : mDNSInterface_Any;
}

// Stopped memory goes back to the heap, and the slot gets fresh zeroed memory
// (a question never started).  Only once the core has handed control back: a
// callback's own question must stay valid until the callback returns.
void retire(Slot& s, bool renew) {
  delete s.question;
  delete s.query;
  delete s.info;
  s.question = renew && !s.resolve ? new DNSQuestion() : nullptr;
  s.query = renew && s.resolve ? new ServiceInfoQuery() : nullptr;
  s.info = renew && s.resolve ? new ServiceInfo() : nullptr;
}

void retire_pending() {
  for (Slot& s : g_slots) {
    if ((g.retire_all || s.free_pending) && !s.started) {
      retire(s, true);
    }
    s.free_pending = false;
  }
  g.retire_all = false;
}

void on_answer(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer, QC_result kind);
void on_resolved(mDNS* const m, ServiceInfoQuery* query);

// A started slot is started again with what it was started with: a question
// is refused and left as it is, a resolve starts afresh on the same storage.
void start_slot(int index, uint8_t p, uint8_t r) {
  Slot& s = g_slots[index];
  const bool was_started = s.started;
  if (!was_started) {
    s.params[0] = p;
    s.params[1] = r;
    s.browse = !s.resolve && (p & 1) == 0;
  }
  p = s.params[0];
  r = s.params[1];
  DNSQuestion* q = s.question;
  mStatus status;
  if (s.resolve) {
    if (!was_started) {
      s.info->name = name_of(instance_name(p & 7, (p >> 3) & 1, (p >> 4) & 1));
      s.info->InterfaceID = interface_of(r);
    }
    status = mDNS_StartResolveService(&g_core, s.query, s.info, on_resolved, &s);
  } else if (s.browse) {
    const domainname type = name_of(kTypes[(p >> 1) & 1]), domain = name_of(kDomains[(p >> 2) & 1]);
    status = mDNS_StartBrowse(&g_core, q, &type, &domain, interface_of(r), mDNSfalse, on_answer, &s);
  } else {
    if (!was_started) {  // a running question's fields belong to the core
      static const uint16_t kQtypes[] = {kDNSType_A, kDNSType_AAAA, kDNSType_SRV, kDNSType_TXT, kDNSType_PTR};
      const uint16_t qtype = kQtypes[((p >> 1) & 7) % 5];
      const unsigned domain = (p >> 4) & 1, which = (p >> 5) & 7, type = (r >> 2) & 1;
      q->qname = name_of(qtype == kDNSType_PTR                            ? service_type(type, domain)
                         : qtype == kDNSType_SRV || qtype == kDNSType_TXT ? instance_name(which, type, domain)
                                                                          : host_name(which, domain));
      q->qtype = qtype;
      q->qclass = kDNSClass_IN;
      q->InterfaceID = interface_of(r);
      q->QuestionCallback = on_answer;
      q->QuestionContext = &s;
    }
    status = mDNS_StartQuery(&g_core, q);
  }
  require(!was_started || s.resolve || status != mStatus_NoError, "a started question was started again");
  s.started = (was_started && !s.resolve) || status == mStatus_NoError;
  if (!was_started || s.resolve) {
    s.reported.clear();
  }
}

void stop_slot(int index, bool free_it) {
  Slot& s = g_slots[index];
  if (s.resolve) {
    mDNS_StopResolveService(&g_core, s.query);
  } else {
    const mStatus status = mDNS_StopQuery(&g_core, s.question);
    require(!g.core_up || (status == mStatus_NoError) == s.started,
            s.started ? "a question the application did not stop was no longer started"
                      : "stopping a question that was not started succeeded");
  }
  s.started = false;
  s.reported.clear();
  s.free_pending = s.free_pending || free_it;
}

// how: 0 StartExit, 1 and FinalExit, 2 and Init again.  StartExit stops every
// question: what they used is the application's again.  After StartExit alone
// the core runs on, shutting down, until the next operation begins.
void shut_down(int how) {
  mDNS_StartExit(&g_core);
  for (Slot& s : g_slots) {
    s.started = false;
    s.reported.clear();
  }
  g.retire_all = true;
  g.exit_started = how == 0;
  if (how > 0) {
    mDNS_FinalExit(&g_core);
    g.core_up = false;
  }
  if (how == 2) {
    // Not while a callback of the same storage is under way: the core says so,
    // and starts again after it (between operations).
    const mStatus status =
        g.depth > 0 ? mDNS_Init(&g_core, &g_platform, g_cache, g.cache_size, mDNSfalse, nullptr, nullptr)
                    : init_core();
    require(status == (g.depth > 0 ? mStatus_BadStateErr : mStatus_NoError),
            "mDNS_Init refused outside a callback, or not refused inside one");
  }
}

void finish_exit() {
  if (g.exit_started) {
    mDNS_FinalExit(&g_core);
    g.core_up = g.exit_started = false;
  }
  if (!g.core_up) {
    require(init_core() == mStatus_NoError, "mDNS_Init failed");
  }
}

// One action byte: bits 0-2 what (0-2 nothing, 3 stop itself, 4 stop another
// slot, 5 start another slot (two more bytes: its parameters), 6 stop and start
// itself again, 7 and only these three: 0xFF StartExit, FinalExit and Init,
// 0xF7 StartExit and FinalExit, 0xEF StartExit).  Bit 3: free what was stopped
// once the core returns.  Bits 4-6: the other slot.
void act(int self) {
  if (g.depth >= kMaxNesting || ++g.callbacks > kMaxCallbacks || g.actions.empty()) {
    return;
  }
  ++g.depth;
  const uint8_t a = g.actions.next(), what = a & 7;
  const uint8_t p = what == 5 ? g.actions.next() : g_slots[self].params[0];
  const uint8_t r = what == 5 ? g.actions.next() : g_slots[self].params[1];
  if (what == 3 || what == 4 || what == 6) {
    stop_slot(what == 4 ? (a >> 4) & 7 : self, what != 6 && (a & 8) != 0);
  }
  if (what == 5 || what == 6) {
    start_slot(what == 5 ? (a >> 4) & 7 : self, p, r);
  }
  if (a == 0xFF || a == 0xF7 || a == 0xEF) {
    shut_down(a == 0xFF ? 2 : a == 0xF7 ? 1 : 0);
  }
  --g.depth;
}

// What identifies an answer: name, type, class, interface and data, without
// case (which at worst takes two answers for one).
std::string answer_key(const ResourceRecord& rr) {
  std::string key(reinterpret_cast<const char*>(rr.name->c), mdns::name_length(*rr.name));
  key += "/" + std::to_string(rr.rrtype) + "/" + std::to_string(rr.rrclass) + "/" +
         std::to_string(reinterpret_cast<uintptr_t>(rr.InterfaceID)) + "/";
  key.append(reinterpret_cast<const char*>(rr.rdata->u.data),
             std::min<size_t>(rr.rdata->length, mDNS_MaxRDataSize));
  for (char& c : key) {
    c = c >= 'A' && c <= 'Z' ? char(c | 32) : c;
  }
  return key;
}

// The started slot whose question or resolve `storage` is.
Slot& callback_slot(mDNS* const m, const void* storage, const void* context) {
  require(g.driving, "a callback ran inside an application's call");
  require(m == &g_core, "a callback for another core");
  Slot* s = std::find_if(std::begin(g_slots), std::end(g_slots), [&](const Slot& x) {
    return x.started && (x.resolve ? static_cast<const void*>(x.query) : x.question) == storage;
  });
  require(s != std::end(g_slots), "a callback for a question or resolve that is not started");
  require(context == s, "a callback's context changed");
  return *s;
}

void on_answer(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer, QC_result kind) {
  Slot& s = callback_slot(m, question, question->QuestionContext);
  const ResourceRecord& rr = *answer;
  require(rr.name != nullptr && rr.rdata != nullptr, "an answer without name or data");
  require(rr.rrtype == question->qtype || question->qtype == kDNSType_ANY, "an answer of another type");
  require(mdns::names_equal(*rr.name, question->qname), "an answer for another name");
  require(question->InterfaceID == mDNSInterface_Any || rr.InterfaceID == question->InterfaceID,
          "an answer from another interface");
  require(rr.rdata->length <= mDNS_MaxRDataSize, "answer data longer than its storage");
  require(kind == QC_add || kind == QC_rmv, "an event neither add nor remove");
  int& count = s.reported[answer_key(rr)];
  require(kind == QC_add ? !s.browse || count == 0 : count > 0,
          kind == QC_add ? "a browse reported an instance twice" : "a removal of an answer never reported");
  count += kind == QC_add ? 1 : -1;
  act(static_cast<int>(&s - g_slots));
}

void on_resolved(mDNS* const m, ServiceInfoQuery* query) {
  Slot& s = callback_slot(m, query, query->ServiceInfoQueryContext);
  require(query->info == s.info, "a resolve's info changed");
  require(s.info->ip.type == mDNSAddrType_IPv4 || s.info->ip.type == mDNSAddrType_IPv6,
          "a resolve reported without an address");
  require(s.info->TXTlen <= mDNS_MaxTXTInfo, "TXT longer than its storage");
  act(static_cast<int>(&s - g_slots));
}

// `work` as the core's own loop runs it: in a pass (then what is due), or as
// the public loop that makes its own.
template <typename Work>
void drive(Work work, bool pass = true) {
  if (g.core_up) {
    mdns::engine_set_fake_clock(&g_core, g.now);
    if (pass) {
      mdns::engine_begin_pass(&g_core);
    }
    g.driving = true;
    work();
    if (pass) {
      mdns::engine_run_scheduled(&g_core);
    }
    g.driving = false;
  }
}

// Passes through the public loop at every moment the core asks for, up to `ms` on.
void advance(int32_t ms) {
  const auto target = int32_t(uint32_t(g.now) + uint32_t(ms));
  for (int pass = 0; pass < kMaxPassesPerAdvance && g.core_up; ++pass) {
    fd_set readfds;
    FD_ZERO(&readfds);
    drive([&] { mDNSPosixProcessFDSet(&g_core, &readfds); }, false);
    if (!g.core_up) {
      break;
    }
    int nfds = 0;
    timeval timeout{3600, 0};
    mDNSPosixGetFDSet(&g_core, &nfds, &readfds, &timeout);
    const int32_t step = std::max<int32_t>(int32_t(timeout.tv_sec * 1000 + timeout.tv_usec / 1000), 1);
    if (int32_t(uint32_t(target) - uint32_t(g.now)) < step) {
      break;
    }
    g.now = int32_t(uint32_t(g.now) + uint32_t(step));
  }
  g.now = target;
  if (g.core_up) {
    mdns::engine_set_fake_clock(&g_core, g.now);
  }
}

// Records into `msg` from the program: [count byte][bulk count][bulk template
// [series, when its bit 7 is set]] then three bytes per record.  `asked` is the
// question "as asked" records answer (null: a started slot's question, if any).
void add_records(ByteStream& in, DnsMessage& msg, const mdns::ParsedQuestion* asked) {
  static const uint32_t kTtls[] = {0, 3, 120, 4500};
  const unsigned explicit_count = in.next() & 15;
  const unsigned bulk = std::min(in.next() * 2u, kMaxBulkRecords);
  const uint8_t bulk_template = bulk > 0 ? in.next() : 0;
  // Another series of names: so that browses come to remember thousands of instances.
  const unsigned first = (bulk_template & 0x80) != 0 ? in.next() * kMaxBulkRecords : 0;
  auto as_asked = [&](unsigned slot, unsigned names, uint8_t variant, unsigned index, Record& r) {
    const DNSQuestion* q = g_slots[slot].started ? g_slots[slot].question : nullptr;
    if (asked != nullptr || q != nullptr) {
      r = make_record(text_of(asked != nullptr ? asked->name : q->qname),
                      asked != nullptr ? asked->qtype : q->qtype, names, variant, index);
    }
    return asked != nullptr || q != nullptr;
  };
  // Kinds: 0 PTR, 1 SRV, 2 TXT, 3 A, 4 AAAA, 5 PTR to a host (not an instance), 6-7 as asked.
  static const uint16_t kKinds[] = {kDNSType_PTR, kDNSType_SRV, kDNSType_TXT, kDNSType_A, kDNSType_AAAA};
  for (unsigned i = 0; i < explicit_count; ++i) {
    const uint8_t r0 = in.next(), r1 = in.next(), r2 = in.next();
    const unsigned kind = r0 & 7, instance = r1 & 7, type = (r1 >> 3) & 1, domain = (r1 >> 4) & 1;
    const std::string host = host_name((r1 >> 5) & 7, domain);
    const std::string owner = kind == 0 || kind == 5 ? service_type(type, domain)
                              : kind < 3             ? instance_name(instance, type, domain)
                                                     : host;
    Record r = kind < 6 ? make_record(owner, kKinds[kind % 5], r1, r2, 0) : Record{};
    if (kind >= 6 && !as_asked(instance % kQuestionSlots, r1, r2, 0, r)) {
      continue;
    }
    r.data = kind == 5 ? wire_name(host) : r.data;
    r.cache_flush = (r0 & 8) != 0;
    r.ttl = (r0 & 0x30) != 0 && r2 == 0xFF ? 0xFFFFFFFFu : kTtls[(r0 >> 4) & 3];
    msg.add((r0 & 0x40) != 0 ? DnsMessage::kAdditional : DnsMessage::kAnswer, r);
  }
  // Many records of one kind, each its own: more than a packet's record list holds.
  const unsigned type = (bulk_template >> 2) & 1, domain = (bulk_template >> 3) & 1;
  for (unsigned i = first + 1; i <= first + bulk; ++i) {
    const unsigned kind = bulk_template & 3;
    Record r = kind == 0   ? make_record(service_type(type, domain), kDNSType_PTR, 0, 0, i)
               : kind == 1 ? make_record(host_name(4 + (i & 3), domain), kDNSType_A, 0, 0, i)
               : kind == 2 ? make_record(instance_name(3 + i, type, domain), kDNSType_SRV, 0x80, 0, i)
                           : Record{};
    if (kind == 3 && !as_asked(0, 0, 0, i, r)) {
      continue;
    }
    r.cache_flush = (bulk_template & 0x40) != 0;
    r.ttl = kTtls[(bulk_template >> 4) & 3];
    msg.add(DnsMessage::kAnswer, r);
  }
}

// A datagram on the multicast or one-shot socket.  `source`: bits 0-1 the
// sender, 2 on eth1 (multicast), 3-4 both set an off-link sender, 5-6 both set
// another port.
void receive(const Bytes& bytes, uint8_t source, mDNSInterfaceID interface_id, mdns::Transport transport) {
  static const char* const kSources[] = {"192.168.1.20", "fe80::20", "10.0.0.20", "169.254.7.7"};
  const uint16_t port = ((source >> 5) & 3) == 3 ? 1234 : 5353;
  mdns::Arrival arrival{};
  arrival.source = mdns::address_from_text(((source >> 3) & 3) == 3 ? "203.0.113.9" : kSources[source & 3]);
  arrival.source_port.b[0] = uint8_t(port >> 8);
  arrival.source_port.b[1] = uint8_t(port);
  arrival.interface_id = interface_id;
  arrival.transport = transport;
  drive([&] { mdns::engine_receive(&g_core, bytes.data(), std::min(bytes.size(), kMaxDatagram), arrival); });
}

// An answer to the query `pick` bits 0-1 choose; bits 2 another ID, 3 another
// sender, 4 no questions, 5 truncated, 6-7 the rcode.
DnsMessage reply_to(const Asked& a, uint8_t pick, bool unicast) {
  static const uint16_t kRcodes[] = {0, 0, 3, 2};
  DnsMessage msg(
      uint16_t(a.id ^ ((pick & 4) != 0 ? 1 : 0)),
      uint16_t((unicast ? 0x8180 : 0x8400) | ((pick & 0x20) != 0 ? 0x0200 : 0) | kRcodes[pick >> 6]));
  for (size_t i = 0; (pick & 0x10) == 0 && i < a.questions.size(); ++i) {
    msg.question(text_of(a.questions[i].name), a.questions[i].qtype, (a.questions[i].qclass & 0x8000) != 0);
  }
  return msg;
}

void deliver(const Asked& a, uint8_t pick, bool unicast, const Bytes& bytes) {
  const mdns::SentMessage& sent = a.sent;
  if (!unicast) {  // from the address the query went to
    const bool eth1 = sent.interface_id == mdns::platform_interface_id_of(&g_core, "eth1");
    const int source = (pick & 8) != 0 ? 0x18 : sent.family == 6 ? 1 : eth1 ? 2 : 0;
    receive(bytes, uint8_t(source), sent.interface_id, mdns::Transport::kOneShot);
    return;
  }
  const bool v4 = sent.destination.type == mDNSAddrType_IPv4;
  const mDNSAddr other = mdns::address_from_text(v4 ? "2001:db8::53" : "192.0.2.53");
  const size_t limit = sent.transport == mdns::Transport::kUnicastTcp ? 65535 : kMaxDatagram;
  // Read as the core reads real sockets: on the next pass of its loop.
  if (g.core_up &&
      mdns::platform_test_deliver_dns(&g_core, sent.socket, (pick & 8) == 0 ? sent.destination : other,
                                      sent.port, bytes.data(), std::min(bytes.size(), limit))) {
    drive([] { mDNSPosixProcessFDSet(&g_core, nullptr); }, false);
  }
}

// Operations: the first byte's value modulo 10 picks one.
//   0, 1 start a slot: [slot][two parameter bytes]   2 stop one: [slot; bit 7 free it]
//   3 multicast response: [source] records   4 one-shot answer, 5 unicast DNS answer: [pick] records
//   6, 7 time passes: [bits 0-5 count, 6-7 unit]
//   8 raw bytes after a header (and, for an answer, the questions asked): [path: bit 7 an
//     answer (bit 6 unicast, the rest as a pick), else a multicast source][record counts][length][bytes]
//   9 [what]: 0 the second interface goes or comes, 1 StartExit, FinalExit and Init,
//     2 StartExit (FinalExit and Init before the next operation)
void run_operation(ByteStream& in) {
  static const int32_t kUnits[] = {10, 250, 10 * 1000, 5 * 60 * 1000};
  const uint8_t op = in.next() % 10, b = in.next();
  if (op <= 1) {
    const uint8_t p = in.next();
    start_slot(b % kSlots, p, in.next());
  } else if (op == 2) {
    stop_slot(b % kSlots, (b & 0x80) != 0);
  } else if (op == 3 || op == 4 || op == 5 || op == 8) {
    const bool unicast = op == 5 || (op == 8 && (b & 0x40) != 0);
    const Asked& a = g.asked[unicast ? 1 : 0][b & 3];
    const bool valid = !a.questions.empty();
    const bool answer = op == 4 || op == 5 || (op == 8 && (b & 0x80) != 0 && valid);
    DnsMessage msg = answer ? reply_to(a, b, unicast) : DnsMessage();
    if (op != 8) {
      add_records(in, msg, answer && valid ? &a.questions[0] : nullptr);
    }
    Bytes bytes = msg.bytes();
    if (op == 8) {  // [record counts: answers low nibble, additionals high][length][bytes]
      const uint8_t counts = in.next();
      bytes[7] = counts & 15;
      bytes[11] = counts >> 4;
      for (unsigned n = in.next(); n > 0 && !in.empty(); --n) {
        bytes.push_back(in.next());
      }
    }
    if (!answer) {
      receive(bytes, b, mdns::platform_interface_id_of(&g_core, (b & 4) != 0 ? "eth1" : "eth0"),
              mdns::Transport::kMulticast);
    } else if (valid) {
      deliver(a, b, unicast, bytes);
    }
  } else if (op <= 7) {
    advance((b & 63) * kUnits[b >> 6]);
  } else if ((b & 7) == 0) {  // as the core's own watch would see it
    g.two_interfaces = !g.two_interfaces;
    publish_interfaces(g.two_interfaces);
    drive([] { (void)mDNSPlatformPosixRefreshInterfaceList(&g_core); });
  } else if ((b & 7) <= 2) {
    shut_down((b & 7) == 1 ? 2 : 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t kCacheSizes[] = {16, 64, 256, 600};
  if (size < 3) {
    return 0;
  }
  const size_t program_length = std::min<size_t>(size_t(data[1]) << 8 | data[2], size - 3);
  ByteStream program{data + 3, program_length};
  g = Run{};
  g.actions = ByteStream{data + 3 + program_length, size - 3 - program_length};
  g.cache_size = kCacheSizes[(data[0] >> 1) & 3];
  g.two_interfaces = (data[0] & 1) != 0;
  publish_interfaces(g.two_interfaces);
  std::memset(&g_core, 0, sizeof g_core);
  for (int i = 0; i < kSlots; ++i) {
    g_slots[i] = Slot{};
    g_slots[i].resolve = i >= kQuestionSlots;
    retire(g_slots[i], true);
  }
  for (int n = 0; n < kMaxOperations && !program.empty(); ++n) {
    finish_exit();  // the core is up at the start of every operation
    run_operation(program);
    retire_pending();
    const mdns::CoreState& core = mdns::core_of(&g_core);
    require(!g.core_up || core.walk_depth == 0, "a walk over the questions left open");
    require(!g.core_up || (core.packet_head == 0 && core.callback_depth == 0),
            "a packet's records left undelivered");
    require(!g.core_up || core.cache_used <= g.cache_size, "more cache entries used than there are");
  }
  // Everything stopped by the application, then the core shut down.
  finish_exit();
  for (int i = 0; i < kSlots; ++i) {
    stop_slot(i, true);
  }
  shut_down(1);
  for (Slot& s : g_slots) {
    retire(s, false);
  }
  return 0;
}
