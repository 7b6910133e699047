// Runs every scenario file in the scenarios folder as one test: the core in
// test mode on its fake clock, no sockets, every packet it sends captured.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>

#include "dns_builder.h"
#include "engine.h"
#include "identity.h"
#include "interfaces_posix.h"
#include "message_reader.h"
#include "names.h"
#include "scenario.h"
#include "unicast_dns.h"

namespace replay {
namespace {

using sorvalen::test::Bytes;
using sorvalen::test::DnsMessage;
using sorvalen::test::record_data;
using sorvalen::test::type_code;
using sorvalen::test::wire_name;

constexpr int32_t kEpoch = 1000000;  // the fake clock at a scenario's time 0

domainname to_name(const Bytes& wire) {
  domainname out{};
  std::copy(wire.begin(), wire.begin() + static_cast<long>(std::min(wire.size(), sizeof out.c)), out.c);
  return out;
}

std::string text_of(const domainname& name) {
  char buf[MAX_ESCAPED_DOMAIN_NAME];
  ConvertDomainNameToCString_withescape(&name, buf, '\\');
  return buf;
}

// Record data in wire form, names uncompressed: what a scenario's DATA gives.
Bytes wire_data(uint16_t type, const RData& rd) {
  switch (type) {
    case kDNSType_PTR:
    case kDNSType_CNAME:
      return Bytes(rd.u.name.c, rd.u.name.c + mdns::name_length(rd.u.name));
    case kDNSType_SRV: {
      Bytes out;
      sorvalen::test::append_u16(out, rd.u.srv.priority);
      sorvalen::test::append_u16(out, rd.u.srv.weight);
      out.insert(out.end(), rd.u.srv.port.b, rd.u.srv.port.b + 2);
      out.insert(out.end(), rd.u.srv.target.c, rd.u.srv.target.c + mdns::name_length(rd.u.srv.target));
      return out;
    }
    default:
      return Bytes(rd.u.data, rd.u.data + std::min<size_t>(rd.length, sizeof rd.u.data));
  }
}

bool same_data(uint16_t type, const Bytes& a, const Bytes& b) {
  if (a.size() != b.size()) {
    return false;
  }
  const bool names = type == kDNSType_PTR || type == kDNSType_CNAME || type == kDNSType_SRV;
  return std::equal(a.begin(), a.end(), b.begin(), [names](uint8_t x, uint8_t y) {
    return names ? std::tolower(x) == std::tolower(y) : x == y;
  });
}

std::string address_text(const mDNSAddr& a) {
  char buf[INET6_ADDRSTRLEN] = "";
  inet_ntop(a.type == mDNSAddrType_IPv4 ? AF_INET : AF_INET6, &a.ip, buf, sizeof buf);
  return buf;
}

mDNSAddr address_from(const std::string& text) {
  return mdns::address_from_text(text.c_str());
}

struct Record {
  domainname name;
  uint16_t type;
  Bytes data;
};

struct Sent {
  int32_t time;
  mdns::Transport transport;
  std::string iface;
  int family;
  int socket;
  std::string server;
  uint16_t id;
  uint16_t flags;
  bool unicast_response = false;
  std::vector<Record> questions;
  std::vector<Record> known;
  bool consumed = false;

