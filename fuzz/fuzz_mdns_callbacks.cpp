// A program against one core in test mode: questions and resolves started and
// stopped over a small pool of slots, responses built from a small dictionary
// of names (multicast, one-shot answers, unicast DNS answers on the socket of
// an outstanding query), time that passes, and callbacks that themselves stop,
// start, restart or shut the core down.  What the core promises its callers is
// checked as it runs: a callback comes only inside a pass, only for a question
// or resolve that is started (never after its stop), with an answer to what it
// asked; a browse reports an instance once and its removal only after its add;
// a question the application did not stop stays started.  Stopped questions and
// resolves are freed when the core hands control back, so that a later use of
// them is a heap-use-after-free.
//
// Input: [config][program length, 2 bytes big-endian][program][callback actions]
//   config: bit 0 a second interface, bits 1-2 the cache size.
//   program: operations (see run_operation), at most kMaxOperations.
//   callback actions: each callback takes the next byte (see act); none left,
//   it does nothing.
// fuzz/mdns_callbacks_seeds.py writes the seeds (and shows the format in use);
// MDNS_FUZZ_TRACE=1 prints what a program does.
#include <sys/select.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

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

constexpr int kQuestionSlots = 5;
constexpr int kSlots = 8;  // the last kSlots - kQuestionSlots are resolves
constexpr int kMaxOperations = 200;
constexpr int kMaxCallbacks = 20000;  // later callbacks do nothing
constexpr int kMaxNesting = 4;
constexpr int kMaxPassesPerAdvance = 400;
constexpr size_t kMaxDatagram = 9000;
constexpr unsigned kMaxBulkRecords = 510;
constexpr uint32_t kCacheSizes[] = {16, 64, 256, 600};
constexpr uint32_t kMaxCache = 600;
constexpr int32_t kEpoch = 1000000;
constexpr int kAskedRing = 4;

[[noreturn]] void violation(const char* what) {
  std::fprintf(stderr, "fuzz_mdns_callbacks: %s\n", what);
  std::abort();
}

// MDNS_FUZZ_TRACE=1: what a program does, for reading a reproducer.
bool tracing() {
  static const bool on = std::getenv("MDNS_FUZZ_TRACE") != nullptr;
  return on;
}

template <typename... Args>
void trace(const char* format, Args... args) {
  if (tracing()) {
    std::fprintf(stderr, format, args...);
  }
}

void require(bool holds, const char* what) {
  if (!holds) {
    violation(what);
  }
}

// ---- Input ------------------------------------------------------------------

class ByteStream {
 public:
  ByteStream() = default;
  ByteStream(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return pos_ >= size_; }
  uint8_t next() { return pos_ < size_ ? data_[pos_++] : 0; }
  std::vector<uint8_t> take(size_t n) {
    n = std::min(n, size_ - pos_);
    std::vector<uint8_t> out(data_ + pos_, data_ + pos_ + n);
    pos_ += n;
    return out;
  }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  size_t pos_ = 0;
};

// ---- Names --------------------------------------------------------------------

const char* const kInstances[] = {"tv", "Speaker", "printer (2)", "a\\.b"};
const char* const kTypes[] = {"_http._tcp", "_ipp._udp"};
const char* const kDomains[] = {"local.", "example.com."};
const char* const kHosts[] = {"host1", "host2", "HOST1", "dev-3"};

domainname name_of(const std::string& text) {
  domainname out{};
  if (MakeDomainNameFromDNSNameString(&out, text.c_str()) == nullptr) {
    out = domainname{};
  }
  return out;
}

// 0-3 from the dictionary, then the names that bulk records use ("b0", "h0"...).
std::string instance_label(unsigned i) {
  return i < 4 ? kInstances[i] : "b" + std::to_string(i - 4);
}
std::string host_label(unsigned i) {
  return i < 4 ? kHosts[i] : "h" + std::to_string(i - 4);
}
std::string service_type(unsigned type, unsigned domain) {
  return std::string(kTypes[type & 1]) + "." + kDomains[domain & 1];
}
std::string instance_name(unsigned instance, unsigned type, unsigned domain) {
  return instance_label(instance) + "." + service_type(type, domain);
}
std::string host_name(unsigned host, unsigned domain) {
  return host_label(host) + "." + kDomains[domain & 1];
}

bool is_local(const domainname& name) {
  static const domainname local = name_of("local.");
  return mdns::name_is_under(name, local);
}