  std::string describe() const {
    static const char* const kTransports[] = {"", "oneshot ", "dns ", "tcp "};
    std::ostringstream out;
    out << "  send at " << time << " " << kTransports[static_cast<int>(transport)] << iface << server << " v"
        << family << ((flags & 0x0200) ? " tc" : "") << (unicast_response ? " qu" : "") << ":";
    for (const Record& q : questions) {
      out << " q " << text_of(q.name) << " " << sorvalen::test::type_name(q.type) << ";";
    }
    out << " " << known.size() << " known\n";
    return out.str();
  }
};

struct Event {
  int32_t time;
  std::string id;
  std::string kind;  // add, remove, resolved
  uint16_t type;
  Bytes data;        // add/remove: the answer's data
  std::string text;  // resolved: "ADDRESS PORT"; otherwise printable data
  bool consumed = false;
};

struct Slot {
  std::string id;
  class Replay* replay;
  DNSQuestion question{};
  ServiceInfoQuery query{};
  ServiceInfo info{};
  bool resolve = false;
  std::string stops;     // the slot its first callback stops ("then-stop ID")
  std::string resolves;  // a browse that resolves every instance it adds, as slots "ID/instance"
};

class Replay {
 public:
  explicit Replay(const Scenario& s) : s_(s), m_(new mDNS()), cache_(s.cache_entries) {
    for (const std::string& text : s.interfaces) {
      set_interface(words(text), false);
    }
    std::vector<mDNSAddr> servers;
    std::vector<uint16_t> ports;
    for (const std::string& text : s.nameservers) {
      const auto w = words(text);
      servers.push_back(address_from(w[0]));
      ports.push_back(static_cast<uint16_t>(w.size() >= 3 ? std::stoi(w[2]) : 53));
    }
    mdns::platform_use_test_mode(&p_, &snapshot_);
    mdns::platform_set_send_hook(&p_, &Replay::capture, this);
    mdns::platform_test_set_name_servers(&p_, servers.data(), ports.data(), static_cast<int>(servers.size()));
    mdns::engine_set_fake_clock(m_.get(), kEpoch);
    if (mDNS_Init(m_.get(), &p_, cache_.data(), s.cache_entries, mDNSfalse, nullptr, nullptr) !=
        mStatus_NoError) {
      throw std::runtime_error("mDNS_Init failed");
    }
    mdns::core_of(m_.get()).random_state = 0x2545f491;
  }

  ~Replay() {
    mDNS_StartExit(m_.get());
    mDNS_FinalExit(m_.get());
  }

  void run() {
    for (const Line& line : s_.actions) {
      advance_to(parse_time(line.words[1]));
      try {
        act(line);
      } catch (const std::exception& e) {
        failures_.push_back("line " + std::to_string(line.number) + ": " + e.what() + ": " + line.text);
      }
    }
    advance_to(s_.end + 1);
  }

  std::vector<std::string> check() {
    for (const Line& line : s_.expectations) {
      const std::string verb = line.words[1];
      const Window w = parse_window(line.words[2]);
      std::string why;
      if (verb == "send") {
        why = expect_send(line, w);
      } else if (verb == "nosend") {
        why = expect_nosend(line, w);
      } else if (verb == "event") {
        why = expect_event(line, w);
      } else if (verb == "noevent") {
        why = expect_noevent(line, w);
      } else if (verb == "series") {
        why = expect_series(line, w);
      } else if (verb == "count") {
        why = expect_count(line, w);
      } else if (verb == "at-most") {
        why = expect_at_most(line, w);
      } else {
        why = "unknown expectation";
      }
      if (!why.empty()) {
        failures_.push_back("line " + std::to_string(line.number) + ": " + line.text + "\n" + why);
      }
    }
    for (const Sent& sent : sent_) {
      if (!sent.consumed && !s_.allow_extra_sends) {
        failures_.push_back("unexpected:\n" + sent.describe());
      }
    }
    for (const Event& e : events_) {
      if (!e.consumed && !s_.allow_extra_events) {
        failures_.push_back("unexpected: event at " + std::to_string(e.time) + " " + e.id + " " + e.kind +
                            " " + e.text);
      }
    }
    return failures_;
  }

 private:
  static std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string w; in >> w;) {
      out.push_back(w);
    }
    return out;
  }

  static std::string option(const std::vector<std::string>& w, const std::string& key,
                            const std::string& dflt) {
    const auto it = std::find(w.begin(), w.end(), key);
    return it != w.end() && it + 1 != w.end() ? *(it + 1) : dflt;
  }

  static bool flag(const std::vector<std::string>& w, const std::string& key) {
    return std::find(w.begin(), w.end(), key) != w.end();
  }