std::string lowered(const uint8_t* bytes, size_t n) {
  std::string out(reinterpret_cast<const char*>(bytes), n);
  for (char& c : out) {
    c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return out;
}

std::string name_key(const domainname& name) {
  return lowered(name.c, mdns::name_length(name));
}

// ---- Building messages ----------------------------------------------------------

struct OutRecord {
  mdns::Section section;
  domainname name;
  uint16_t type;
  uint16_t rrclass;
  uint32_t ttl;
  std::vector<uint8_t> fixed;  // data before a name (SRV), or all of it
  bool has_name;
  domainname data_name;  // PTR target, SRV target
};

class MessageBuilder {
 public:
  MessageBuilder(uint16_t id, uint16_t flags) : id_(id), flags_(flags) {}

  void question(const domainname& name, uint16_t type, uint16_t qclass) {
    questions_.push_back({mdns::Section::kQuestion, name, type, qclass, 0, {}, false, {}});
  }
  void record(const OutRecord& r) { records_.push_back(r); }
  void raw(const std::vector<uint8_t>& bytes, uint16_t answers, uint16_t additionals) {
    raw_ = bytes;
    raw_answers_ = answers;
    raw_additionals_ = additionals;
  }
  size_t record_count() const { return records_.size(); }

  std::vector<uint8_t> bytes() {
    std::stable_sort(records_.begin(), records_.end(),
                     [](const OutRecord& a, const OutRecord& b) { return a.section < b.section; });
    uint16_t counts[4] = {static_cast<uint16_t>(questions_.size()), raw_answers_, 0, raw_additionals_};
    for (const OutRecord& r : records_) {
      counts[static_cast<int>(r.section)]++;
    }
    out_.clear();
    suffixes_.clear();
    put16(id_);
    put16(flags_);
    for (uint16_t c : counts) {
      put16(c);
    }
    for (const OutRecord& q : questions_) {
      put_name(q.name);
      put16(q.type);
      put16(q.rrclass);
    }
    for (const OutRecord& r : records_) {
      put_record(r);
    }
    out_.insert(out_.end(), raw_.begin(), raw_.end());
    return out_;
  }

 private:
  void put16(uint16_t v) {
    out_.push_back(static_cast<uint8_t>(v >> 8));
    out_.push_back(static_cast<uint8_t>(v));
  }

  // Compressed: a suffix written before becomes a pointer to it.
  void put_name(const domainname& name) {
    const size_t length = mdns::name_length(name);
    size_t i = 0;
    while (length != 0 && name.c[i] != 0) {
      const std::string suffix(reinterpret_cast<const char*>(name.c + i), length - i);
      const auto known = suffixes_.find(suffix);
      if (known != suffixes_.end()) {
        put16(static_cast<uint16_t>(0xC000 | known->second));
        return;
      }
      if (out_.size() < 0x3FFF) {
        suffixes_[suffix] = static_cast<uint16_t>(out_.size());
      }
      out_.insert(out_.end(), name.c + i, name.c + i + 1 + name.c[i]);
      i += 1 + static_cast<size_t>(name.c[i]);
    }
    out_.push_back(0);
  }

  void put_record(const OutRecord& r) {
    put_name(r.name);
    put16(r.type);
    put16(r.rrclass);
    put16(static_cast<uint16_t>(r.ttl >> 16));
    put16(static_cast<uint16_t>(r.ttl));
    const size_t at = out_.size();
    put16(0);
    out_.insert(out_.end(), r.fixed.begin(), r.fixed.end());
    if (r.has_name) {
      put_name(r.data_name);
    }
    const size_t length = out_.size() - at - 2;
    out_[at] = static_cast<uint8_t>(length >> 8);
    out_[at + 1] = static_cast<uint8_t>(length);
  }

  uint16_t id_;
  uint16_t flags_;
  std::vector<OutRecord> questions_;
  std::vector<OutRecord> records_;
  std::vector<uint8_t> raw_;
  uint16_t raw_answers_ = 0;
  uint16_t raw_additionals_ = 0;
  std::vector<uint8_t> out_;
  std::map<std::string, uint16_t> suffixes_;
};

// Data of a record of `type` for `owner`; `variant` picks the values, `index`
// keeps bulk records apart.
OutRecord make_record(const domainname& owner, uint16_t type, unsigned names, uint8_t variant,
                      unsigned index) {
  OutRecord r{mdns::Section::kAnswer, owner, type, kDNSClass_IN, 120, {}, false, {}};
  const unsigned domain = is_local(owner) ? 0 : 1;
  switch (type) {
    case kDNSType_PTR: {
      // Under the owner itself: what a browse of it takes for an instance.
      const std::string label = index > 0 ? "b" + std::to_string(index - 1) : instance_label(names & 7);
      char owner_text[MAX_ESCAPED_DOMAIN_NAME];
      ConvertDomainNameToCString_withescape(&owner, owner_text, '\\');
      r.has_name = true;
      r.data_name = name_of(label + "." + owner_text);
      break;
    }
    case kDNSType_SRV: {
      const unsigned port = 80 + (variant & 7) + index;
      r.fixed = {0, 0, 0, 0, static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port)};
      r.has_name = true;
      r.data_name = name_of(host_name((names >> 5) & 7, domain));
      break;
    }
    case kDNSType_TXT: {
      const size_t length = (variant & 0x80) != 0 ? 600 : 1 + (variant & 15);  // over 512: cut when stored
      r.fixed.assign(length, static_cast<uint8_t>('a' + (variant & 7)));
      r.fixed[0] = static_cast<uint8_t>(length - 1 > 255 ? 255 : length - 1);
      if (index > 0) {
        r.fixed.push_back(static_cast<uint8_t>(index));
        r.fixed.push_back(static_cast<uint8_t>(index >> 8));
      }
      break;
    }
    case kDNSType_A:
      r.fixed = {static_cast<uint8_t>((variant & 0x80) != 0 ? 10 : 192), static_cast<uint8_t>(index >> 8),
                 static_cast<uint8_t>(index), variant};
      break;
    case kDNSType_AAAA:
      r.fixed.assign(16, 0);
      r.fixed[0] = (variant & 0x80) != 0 ? 0x20 : 0xfe;
      r.fixed[1] = (variant & 0x80) != 0 ? 0x01 : 0x80;
      r.fixed[13] = static_cast<uint8_t>(index >> 8);
      r.fixed[14] = static_cast<uint8_t>(index);
      r.fixed[15] = variant;
      break;
    default:
      r.fixed = {variant};
      break;
  }
  return r;
}

uint32_t ttl_of(unsigned code, uint8_t variant) {
  static const uint32_t kTtls[] = {0, 3, 120, 4500};
  return code != 0 && variant == 0xFF ? 0xFFFFFFFFu : kTtls[code & 3];
}

// ---- The core and what it sent ------------------------------------------------------

// A one-shot or unicast query the core sent: what an answer must repeat.
struct Asked {
  bool valid = false;
  mdns::Transport transport = mdns::Transport::kOneShot;
  mDNSInterfaceID interface_id = nullptr;
  int family = 0;
  int socket = -1;
  mDNSAddr server{};
  uint16_t port = 0;
  uint16_t id = 0;
  std::vector<mdns::ParsedQuestion> questions;
};

struct Slot {
  bool resolve = false;
  DNSQuestion* question = nullptr;  // freed when retired: a later use is caught
  ServiceInfoQuery* query = nullptr;
  ServiceInfo* info = nullptr;
  bool started = false;
  bool browse = false;
  uint8_t params[2] = {0, 0};
  std::map<std::string, int> reported;  // answers added and not yet removed
};

mDNS g_core;
mDNS_PlatformSupport g_platform;
CacheEntity g_cache[kMaxCache];
uint32_t g_cache_size = 64;
mdns::InterfaceSnapshot g_interfaces;
bool g_two_interfaces = false;
int32_t g_now = kEpoch;
bool g_core_up = false;
bool g_driving = false;  // inside a pass: callbacks may run
int g_depth = 0;
int g_callbacks = 0;
bool g_retire_all = false;
bool g_exit_started = false;  // StartExit without FinalExit yet
std::vector<int> g_to_retire;
ByteStream g_actions;
Slot g_slots[kSlots];
Asked g_one_shots[kAskedRing];
Asked g_unicast[kAskedRing];
int g_one_shot_next = 0;
int g_unicast_next = 0;

const char* const kSources[] = {"192.168.1.20", "fe80::20", "10.0.0.20", "169.254.7.7"};

void on_send(void*, const mdns::SentMessage& sent) {
  if (sent.transport == mdns::Transport::kMulticast) {
    return;
  }
  const bool one_shot = sent.transport == mdns::Transport::kOneShot;
  Asked& a =
      one_shot ? g_one_shots[g_one_shot_next++ % kAskedRing] : g_unicast[g_unicast_next++ % kAskedRing];
  a = Asked{};
  const size_t prefix = sent.transport == mdns::Transport::kUnicastTcp ? 2 : 0;
  if (sent.length < prefix) {
    return;
  }
  mdns::MessageParser parser(sent.data + prefix, sent.length - prefix);
  mdns::MessageHeader header;
  if (!parser.read_header(header)) {
    return;
  }
  mdns::ParsedQuestion q;
  for (int i = 0; i < header.qdcount && i < 64 && parser.next_question(q) == mdns::MessageParser::Result::kOk;
       ++i) {
    a.questions.push_back(q);
  }
  a.valid = true;
  a.transport = sent.transport;
  a.interface_id = sent.interface_id;
  a.family = sent.family;
  a.socket = sent.socket;
  a.server = sent.destination;
  a.port = sent.port;
  a.id = header.id;
  if (tracing() && !a.questions.empty()) {
    char text[MAX_ESCAPED_DOMAIN_NAME];
    ConvertDomainNameToCString_withescape(&a.questions[0].name, text, '\\');
    trace("  sent %s: %s type %d and %d more\n", one_shot ? "one-shot" : "unicast", text,
          static_cast<int>(a.questions[0].qtype), static_cast<int>(a.questions.size() - 1));
  }
}

void publish_interfaces(bool second) {
  g_interfaces.count = 0;
  mdns::InterfaceRecord& eth0 = g_interfaces.entries[g_interfaces.count++];
  mdns::interface_reset(eth0, "eth0", 2);
  mdns::interface_add_address(eth0, mdns::address_from_text("192.168.1.10"), 24);
  mdns::interface_add_address(eth0, mdns::address_from_text("fe80::10"), 64);
  eth0.v4usable = eth0.v6usable = true;
  if (second) {
    mdns::InterfaceRecord& eth1 = g_interfaces.entries[g_interfaces.count++];
    mdns::interface_reset(eth1, "eth1", 3);
    mdns::interface_add_address(eth1, mdns::address_from_text("10.0.0.10"), 24);
    mdns::interface_add_address(eth1, mdns::address_from_text("fe80::11"), 64);
    mdns::interface_add_address(eth1, mdns::address_from_text("2001:db8:1::10"), 64);
    eth1.v4usable = eth1.v6usable = true;
  }
}

void init_core() {
  std::memset(&g_platform, 0, sizeof g_platform);
  mdns::platform_use_test_mode(&g_platform, &g_interfaces);
  mdns::platform_set_send_hook(&g_platform, on_send, nullptr);
  const mDNSAddr servers[] = {mdns::address_from_text("192.0.2.53"), mdns::address_from_text("2001:db8::53")};
  const uint16_t ports[] = {53, 53};
  mdns::platform_test_set_name_servers(&g_platform, servers, ports, 2);
  mdns::engine_set_fake_clock(&g_core, g_now);
  require(
      mDNS_Init(&g_core, &g_platform, g_cache, g_cache_size, mDNSfalse, nullptr, nullptr) == mStatus_NoError,
      "mDNS_Init failed");
  mdns::engine_set_fake_clock(&g_core, g_now);
  mdns::core_of(&g_core).random_state = 0x2545f491;
  g_core_up = true;
}

mDNSInterfaceID interface_of(unsigned code) {
  switch (code & 3) {
    case 1:
      return mdns::platform_interface_id_of(&g_core, "eth0");
    case 2:
      return mdns::platform_interface_id_of(&g_core, "eth1");
    default:
      return mDNSInterface_Any;
  }
}

// ---- Slots --------------------------------------------------------------------------