  int32_t now() const { return now_ - kEpoch; }

  // ---- The host's interfaces ----

  void set_interface(const std::vector<std::string>& w, bool new_index) {
    mdns::InterfaceRecord* entry = nullptr;
    for (size_t i = 0; i < snapshot_.count; ++i) {
      if (w[0] == snapshot_.entries[i].info.ifname) {
        entry = &snapshot_.entries[i];
      }
    }
    if (entry == nullptr) {
      entry = &snapshot_.entries[snapshot_.count++];
      new_index = true;
    }
    const uint32_t index = new_index ? next_ifindex_++ : entry->ifindex;
    mdns::interface_reset(*entry, w[0].c_str(), index);
    for (size_t i = 1; i < w.size(); ++i) {
      const size_t slash = w[i].find('/');
      mdns::interface_add_address(*entry, address_from(w[i].substr(0, slash)),
                                  std::stoi(w[i].substr(slash + 1)));
    }
    entry->v4usable = mdns::interface_has_family(*entry, mDNSAddrType_IPv4);
    entry->v6usable = mdns::interface_has_family(*entry, mDNSAddrType_IPv6);
  }

  void change_interfaces(const std::vector<std::string>& w) {
    const std::vector<std::string> args(w.begin() + 4, w.end());
    if (w[3] == "up") {
      set_interface(args, false);
    } else if (w[3] == "recreate") {
      std::vector<std::string> same = {args[0]};
      for (size_t i = 0; i < snapshot_.count; ++i) {
        if (args[0] == snapshot_.entries[i].info.ifname) {
          for (size_t a = 0; a < snapshot_.entries[i].naddrs; ++a) {
            same.push_back(address_text(snapshot_.entries[i].addrs[a].addr) + "/" +
                           std::to_string(snapshot_.entries[i].addrs[a].prefix_length));
          }
        }
      }
      set_interface(same, true);
    } else if (w[3] == "down") {
      for (size_t i = 0; i < snapshot_.count; ++i) {
        if (args[0] == snapshot_.entries[i].info.ifname) {
          snapshot_.entries[i] = snapshot_.entries[--snapshot_.count];
        }
      }
    } else {
      throw std::invalid_argument("iface up, down or recreate");
    }
    // As the core's own watch on the interfaces does, inside a pass.
    begin_pass();
    mDNSPlatformPosixRefreshInterfaceList(m_.get());
    end_pass();
  }

  mDNSInterfaceID iface(const std::vector<std::string>& w) const {
    const std::string name = option(w, "iface", "");
    return name.empty() ? mDNSInterface_Any : mdns::platform_interface_id_of(m_.get(), name.c_str());
  }

  std::string iface_name(mDNSInterfaceID id) const {
    for (const NetworkInterfaceInfo* i = m_->HostInterfaces; i != nullptr; i = i->next) {
      if (i->InterfaceID == id) {
        return i->ifname;
      }
    }
    return "";
  }

  // ---- Time ----

  void pass() {
    begin_pass();
    end_pass();
  }

  void begin_pass() {
    mdns::engine_set_fake_clock(m_.get(), now_);
    mdns::engine_begin_pass(m_.get());
    in_pass_ = true;
  }

  void end_pass() {
    mdns::engine_run_scheduled(m_.get());
    in_pass_ = false;
  }

  // Runs a pass at every moment before `t` when the core has work; the
  // actions at `t` then come before the pass at `t`.
  void advance_to(int32_t t) {
    const int32_t target = kEpoch + t;
    for (int guard = 0; guard < 1000000 && now_ < target; ++guard) {
      pass();
      now_ += std::max(mdns::engine_time_to_next_event(m_.get(), now_), 1);
    }
    now_ = target;
    mdns::engine_set_fake_clock(m_.get(), now_);
  }

  // ---- Actions ----

  Slot& slot(const std::string& id) {
    std::unique_ptr<Slot>& s = slots_[id];
    if (!s) {
      s = std::make_unique<Slot>();
      s->id = id;
      s->replay = this;
    }
    return *s;
  }