void allocate(Slot& s) {
  if (s.resolve) {
    s.query = new ServiceInfoQuery();
    s.info = new ServiceInfo();
  } else {
    s.question = new DNSQuestion();
  }
}

void release(Slot& s) {
  delete s.question;
  delete s.query;
  delete s.info;
  s.question = nullptr;
  s.query = nullptr;
  s.info = nullptr;
}

// Stopped memory goes back to the heap, and the slot gets fresh zeroed memory
// (a question never started).
void retire(Slot& s) {
  require(!s.started, "retiring a started slot");
  release(s);
  allocate(s);
}

// Only once the core has handed control back: a callback's own question must
// stay valid until the callback returns.
void retire_pending() {
  if (g_retire_all) {
    for (Slot& s : g_slots) {
      retire(s);
    }
    g_retire_all = false;
  }
  for (int i : g_to_retire) {
    if (!g_slots[i].started) {
      retire(g_slots[i]);
    }
  }
  g_to_retire.clear();
}

void on_answer(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer, QC_result kind);
void on_resolved(mDNS* const m, ServiceInfoQuery* query);

// A slot already started is started again with what it was started with:
// refused, and left as it is.
mStatus start_question(Slot& s) {
  DNSQuestion* q = s.question;
  const uint8_t p = s.params[0];
  const uint8_t r = s.params[1];
  const mDNSInterfaceID interface_id = interface_of(r);
  if ((p & 1) == 0) {
    s.browse = true;
    const domainname type = name_of(kTypes[(p >> 1) & 1]);
    const domainname domain = name_of(kDomains[(p >> 2) & 1]);
    return mDNS_StartBrowse(&g_core, q, &type, &domain, interface_id, mDNSfalse, on_answer, &s);
  }
  s.browse = false;
  if (s.started) {
    return mDNS_StartQuery(&g_core, q);  // its fields belong to the core while it runs
  }
  static const uint16_t kQueryTypes[] = {kDNSType_A, kDNSType_AAAA, kDNSType_SRV, kDNSType_TXT, kDNSType_PTR};
  const uint16_t qtype = kQueryTypes[((p >> 1) & 7) % 5];
  const unsigned domain = (p >> 4) & 1;
  const unsigned which = (p >> 5) & 7;
  const unsigned type = (r >> 2) & 1;
  q->qname = name_of(qtype == kDNSType_PTR                            ? service_type(type, domain)
                     : qtype == kDNSType_SRV || qtype == kDNSType_TXT ? instance_name(which, type, domain)
                                                                      : host_name(which, domain));
  q->qtype = qtype;
  q->qclass = kDNSClass_IN;
  q->InterfaceID = interface_id;
  q->ForceMCast = mDNSfalse;
  q->QuestionCallback = on_answer;
  q->QuestionContext = &s;
  return mDNS_StartQuery(&g_core, q);
}

void start_slot(int index, uint8_t p, uint8_t r) {
  Slot& s = g_slots[index];
  if (!s.started) {
    s.params[0] = p;
    s.params[1] = r;
  }
  if (s.resolve) {
    // A running resolve starts afresh on the same storage.
    if (!s.started) {
      s.info->name = name_of(instance_name(p & 7, (p >> 3) & 1, (p >> 4) & 1));
      s.info->InterfaceID = interface_of(r);
    }
    const mStatus status = mDNS_StartResolveService(&g_core, s.query, s.info, on_resolved, &s);
    trace("  start resolve %d: %d\n", index, static_cast<int>(status));
    s.started = status == mStatus_NoError;
    s.reported.clear();
    return;
  }
  const bool was_started = s.started;
  const mStatus status = start_question(s);
  trace("  start %s %d: %d\n", s.browse ? "browse" : "query", index, static_cast<int>(status));
  if (was_started) {
    require(status != mStatus_NoError, "a started question was started again");
    return;
  }
  s.started = status == mStatus_NoError;
  s.reported.clear();
}

void stop_slot(int index, bool free_it) {
  Slot& s = g_slots[index];
  trace("  stop %d%s%s\n", index, s.started ? "" : " (not started)", free_it ? ", then free" : "");
  if (s.resolve) {
    mDNS_StopResolveService(&g_core, s.query);
  } else {
    const mStatus status = mDNS_StopQuery(&g_core, s.question);
    if (g_core_up) {
      require((status == mStatus_NoError) == s.started,
              s.started ? "a question the application did not stop was no longer started"
                        : "stopping a question that was not started succeeded");
    }
  }
  s.started = false;
  s.reported.clear();
  if (free_it) {
    g_to_retire.push_back(index);
  }
}

// Out of a callback: StartExit and FinalExit, and maybe Init again at once.
enum class Exit { kStartOnly, kFinal, kFinalAndInit };

// StartExit stops every question: what they used is the application's again.
// After StartExit alone the core runs on, shutting down, until the next
// operation begins.
void shut_down(Exit how) {
  trace("  exit %d\n", static_cast<int>(how));
  mDNS_StartExit(&g_core);
  for (Slot& s : g_slots) {
    s.started = false;
    s.reported.clear();
  }
  g_retire_all = true;
  g_exit_started = true;
  if (how == Exit::kStartOnly) {
    return;
  }
  mDNS_FinalExit(&g_core);
  g_core_up = false;
  g_exit_started = false;
  if (how != Exit::kFinalAndInit) {
    return;
  }
  if (g_depth > 0) {
    // Not while a callback of the same storage is under way: the core says so,
    // and starts again after it (between operations).
    require(mDNS_Init(&g_core, &g_platform, g_cache, g_cache_size, mDNSfalse, nullptr, nullptr) ==
                mStatus_BadStateErr,
            "mDNS_Init inside a callback was not refused");
    return;
  }
  init_core();
}