  // A start must succeed, or be refused when the line says "refused".
  static void started(mStatus status, const std::vector<std::string>& w) {
    if ((status != mStatus_NoError) != flag(w, "refused")) {
      throw std::runtime_error(status != mStatus_NoError ? "refused: " + std::to_string(status) : "not refused");
    }
  }

  void act(const Line& line) {
    const auto& w = line.words;
    const std::string& verb = w[2];
    if (verb == "browse" || verb == "query" || verb == "resolve") {
      slot(w[3]).stops = option(w, "then-stop", "");
      slot(w[3]).resolves = flag(w, "then-resolve") ? w[3] : "";
    }
    if (verb == "browse") {
      Slot& s = slot(w[3]);
      // As an application makes them from its texts ("-": an empty text).
      const bool has_domain = w.size() > 5 && (w[5].back() == '.' || w[5] == "-");
      domainname type{};
      domainname domain{};
      MakeDomainNameFromDNSNameString(&type, w[4] == "-" ? "" : w[4].c_str());
      MakeDomainNameFromDNSNameString(&domain, !has_domain ? "local." : w[5] == "-" ? "" : w[5].c_str());
      started(mDNS_StartBrowse(m_.get(), &s.question, &type, &domain, iface(w), mDNSfalse, on_answer, &s), w);
    } else if (verb == "query") {
      Slot& s = slot(w[3]);
      s.question.qname = to_name(wire_name(w[4]));
      s.question.qtype = type_code(w[5]);
      s.question.qclass = kDNSClass_IN;
      s.question.InterfaceID = iface(w);
      s.question.QuestionCallback = on_answer;
      s.question.QuestionContext = &s;
      started(mDNS_StartQuery(m_.get(), &s.question), w);
    } else if (verb == "resolve") {
      Slot& s = slot(w[3]);
      s.resolve = true;
      s.info.name = to_name(wire_name(w[4]));
      s.info.InterfaceID = iface(w);
      started(mDNS_StartResolveService(m_.get(), &s.query, &s.info, on_resolved, &s), w);
    } else if (verb == "stop") {
      stop(slot(w[3]));
    } else if (verb == "recv" || verb == "recv-dns") {
      // "repeat N": N packets, with {n} in the records counting from 1.
      const int count = std::stoi(option(w, "repeat", "1"));
      for (int n = 1; n <= count; ++n) {
        Line copy = line;
        for (Line& r : copy.body) {
          for (std::string& word : r.words) {
            const size_t at = word.find("{n}");
            word = at == std::string::npos ? word : word.replace(at, 3, std::to_string(n));
          }
        }
        receive(copy);
      }
    } else if (verb == "iface") {
      change_interfaces(w);
    } else {
      throw std::invalid_argument("unknown action");
    }
  }

  // The latest one-shot, or unicast query ("for NAME TYPE": the latest asking that).
  const Sent* last_asked(bool unicast, const std::vector<std::string>& w) const {
    const auto at = std::find(w.begin(), w.end(), "for");
    for (auto it = sent_.rbegin(); it != sent_.rend(); ++it) {
      const bool kind = unicast ? it->transport >= mdns::Transport::kUnicastDns
                                : it->transport == mdns::Transport::kOneShot;
      if (kind && (at == w.end() || (!it->questions.empty() && it->questions[0].type == type_code(at[2]) &&
                                     mdns::names_equal(it->questions[0].name, to_name(wire_name(at[1])))))) {
        return &*it;
      }
    }
    return nullptr;
  }