void finish_exit() {
  if (g_exit_started) {
    mDNS_FinalExit(&g_core);
    g_core_up = false;
    g_exit_started = false;
  }
  if (!g_core_up) {
    init_core();
  }
}

// ---- Callbacks -------------------------------------------------------------------------

// One action byte: bits 0-2 what (0-2 nothing, 3 stop itself, 4 stop another
// slot, 5 start another slot (two more bytes: its parameters), 6 stop and start
// itself again, 7 and only these three: 0xFF StartExit, FinalExit and Init,
// 0xF7 StartExit and FinalExit, 0xEF StartExit).  Bit 3: free what was stopped
// once the core returns.  Bits 4-6: the other slot.
void act(int self) {
  if (g_depth >= kMaxNesting || ++g_callbacks > kMaxCallbacks || g_actions.empty()) {
    return;
  }
  ++g_depth;
  const uint8_t a = g_actions.next();
  trace("  action %02x\n", a);
  const int other = (a >> 4) & 7;
  const bool free_it = (a & 8) != 0;
  switch (a & 7) {
    case 3:
      stop_slot(self, free_it);
      break;
    case 4:
      stop_slot(other, free_it);
      break;
    case 5: {
      const uint8_t p = g_actions.next();
      start_slot(other, p, g_actions.next());
      break;
    }
    case 6: {
      const uint8_t p = g_slots[self].params[0];
      const uint8_t r = g_slots[self].params[1];
      stop_slot(self, false);
      start_slot(self, p, r);
      break;
    }
    case 7:
      if (a == 0xFF) {
        shut_down(Exit::kFinalAndInit);
      } else if (a == 0xF7 || a == 0xEF) {
        shut_down(a == 0xF7 ? Exit::kFinal : Exit::kStartOnly);
      }
      break;
    default:
      break;
  }
  --g_depth;
}

int slot_of_question(const DNSQuestion* q) {
  for (int i = 0; i < kQuestionSlots; ++i) {
    if (g_slots[i].started && g_slots[i].question == q) {
      return i;
    }
  }
  return -1;
}

int slot_of_resolve(const ServiceInfoQuery* query) {
  for (int i = kQuestionSlots; i < kSlots; ++i) {
    if (g_slots[i].started && g_slots[i].query == query) {
      return i;
    }
  }
  return -1;
}

// What identifies an answer: name, type, class, interface and data (names in
// data without case).
std::string answer_key(const ResourceRecord& rr) {
  std::string key = name_key(*rr.name);
  key += std::to_string(rr.rrtype) + "/" + std::to_string(rr.rrclass) + "/" +
         std::to_string(reinterpret_cast<uintptr_t>(rr.InterfaceID)) + "/";
  const RData& d = *rr.rdata;
  if (rr.rrtype == kDNSType_PTR) {
    key += name_key(d.u.name);
  } else if (rr.rrtype == kDNSType_SRV) {
    key += std::to_string(d.u.srv.priority) + "," + std::to_string(d.u.srv.weight) + "," +
           std::to_string(d.u.srv.port.NotAnInteger) + "," + name_key(d.u.srv.target);
  } else {
    key.append(reinterpret_cast<const char*>(d.u.data), std::min<size_t>(d.length, mDNS_MaxRDataSize));
  }
  return key;
}

void check_answer(Slot& s, const DNSQuestion& q, const ResourceRecord& rr, QC_result kind) {
  require(rr.name != nullptr && rr.rdata != nullptr, "an answer without name or data");
  require(rr.rrtype == q.qtype || q.qtype == kDNSType_ANY, "an answer of another type");
  require(mdns::names_equal(*rr.name, q.qname), "an answer for another name");
  require(q.InterfaceID == mDNSInterface_Any || rr.InterfaceID == q.InterfaceID,
          "an answer from another interface");
  require(rr.rdata->length <= mDNS_MaxRDataSize, "answer data longer than its storage");
  int& count = s.reported[answer_key(rr)];
  if (kind == QC_add) {
    require(!s.browse || count == 0, "a browse reported an instance twice");
    ++count;
  } else {
    require(kind == QC_rmv, "an event neither add nor remove");
    require(count > 0, "a removal of an answer never reported");
    --count;
  }
}

void on_answer(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer, QC_result kind) {
  require(g_driving, "a callback ran inside an application's call");
  require(m == &g_core, "a callback for another core");
  const int index = slot_of_question(question);
  require(index >= 0, "a callback for a question that is not started");
  require(question->QuestionContext == &g_slots[index], "a question's context changed");
  require(answer != nullptr, "a callback without an answer");
  if (tracing()) {
    char text[MAX_ESCAPED_DOMAIN_NAME];
    ConvertDomainNameToCString_withescape(answer->name, text, '\\');
    char target[MAX_ESCAPED_DOMAIN_NAME] = "";
    if (answer->rrtype == kDNSType_PTR) {
      ConvertDomainNameToCString_withescape(&answer->rdata->u.name, target, '\\');
    }
    trace(" callback %d: %s %s type %d %s\n", index, kind == QC_add ? "add" : "remove", text,
          static_cast<int>(answer->rrtype), target);
  }
  check_answer(g_slots[index], *question, *answer, kind);
  act(index);
}