  Bytes message_of(const Line& line, const Sent* asked) const {
    const auto& w = line.words;
    if (flag(w, "raw")) {
      std::vector<std::string> digits = {"hex"};
      digits.insert(digits.end(), std::find(w.begin(), w.end(), "raw") + 1, w.end());
      return record_data(0, digits);
    }
    DnsMessage msg(0, static_cast<uint16_t>(std::stoul(option(w, "flags", "8400"), nullptr, 16)));
    if (flag(w, "echo") && asked != nullptr) {
      msg.set_id(asked->id);
      for (const Record& q : asked->questions) {
        msg.question(text_of(q.name), q.type);
      }
    }
    if (flag(w, "echo-id") && asked != nullptr) {
      msg.set_id(asked->id);  // the ID only: the questions may then differ from what was asked
    }
    if (flag(w, "id")) {
      msg.set_id(static_cast<uint16_t>(std::stoul(option(w, "id", "0"))));
    }
    for (const Line& r : line.body) {
      const auto& f = r.words;
      if (f[0] == "qd") {
        msg.question(f.at(1), type_code(f.at(2)));
        continue;
      }
      const DnsMessage::Section section = f[0] == "an"   ? DnsMessage::kAnswer
                                          : f[0] == "ns" ? DnsMessage::kAuthority
                                                         : DnsMessage::kAdditional;
      const bool flush = f.size() > 4 && f[4] == "flush";
      const uint16_t type = type_code(f.at(2));
      const std::vector<std::string> data(f.begin() + (flush ? 5 : 4), f.end());
      msg.add(section,
              {f[1], type, static_cast<uint32_t>(std::stoul(f.at(3))), record_data(type, data), flush});
    }
    return msg.bytes();
  }

  void receive(const Line& line) {
    const auto& w = line.words;
    begin_pass();
    if (w[2] == "recv-dns") {
      const Sent* asked = last_asked(true, w);
      if (asked == nullptr) {
        throw std::runtime_error("no unicast query to answer");
      }
      const Bytes bytes = message_of(line, asked);
      const mDNSAddr from = address_from(option(w, "from", asked->server));
      const uint16_t port = static_cast<uint16_t>(std::stoi(option(w, "port", "53")));
      mdns::unicast_receive(m_.get(), asked->socket, from, port, bytes.data(), bytes.size());
    } else {
      const bool one_shot = flag(w, "oneshot");
      const Bytes bytes = message_of(line, last_asked(false, w));
      mdns::Arrival arrival{};
      arrival.source = address_from(w.at(3));
      const int port = std::stoi(option(w, "port", "5353"));
      arrival.source_port.b[0] = static_cast<uint8_t>(port >> 8);
      arrival.source_port.b[1] = static_cast<uint8_t>(port);
      const std::string name = option(w, "iface", snapshot_.entries[0].info.ifname);
      arrival.interface_id = mdns::platform_interface_id_of(m_.get(), name.c_str());
      arrival.transport = one_shot ? mdns::Transport::kOneShot : mdns::Transport::kMulticast;
      mdns::engine_receive(m_.get(), bytes.data(), bytes.size(), arrival);
    }
    end_pass();
  }

  // ---- What the core does ----

  static void capture(void* context, const mdns::SentMessage& message) {
    auto* self = static_cast<Replay*>(context);
    Sent sent{};
    sent.time = self->now();
    sent.transport = message.transport;
    sent.iface = self->iface_name(message.interface_id);
    sent.family = message.family;
    sent.socket = message.socket;
    sent.server = message.destination.type != mDNSAddrType_None ? address_text(message.destination) : "";
    const uint8_t* data = message.data;
    size_t length = message.length;
    if (message.transport == mdns::Transport::kUnicastTcp && length >= 2) {
      data += 2;  // the length prefix
      length -= 2;
    }
    mdns::MessageParser parser(data, length);
    mdns::MessageHeader h;
    parser.read_header(h);
    sent.id = h.id;
    sent.flags = h.flags;
    mdns::ParsedQuestion q;
    for (int i = 0; i < h.qdcount && parser.next_question(q) == mdns::MessageParser::Result::kOk; ++i) {
      sent.questions.push_back({q.name, q.qtype, {}});
      sent.unicast_response |= q.unicast_response;
    }
    mdns::ParsedRecord r;
    while (parser.next_record(r) == mdns::MessageParser::Result::kOk) {
      sent.known.push_back({r.name, r.rrtype, wire_data(r.rrtype, r.rdata)});
    }
    self->sent_.push_back(sent);
  }

  void log_event(Slot& s, const char* kind, uint16_t type, Bytes data, std::string text) {
    if (!in_pass_) {
      failures_.push_back("a callback ran inside the application's call, at " + std::to_string(now()));
    }
    events_.push_back({now(), s.id, kind, type, std::move(data), std::move(text)});
    if (!s.stops.empty()) {
      stop(slot(s.stops));
      s.stops.clear();
    }
  }

  void stop(Slot& s) {
    if (s.resolve) {
      mDNS_StopResolveService(m_.get(), &s.query);
    } else {
      mDNS_StopQuery(m_.get(), &s.question);
    }
  }

  static void on_answer(mDNS* const, DNSQuestion* q, const ResourceRecord* const answer, QC_result kind) {
    auto* s = static_cast<Slot*>(q->QuestionContext);
    const Bytes data = wire_data(answer->rrtype, *answer->rdata);
    std::string text = answer->rrtype == kDNSType_PTR ? text_of(answer->rdata->u.name) : "";
    if (answer->rrtype == kDNSType_A || answer->rrtype == kDNSType_AAAA) {
      mDNSAddr a{};
      a.type = answer->rrtype == kDNSType_A ? mDNSAddrType_IPv4 : mDNSAddrType_IPv6;
      std::copy(data.begin(), data.end(), a.ip.v6.b);
      text = address_text(a);
    }
    s->replay->log_event(*s, kind == QC_add ? "add" : "remove", answer->rrtype, data, text);
    if (kind == QC_add && !s->resolves.empty()) {
      s->replay->resolve_instance(*s, answer->rdata->u.name, answer->InterfaceID);
    }
  }

  // As the device search does: every instance a browse adds is resolved.
  void resolve_instance(const Slot& browse, const domainname& instance, mDNSInterfaceID interface_id) {
    Slot& r = slot(browse.id + "/" + text_of(instance));
    r.resolve = true;
    r.info.name = instance;
    r.info.InterfaceID = interface_id;
    mDNS_StartResolveService(m_.get(), &r.query, &r.info, on_resolved, &r);
  }

  static void on_resolved(mDNS* const, ServiceInfoQuery* query) {
    auto* s = static_cast<Slot*>(query->ServiceInfoQueryContext);
    const int port = query->info->port.b[0] << 8 | query->info->port.b[1];
    s->replay->log_event(*s, "resolved", 0, {}, address_text(query->info->ip) + " " + std::to_string(port));
  }

  // ---- Expectations ----

  static mdns::Transport transport_of(const std::vector<std::string>& w) {
    return flag(w, "oneshot") ? mdns::Transport::kOneShot
           : flag(w, "dns")   ? mdns::Transport::kUnicastDns
           : flag(w, "tcp")   ? mdns::Transport::kUnicastTcp
                              : mdns::Transport::kMulticast;
  }

  static bool has_record(const std::vector<Record>& records, const std::vector<std::string>& f) {
    const domainname name = to_name(wire_name(f.at(1)));
    const uint16_t type = type_code(f.at(2));
    const std::vector<std::string> fields(f.begin() + 3, f.end());
    return std::any_of(records.begin(), records.end(), [&](const Record& r) {
      return r.type == type && mdns::names_equal(r.name, name) &&
             (fields.empty() || same_data(type, r.data, record_data(type, fields)));
    });
  }