void on_resolved(mDNS* const m, ServiceInfoQuery* query) {
  require(g_driving, "a callback ran inside an application's call");
  require(m == &g_core, "a callback for another core");
  const int index = slot_of_resolve(query);
  require(index >= 0, "a callback for a resolve that is not started");
  const Slot& s = g_slots[index];
  require(query->info == s.info && query->ServiceInfoQueryContext == &s,
          "a resolve's info or context changed");
  require(s.info->ip.type == mDNSAddrType_IPv4 || s.info->ip.type == mDNSAddrType_IPv6,
          "a resolve reported without an address");
  require(s.info->TXTlen <= mDNS_MaxTXTInfo, "TXT longer than its storage");
  trace(" callback %d: resolved\n", index);
  act(index);
}

// ---- Driving the core ---------------------------------------------------------------

// `work` as the core's own loop runs it: in a pass, then what is due.
template <typename Work>
void in_pass(Work work) {
  if (!g_core_up) {
    return;
  }
  mdns::engine_set_fake_clock(&g_core, g_now);
  mdns::engine_begin_pass(&g_core);
  g_driving = true;
  work();
  mdns::engine_run_scheduled(&g_core);
  g_driving = false;
}

int32_t later(int32_t t, int32_t ms) {
  return static_cast<int32_t>(static_cast<uint32_t>(t) + static_cast<uint32_t>(ms));
}

// Passes through the public loop at every moment the core asks for, up to `ms` on.
void advance(int32_t ms) {
  const int32_t target = later(g_now, ms);
  for (int pass = 0; pass < kMaxPassesPerAdvance && g_core_up; ++pass) {
    mdns::engine_set_fake_clock(&g_core, g_now);
    fd_set readfds;
    FD_ZERO(&readfds);
    g_driving = true;
    mDNSPosixProcessFDSet(&g_core, &readfds);
    g_driving = false;
    if (!g_core_up) {
      break;
    }
    int nfds = 0;
    timeval timeout{3600, 0};
    mDNSPosixGetFDSet(&g_core, &nfds, &readfds, &timeout);
    require(nfds == 0, "test mode gave a descriptor");
    const int64_t wait = static_cast<int64_t>(timeout.tv_sec) * 1000 + timeout.tv_usec / 1000;
    const int32_t step = static_cast<int32_t>(std::max<int64_t>(wait, 1));
    if (static_cast<int32_t>(static_cast<uint32_t>(target) - static_cast<uint32_t>(g_now)) < step) {
      break;
    }
    g_now = later(g_now, step);
  }
  g_now = target;
  if (g_core_up) {
    mdns::engine_set_fake_clock(&g_core, g_now);
  }
}

int32_t duration_of(uint8_t b) {
  static const int32_t kUnits[] = {10, 250, 10 * 1000, 5 * 60 * 1000};
  return (b & 63) * kUnits[b >> 6];
}

// Records into `msg` from the program: [count byte][bulk count][bulk template
// [series, when its bit 7 is set]] then three bytes per record.  `asked` is the question "as asked" records
// answer (null: a started slot's question, if any).
void add_records(ByteStream& in, MessageBuilder& msg, const mdns::ParsedQuestion* asked) {
  const unsigned explicit_count = in.next() & 15;
  const unsigned bulk = std::min(in.next() * 2u, kMaxBulkRecords);
  const uint8_t bulk_template = bulk > 0 ? in.next() : 0;
  // Another series of names: so that browses come to remember thousands of instances.
  const unsigned first = (bulk_template & 0x80) != 0 ? in.next() * kMaxBulkRecords : 0;
  domainname asked_name{};
  uint16_t asked_type = kDNSType_A;
  if (asked != nullptr) {
    asked_name = asked->name;
    asked_type = asked->qtype;
  }
  for (unsigned i = 0; i < explicit_count; ++i) {
    const uint8_t r0 = in.next();
    const uint8_t r1 = in.next();
    const uint8_t r2 = in.next();
    const unsigned instance = r1 & 7;
    const unsigned type = (r1 >> 3) & 1;
    const unsigned domain = (r1 >> 4) & 1;
    const unsigned host = (r1 >> 5) & 7;
    OutRecord r;
    switch (r0 & 7) {
      case 0:
        r = make_record(name_of(service_type(type, domain)), kDNSType_PTR, r1, r2, 0);
        break;
      case 5:  // not an instance: nothing directly under the browsed name
        r = make_record(name_of(service_type(type, domain)), kDNSType_PTR, r1, r2, 0);
        r.data_name = name_of(host_name(host, domain));
        break;
      case 1:
        r = make_record(name_of(instance_name(instance, type, domain)), kDNSType_SRV, r1, r2, 0);
        break;
      case 2:
        r = make_record(name_of(instance_name(instance, type, domain)), kDNSType_TXT, r1, r2, 0);
        break;
      case 3:
        r = make_record(name_of(host_name(host, domain)), kDNSType_A, r1, r2, 0);
        break;
      case 4:
        r = make_record(name_of(host_name(host, domain)), kDNSType_AAAA, r1, r2, 0);
        break;
      default: {
        if (asked == nullptr) {
          const Slot& s = g_slots[instance % kQuestionSlots];
          if (!s.started || s.question == nullptr) {
            continue;
          }
          asked_name = s.question->qname;
          asked_type = s.question->qtype;
        }
        r = make_record(asked_name, asked_type, r1, r2, 0);
        break;
      }
    }
    r.rrclass = static_cast<uint16_t>(kDNSClass_IN | ((r0 & 8) != 0 ? 0x8000 : 0));
    r.ttl = ttl_of((r0 >> 4) & 3, r2);
    r.section = (r0 & 0x40) != 0 ? mdns::Section::kAdditional : mdns::Section::kAnswer;
    msg.record(r);
  }
  // Many records of one kind, each its own: more than a packet's record list holds.
  const unsigned type = (bulk_template >> 2) & 1;
  const unsigned domain = (bulk_template >> 3) & 1;
  for (unsigned n = 1; n <= bulk; ++n) {
    const unsigned i = first + n;
    OutRecord r;
    switch (bulk_template & 3) {
      case 0:
        r = make_record(name_of(service_type(type, domain)), kDNSType_PTR, 0, 0, i);
        break;
      case 1:
        r = make_record(name_of(host_name(4 + (i & 3), domain)), kDNSType_A, 0, 0, i);
        break;
      case 2:
        r = make_record(name_of("b" + std::to_string(i - 1) + "." + service_type(type, domain)), kDNSType_SRV,
                        0x80, 0, i);
        break;
      default:
        if (asked == nullptr && !g_slots[0].started) {
          continue;
        }
        r = make_record(asked != nullptr ? asked->name : g_slots[0].question->qname,
                        asked != nullptr ? asked->qtype : g_slots[0].question->qtype, 0, 0, i);
        break;
    }
    r.rrclass = static_cast<uint16_t>(kDNSClass_IN | ((bulk_template & 0x40) != 0 ? 0x8000 : 0));
    r.ttl = ttl_of((bulk_template >> 4) & 3, 0);
    msg.record(r);
  }
}