  bool send_matches(const Sent& sent, const Line& line, const Window& w) const {
    const auto& words = line.words;
    const std::string family = flag(words, "v6") ? "6" : flag(words, "v4") ? "4" : "";
    if (sent.consumed || !w.contains(sent.time) || sent.transport != transport_of(words) ||
        (flag(words, "iface") && sent.iface != option(words, "iface", "")) ||
        (flag(words, "to") && sent.server != option(words, "to", "")) ||
        (!family.empty() && std::to_string(sent.family) != family) ||
        flag(words, "tc") != ((sent.flags & 0x0200) != 0) || flag(words, "qu") != sent.unicast_response) {
      return false;
    }
    size_t questions = 0;
    for (const Line& b : line.body) {
      const bool wanted = b.words[0] != "noknown";
      const auto& records = b.words[0] == "q" ? sent.questions : sent.known;
      questions += b.words[0] == "q" ? 1 : 0;
      if (has_record(records, b.words) != wanted) {
        return false;
      }
    }
    return questions == sent.questions.size();
  }

  std::string seen_in(const Window& w) const {
    std::string out;
    for (const Sent& s : sent_) {
      out += w.contains(s.time) ? s.describe() : "";
    }
    for (const Event& e : events_) {
      out += w.contains(e.time)
                 ? "  event at " + std::to_string(e.time) + " " + e.id + " " + e.kind + " " + e.text + "\n"
                 : "";
    }
    return "seen in the window:\n" + (out.empty() ? "  nothing\n" : out);
  }

  // The first match, and with it the same query on the other interfaces and families.
  std::string expect_send(const Line& line, const Window& w) {
    const bool narrowed = flag(line.words, "v4") || flag(line.words, "v6") || flag(line.words, "iface");
    for (Sent& s : sent_) {
      if (send_matches(s, line, w)) {
        const int32_t at = s.time;
        for (Sent& same : sent_) {
          if ((&same == &s || (!narrowed && same.time == at)) && send_matches(same, line, {at, at})) {
            same.consumed = true;
          }
        }
        return "";
      }
    }
    return seen_in(w);
  }

  std::string expect_nosend(const Line& line, const Window& w) {
    const bool any = line.words.size() == 3;
    for (const Sent& s : sent_) {
      if (w.contains(s.time) && (any || s.transport == transport_of(line.words))) {
        return seen_in(w);
      }
    }
    return "";
  }

  // "ID kind DATA...", as an expectation gives them from its fourth word on.
  static bool event_matches(const Event& e, const std::vector<std::string>& f) {
    if (f.size() > 3 && e.id != f[3]) {
      return false;
    }
    if (f.size() < 5) {
      return true;
    }
    const std::vector<std::string> fields(f.begin() + 5, f.end());
    if (e.kind != f[4]) {
      return false;
    }
    if (e.kind != "resolved") {
      return same_data(e.type, e.data, record_data(e.type, fields));
    }
    std::string text;
    for (const std::string& x : fields) {
      text += (text.empty() ? "" : " ") + x;
    }
    return e.text == text;
  }

  std::string expect_event(const Line& line, const Window& w) {
    for (Event& e : events_) {
      if (!e.consumed && w.contains(e.time) && event_matches(e, line.words)) {
        e.consumed = true;
        return "";
      }
    }
    return seen_in(w);
  }

  // "expect count W ID-prefix kind N": N events of that kind for slots whose
  // name starts with the prefix (a browse's resolves are "ID/instance").
  std::string expect_count(const Line& line, const Window& w) {
    const auto& f = line.words;
    int n = 0;
    for (Event& e : events_) {
      if (w.contains(e.time) && e.id.rfind(f.at(3), 0) == 0 && e.kind == f.at(4)) {
        e.consumed = true;
        ++n;
      }
    }
    return n == std::stoi(f.at(5)) ? "" : "counted " + std::to_string(n) + "\n";
  }

  // "expect at-most W N [oneshot|dns|tcp]": no more than N packets of that kind.
  std::string expect_at_most(const Line& line, const Window& w) {
    int n = 0;
    for (Sent& s : sent_) {
      if (w.contains(s.time) && s.transport == transport_of(line.words)) {
        s.consumed = true;
        ++n;
      }
    }
    return n <= std::stoi(line.words.at(3)) ? "" : "sent " + std::to_string(n) + "\n";
  }

  // The multicast queries that ask one question in the window, one line each:
  // "at W" for the first, "+W" for the gap since the one before, "+double"
  // for a gap of two to two and a bit times the one before.
  std::string expect_series(const Line& line, const Window& w) {
    const domainname name = to_name(wire_name(line.words.at(3)));
    const uint16_t type = type_code(line.words.at(4));
    auto asks = [&](const Sent& s) {
      return s.transport == mdns::Transport::kMulticast && w.contains(s.time) &&
             std::any_of(s.questions.begin(), s.questions.end(),
                         [&](const Record& q) { return q.type == type && mdns::names_equal(q.name, name); });
    };
    std::vector<Sent*> asking;
    for (Sent& s : sent_) {
      if (asks(s) && (asking.empty() || asking.back()->time != s.time)) {
        asking.push_back(&s);
      }
    }
    std::string times;
    for (const Sent* s : asking) {
      times += " " + std::to_string(s->time);
    }
    if (asking.size() != line.body.size()) {
      return "asked at" + times + "\n";
    }
    for (size_t i = 0; i < asking.size(); ++i) {
      const std::string& step = line.body[i].words.at(line.body[i].words[0] == "at" ? 1 : 0);
      const bool gap = step[0] == '+' && i > 0;
      const int32_t previous = i > 1 ? asking[i - 1]->time - asking[i - 2]->time : 0;
      const Window expected = step == "+double" ? Window{2 * previous, 2 * previous + 200}
                                                : parse_window(gap ? step.substr(1) : step);
      if (!expected.contains(gap ? asking[i]->time - asking[i - 1]->time : asking[i]->time)) {
        return "asked at" + times + "\n";
      }
    }
    // A query's packets: those that ask, and their known-answer continuations.
    for (Sent& s : sent_) {
      s.consumed |=
          asks(s) || (s.questions.empty() && s.transport == mdns::Transport::kMulticast &&
                      std::any_of(asking.begin(), asking.end(), [&](Sent* a) { return a->time == s.time; }));
    }
    return "";
  }

  std::string expect_noevent(const Line& line, const Window& w) {
    for (const Event& e : events_) {
      if (w.contains(e.time) && event_matches(e, line.words)) {
        return seen_in(w);
      }
    }
    return "";
  }

  const Scenario& s_;
  std::unique_ptr<mDNS> m_;
  mDNS_PlatformSupport p_{};
  std::vector<CacheEntity> cache_;
  mdns::InterfaceSnapshot snapshot_;
  uint32_t next_ifindex_ = 2;
  int32_t now_ = kEpoch;
  bool in_pass_ = false;
  std::map<std::string, std::unique_ptr<Slot>> slots_;
  std::vector<Sent> sent_;
  std::vector<Event> events_;
  std::vector<std::string> failures_;
};

// REPLAY_SCENARIOS names another folder, for trying out new scenarios.
std::string scenario_dir() {
  const char* dir = std::getenv("REPLAY_SCENARIOS");
  return dir != nullptr ? dir : SCENARIO_DIR;
}

std::vector<std::string> scenario_files() {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(scenario_dir())) {
    if (entry.path().extension() == ".scn") {
      files.push_back(entry.path().filename().string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

class ReplayTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ReplayTest, Scenario) {
  const Scenario scenario = read_scenario(scenario_dir() + "/" + GetParam());
  Replay replay(scenario);
  replay.run();
  for (const std::string& failure : replay.check()) {
    ADD_FAILURE() << failure;
  }
}

INSTANTIATE_TEST_SUITE_P(Replay, ReplayTest, ::testing::ValuesIn(scenario_files()),
                         [](const ::testing::TestParamInfo<std::string>& param) {
                           std::string name = param.param.substr(0, param.param.size() - 4);
                           std::replace_if(
                               name.begin(), name.end(), [](char c) { return !std::isalnum(c); }, '_');
                           return name;
                         });

}  // namespace
}  // namespace replay