mdns::Arrival multicast_arrival(uint8_t source) {
  mdns::Arrival arrival{};
  arrival.source = mdns::address_from_text(((source >> 3) & 3) == 3 ? "203.0.113.9" : kSources[source & 3]);
  const uint16_t port = ((source >> 5) & 3) == 3 ? 1234 : 5353;
  arrival.source_port.b[0] = static_cast<uint8_t>(port >> 8);
  arrival.source_port.b[1] = static_cast<uint8_t>(port);
  arrival.interface_id = mdns::platform_interface_id_of(&g_core, (source & 4) != 0 ? "eth1" : "eth0");
  arrival.transport = mdns::Transport::kMulticast;
  return arrival;
}

// How an answer to an asked query goes wrong (or not): bits 0-1 which query,
// 2 another ID, 3 another sender, 4 no questions, 5 truncated, 6-7 the rcode.
struct Reply {
  const Asked* asked;
  uint8_t pick;
};

Reply pick_asked(const Asked* ring, uint8_t pick) {
  const Asked& a = ring[pick & 3];
  return {a.valid ? &a : nullptr, pick};
}

MessageBuilder reply_header(const Reply& reply, bool unicast) {
  static const uint16_t kRcodes[] = {0, 0, 3, 2};
  uint16_t flags = unicast ? 0x8180 : 0x8400;
  flags = static_cast<uint16_t>(flags | ((reply.pick & 0x20) != 0 ? 0x0200 : 0) | kRcodes[reply.pick >> 6]);
  const uint16_t id = static_cast<uint16_t>(reply.asked->id ^ ((reply.pick & 4) != 0 ? 1 : 0));
  MessageBuilder msg(id, flags);
  if ((reply.pick & 0x10) == 0) {
    for (const mdns::ParsedQuestion& q : reply.asked->questions) {
      msg.question(q.name, q.qtype, q.qclass);
    }
  }
  return msg;
}

void deliver_one_shot(const Reply& reply, const std::vector<uint8_t>& bytes) {
  const Asked& a = *reply.asked;
  mdns::Arrival arrival{};
  const bool eth1 = a.interface_id == mdns::platform_interface_id_of(&g_core, "eth1");
  arrival.source = mdns::address_from_text((reply.pick & 8) != 0 ? "203.0.113.9"
                                           : a.family == 6       ? "fe80::20"
                                           : eth1                ? "10.0.0.20"
                                                                 : "192.168.1.20");
  arrival.source_port.b[0] = 5353 >> 8;
  arrival.source_port.b[1] = 5353 & 0xFF;
  arrival.interface_id = a.interface_id;
  arrival.transport = mdns::Transport::kOneShot;
  in_pass(
      [&] { mdns::engine_receive(&g_core, bytes.data(), std::min(bytes.size(), kMaxDatagram), arrival); });
}

void deliver_unicast(const Reply& reply, const std::vector<uint8_t>& bytes) {
  const Asked& a = *reply.asked;
  const mDNSAddr source =
      (reply.pick & 8) != 0
          ? mdns::address_from_text(a.server.type == mDNSAddrType_IPv4 ? "2001:db8::53" : "192.0.2.53")
          : a.server;
  const size_t limit = a.transport == mdns::Transport::kUnicastTcp ? 65535 : kMaxDatagram;
  // Read as the core reads real sockets: on the next pass of its loop.
  if (!g_core_up || !mdns::platform_test_deliver_dns(&g_core, a.socket, source, a.port, bytes.data(),
                                                     std::min(bytes.size(), limit))) {
    return;
  }
  mdns::engine_set_fake_clock(&g_core, g_now);
  g_driving = true;
  mDNSPosixProcessFDSet(&g_core, nullptr);
  g_driving = false;
}

// Raw bytes after a header (and, for an answer, the questions asked):
// [path][record counts: answers low nibble, additionals high][length][bytes].
void receive_raw(ByteStream& in) {
  const uint8_t path = in.next();
  const uint8_t counts = in.next();
  const std::vector<uint8_t> raw = in.take(in.next());
  const Reply reply = pick_asked((path & 0x40) != 0 ? g_unicast : g_one_shots, path);
  if ((path & 0x80) != 0 && reply.asked != nullptr) {
    MessageBuilder msg = reply_header(reply, (path & 0x40) != 0);
    msg.raw(raw, counts & 15, counts >> 4);
    if ((path & 0x40) != 0) {
      deliver_unicast(reply, msg.bytes());
    } else {
      deliver_one_shot(reply, msg.bytes());
    }
    return;
  }
  MessageBuilder msg(0, 0x8400);
  msg.raw(raw, counts & 15, counts >> 4);
  const std::vector<uint8_t> bytes = msg.bytes();
  const mdns::Arrival arrival = multicast_arrival(path);
  in_pass([&] { mdns::engine_receive(&g_core, bytes.data(), bytes.size(), arrival); });
}

void receive_multicast(ByteStream& in) {
  const uint8_t source = in.next();
  MessageBuilder msg(0, 0x8400);
  add_records(in, msg, nullptr);
  const std::vector<uint8_t> bytes = msg.bytes();
  const mdns::Arrival arrival = multicast_arrival(source);
  in_pass(
      [&] { mdns::engine_receive(&g_core, bytes.data(), std::min(bytes.size(), kMaxDatagram), arrival); });
}

void receive_answer(ByteStream& in, bool unicast) {
  const Reply reply = pick_asked(unicast ? g_unicast : g_one_shots, in.next());
  if (reply.asked == nullptr) {
    MessageBuilder ignored(0, 0);
    add_records(in, ignored, nullptr);  // consumed all the same
    return;
  }
  MessageBuilder msg = reply_header(reply, unicast);
  add_records(in, msg, reply.asked->questions.empty() ? nullptr : &reply.asked->questions[0]);
  if (unicast) {
    deliver_unicast(reply, msg.bytes());
  } else {
    deliver_one_shot(reply, msg.bytes());
  }
}

// The second interface goes or comes, as the core's own watch would see it.
void toggle_interface() {
  g_two_interfaces = !g_two_interfaces;
  publish_interfaces(g_two_interfaces);
  in_pass([] { (void)mDNSPlatformPosixRefreshInterfaceList(&g_core); });
}

void check_between_operations() {
  if (!g_core_up) {
    return;
  }
  const mdns::CoreState& core = mdns::core_of(&g_core);
  require(core.walk_depth == 0, "a walk over the questions left open");
  require(core.packet_head == 0 && core.callback_depth == 0, "a packet's records left undelivered");
  require(core.cache_used <= g_cache_size, "more cache entries used than there are");
}

// Operations: the first byte's value modulo 10 picks one.
//   0, 1  start a slot: [slot][two parameter bytes]
//   2     stop a slot: [slot; bit 7 free it]
//   3     multicast response: [source] records
//   4     one-shot answer: [reply] records
//   5     unicast DNS answer: [reply] records
//   6, 7  time passes: [duration]
//   8     raw bytes
//   9     [what]: 0 the second interface goes or comes, 1 StartExit, FinalExit
//         and Init, 2 StartExit (FinalExit and Init before the next operation)
void run_operation(ByteStream& in) {
  const uint8_t op = in.next();
  trace("op %d at %d ms\n", op % 10, static_cast<int>(g_now - kEpoch));
  switch (op % 10) {
    case 0:
    case 1: {
      const uint8_t slot = in.next();
      const uint8_t p = in.next();
      const uint8_t r = in.next();
      start_slot(slot % kSlots, p, r);
      break;
    }
    case 2: {
      const uint8_t slot = in.next();
      stop_slot(slot % kSlots, (slot & 0x80) != 0);
      break;
    }
    case 3:
      receive_multicast(in);
      break;
    case 4:
      receive_answer(in, false);
      break;
    case 5:
      receive_answer(in, true);
      break;
    case 6:
    case 7:
      advance(duration_of(in.next()));
      break;
    case 8:
      receive_raw(in);
      break;
    default:
      switch (in.next() & 7) {
        case 0:
          toggle_interface();
          break;
        case 1:
          shut_down(Exit::kFinalAndInit);
          break;
        case 2:
          shut_down(Exit::kStartOnly);
          break;
        default:
          break;
      }
      break;
  }
}

void begin_run(uint8_t config) {
  std::memset(&g_core, 0, sizeof g_core);
  g_cache_size = kCacheSizes[(config >> 1) & 3];
  g_two_interfaces = (config & 1) != 0;
  publish_interfaces(g_two_interfaces);
  g_now = kEpoch;
  g_depth = 0;
  g_callbacks = 0;
  g_retire_all = false;
  g_exit_started = false;
  g_to_retire.clear();
  for (Asked& a : g_one_shots) {
    a = Asked{};
  }
  for (Asked& a : g_unicast) {
    a = Asked{};
  }
  g_one_shot_next = 0;
  g_unicast_next = 0;
  for (int i = 0; i < kSlots; ++i) {
    g_slots[i] = Slot{};
    g_slots[i].resolve = i >= kQuestionSlots;
    allocate(g_slots[i]);
  }
  init_core();
}

// Everything stopped by the application, then the core shut down.
void end_run() {
  finish_exit();
  for (int i = 0; i < kSlots; ++i) {
    stop_slot(i, true);
  }
  retire_pending();
  check_between_operations();
  mDNS_StartExit(&g_core);
  mDNS_FinalExit(&g_core);
  g_core_up = false;
  for (Slot& s : g_slots) {
    release(s);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) {
    return 0;
  }
  const size_t program_length = std::min<size_t>(static_cast<size_t>(data[1]) << 8 | data[2], size - 3);
  ByteStream program(data + 3, program_length);
  g_actions = ByteStream(data + 3 + program_length, size - 3 - program_length);
  begin_run(data[0]);
  for (int n = 0; n < kMaxOperations && !program.empty(); ++n) {
    finish_exit();
    run_operation(program);
    retire_pending();
    check_between_operations();
  }
  end_run();
  return 0;
}
