// Runs every scenario file in the scenarios folder as one test: the core in
// test mode on its fake clock, no sockets, every packet it sends captured.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

#include "dns_builder.h"
#include "engine/engine.h"
#include "platform/interfaces_posix.h"
#include "platform/test_platform.h"
#include "scenario.h"
#include "wire/identity.h"
#include "wire/message_reader.h"
#include "wire/names.h"

namespace replay {
namespace {

using sorvalen::test::Bytes;
using sorvalen::test::DnsMessage;
using sorvalen::test::record_data;
using sorvalen::test::type_code;
using Words = std::vector<std::string>;

constexpr int32_t kEpoch = 1000000;  // the fake clock at a scenario's time 0
// More passes than any scenario's core needs between two steps: beyond it the
// core asks for a pass every millisecond and time would no longer move.
constexpr int kMaxPassesPerStep = 1000000;

domainname name_of(const std::string& text) {
  const Bytes wire = sorvalen::test::wire_name(text);
  domainname out{};
  std::copy(wire.begin(), wire.begin() + static_cast<long>(std::min(wire.size(), sizeof out.c)), out.c);
  return out;
}

std::string text_of(const domainname& name) {
  char buf[MAX_ESCAPED_DOMAIN_NAME];
  ConvertDomainNameToCString_withescape(&name, buf, '\\');
  return buf;
}

std::string address_text(bool v4, const void* address) {
  char buf[INET6_ADDRSTRLEN] = "";
  inet_ntop(v4 ? AF_INET : AF_INET6, address, buf, sizeof buf);
  return buf;
}

std::string address_text(const mDNSAddr& a) {
  return address_text(a.type == mDNSAddrType_IPv4, &a.ip);
}

mDNSAddr address_of(const std::string& text) {
  return mdns::address_from_text(text.c_str());
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

// Data seen against the DATA fields of a line from `first` on.
bool same_data(uint16_t type, const Bytes& seen, const Words& f, size_t first) {
  const Bytes wanted = record_data(type, Words(f.begin() + static_cast<long>(first), f.end()));
  const bool names = type == kDNSType_PTR || type == kDNSType_CNAME || type == kDNSType_SRV;
  return seen.size() == wanted.size() &&
         std::equal(seen.begin(), seen.end(), wanted.begin(),
                    [&](int x, int y) { return names ? std::tolower(x) == std::tolower(y) : x == y; });
}

// The word after `key` ("iface eth1"), or `dflt`.
std::string option(const Words& w, const std::string& key, const std::string& dflt = "") {
  const auto it = std::find(w.begin(), w.end(), key);
  return it != w.end() && it + 1 != w.end() ? *(it + 1) : dflt;
}

bool flag(const Words& w, const std::string& key) {
  return std::find(w.begin(), w.end(), key) != w.end();
}

mdns::Transport transport_of(const Words& w) {
  return flag(w, "oneshot") ? mdns::Transport::kOneShot
         : flag(w, "dns")   ? mdns::Transport::kUnicastDns
         : flag(w, "tcp")   ? mdns::Transport::kUnicastTcp
                            : mdns::Transport::kMulticast;
}

struct Record {
  domainname name;
  uint16_t type;
  Bytes data;
  bool is(const domainname& n, uint16_t t) const { return type == t && mdns::names_equal(name, n); }
};

// A body line's "NAME TYPE [DATA...]", after its keyword.
bool has_record(const std::vector<Record>& records, const Words& f) {
  const domainname name = name_of(f.at(1));
  const uint16_t type = type_code(f.at(2));
  return std::any_of(records.begin(), records.end(), [&](const Record& r) {
    return r.is(name, type) && (f.size() == 3 || same_data(type, r.data, f, 3));
  });
}

struct Sent {
  int32_t time;
  mdns::SentMessage message;  // its data gone with the send: the rest is read from it
  std::string iface;
  std::string server;
  mdns::MessageHeader header{};
  std::vector<Record> questions{};
  std::vector<Record> known{};
  bool unicast_response = false;
  bool consumed = false;
  bool served = false;  // answered by the scenario's server ("serve")

  mdns::Transport transport() const { return message.transport; }
  bool truncated() const { return (header.flags & 0x0200) != 0; }

  std::string describe() const {
    static const char* const kTransports[] = {"", "oneshot ", "dns ", "tcp "};
    std::ostringstream out;
    out << "  send at " << time << " " << kTransports[static_cast<int>(transport())] << iface
        << (!iface.empty() && !server.empty() ? " to " : "") << server << " v" << message.family
        << (truncated() ? " tc" : "") << (unicast_response ? " qu" : "") << ":";
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

  std::string describe() const {
    return "event at " + std::to_string(time) + " " + id + " " + kind + " " + text;
  }

  // "ID [kind DATA...]", as an expectation gives them from its fourth word on.
  bool matches(const Words& f) const {
    return (f.size() < 4 || id == f[3]) &&
           (f.size() < 5 || (kind == f[4] && (kind == "resolved" ? f.size() == 7 && text == f[5] + " " + f[6]
                                                                 : same_data(type, data, f, 5))));
  }
};

struct Slot {
  std::string id;
  class Replay* replay;
  DNSQuestion question{};
  ServiceInfoQuery query{};
  ServiceInfo info{};
  bool resolve = false;
  bool resolves = false;  // "then-resolve": each instance it adds, as slot "ID/instance" ("#N" from the 2nd)
  std::string stops;      // the slot its first callback stops ("then-stop ID")
};

class Replay {
 public:
  explicit Replay(Scenario s) : s_(std::move(s)), m_(new mDNS()), cache_(s_.cache_entries) {
    for (const Words& w : s_.interfaces) {
      interfaces_.push_back({w, next_ifindex_++});
    }
    publish_interfaces();
    std::vector<mDNSAddr> servers;
    std::vector<uint16_t> ports;
    for (const Words& w : s_.nameservers) {
      servers.push_back(address_of(w[0]));
      ports.push_back(static_cast<uint16_t>(std::stoi(option(w, "port", "53"))));
    }
    mdns::platform_use_test_mode(&p_, &snapshot_);
    mdns::platform_set_send_hook(&p_, &Replay::capture, this);
    mdns::platform_test_set_name_servers(&p_, servers.data(), ports.data(), static_cast<int>(servers.size()));
    mdns::engine_set_fake_clock(m_.get(), kEpoch);
    if (mDNS_Init(m_.get(), &p_, cache_.data(), s_.cache_entries, mDNSfalse, nullptr, nullptr) !=
        mStatus_NoError) {
      throw std::runtime_error("mDNS_Init failed");
    }
    mdns::core_of(m_.get()).random_state = 0x2545f491;
  }

  ~Replay() {
    mDNS_StartExit(m_.get());
    mDNS_FinalExit(m_.get());
  }

  // The steps, then what the core did against what the scenario expects.
  std::vector<std::string> run() {
    const auto failed = [this](const Line& line, const std::exception& e) {
      failures_.push_back("line " + std::to_string(line.number) + ": " + e.what() + ": " + line.text);
    };
    for (const Line& line : s_.actions) {
      try {
        advance_to(parse_time(line.words[1]));
      } catch (const std::exception& e) {
        failed(line, e);
        return failures_;  // the rest would run on a clock the scenario did not mean
      }
      try {
        act(line);
      } catch (const std::exception& e) {
        failed(line, e);
      }
    }
    try {
      advance_to(s_.end + 1);
    } catch (const std::exception& e) {
      failures_.push_back(std::string("after the last step: ") + e.what());
      return failures_;
    }
    return check();
  }

 private:
  std::vector<std::string> check() {
    using Check = std::string (Replay::*)(const Line&, const Window&);
    static const std::map<std::string, Check> kChecks = {
        {"send", &Replay::expect_send},      {"nosend", &Replay::expect_nosend},
        {"event", &Replay::expect_event},    {"noevent", &Replay::expect_noevent},
        {"series", &Replay::expect_series},  {"count", &Replay::expect_count},
        {"at-most", &Replay::expect_at_most}};
    for (const Line& line : s_.expectations) {
      const auto it = kChecks.find(line.words[1]);
      const std::string why = it == kChecks.end() ? "unknown expectation"
                                                  : (this->*it->second)(line, parse_window(line.words[2]));
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
        failures_.push_back("unexpected: " + e.describe());
      }
    }
    return failures_;
  }

  int32_t now() const { return now_ - kEpoch; }

  // Down: gone from the host's list (its place taken by the last, as a list
  // of interfaces is kept); recreated: back at once under a new index.
  void change_interfaces(const Words& w) {
    const Words args(w.begin() + 4, w.end());
    const auto known = std::find_if(interfaces_.begin(), interfaces_.end(),
                                    [&](const auto& i) { return i.first[0] == args.at(0); });
    if (w[3] == "up" && known != interfaces_.end()) {
      known->first = args;
    } else if (w[3] == "up") {
      interfaces_.push_back({args, next_ifindex_++});
    } else if (w[3] == "down" && known != interfaces_.end()) {
      *known = interfaces_.back();
      interfaces_.pop_back();
    } else if (w[3] == "recreate" && known != interfaces_.end()) {
      known->second = next_ifindex_++;
    } else if (w[3] != "down" && w[3] != "recreate") {
      throw std::invalid_argument("iface up, down or recreate");
    }
    publish_interfaces();
    // As the core's own watch on the interfaces does, inside a pass.
    in_pass([&] { mDNSPlatformPosixRefreshInterfaceList(m_.get()); });
  }

  // The resolver file now lists these servers (port 53), then an interface
  // change makes the core read it again.
  void change_name_servers(const Words& addresses) {
    std::vector<mDNSAddr> servers;
    std::vector<uint16_t> ports(addresses.size(), 53);
    for (const std::string& a : addresses) {
      servers.push_back(address_of(a));
    }
    mdns::platform_test_set_name_servers(&p_, servers.data(), ports.data(), static_cast<int>(servers.size()));
    in_pass([&] { mDNSPlatformPosixRefreshInterfaceList(m_.get()); });
  }

  void publish_interfaces() {
    snapshot_.count = 0;
    for (const auto& [w, index] : interfaces_) {
      mdns::InterfaceRecord& entry = snapshot_.entries[snapshot_.count++];
      mdns::interface_reset(entry, w[0].c_str(), index);
      for (size_t i = 1; i < w.size(); ++i) {
        const size_t slash = w[i].find('/');
        mdns::interface_add_address(entry, address_of(w[i].substr(0, slash)),
                                    std::stoi(w[i].substr(slash + 1)));
      }
      entry.v4usable = mdns::interface_has_family(entry, mDNSAddrType_IPv4);
      entry.v6usable = mdns::interface_has_family(entry, mDNSAddrType_IPv6);
    }
  }

  mDNSInterfaceID iface_id(const std::string& name) const {
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

  // `work` as the core's event loop runs it: on a pass, then what is due.
  template <typename Work>
  void in_pass(Work work) {
    mdns::engine_set_fake_clock(m_.get(), now_);
    mdns::engine_begin_pass(m_.get());
    in_pass_ = true;
    work();
    mdns::engine_run_scheduled(m_.get());
    in_pass_ = false;
    answer_probes();
  }

  // "answer probes": each probe of the pass is answered by its device at once,
  // with its questions and nothing else, in a pass of its own.
  void answer_probes() {
    while (!probes_.empty()) {
      const Sent probe = sent_[probes_.front()];
      probes_.erase(probes_.begin());
      DnsMessage msg(probe.header.id, 0x8400);
      for (const Record& q : probe.questions) {
        msg.question(text_of(q.name), q.type);
      }
      const Bytes bytes = msg.bytes();
      mdns::Arrival arrival{};
      arrival.source = probe.message.destination;
      arrival.source_port.b[0] = static_cast<uint8_t>(mdns::kMdnsPort >> 8);
      arrival.source_port.b[1] = static_cast<uint8_t>(mdns::kMdnsPort & 0xFF);
      arrival.interface_id = probe.message.interface_id;
      arrival.transport = mdns::Transport::kOneShot;
      arrival.ttl = 255;
      in_pass([&] { mdns::engine_receive(m_.get(), bytes.data(), bytes.size(), arrival); });
    }
  }

  // Runs a pass at every moment before `t` when the core has work; the
  // actions at `t` then come before the pass at `t`.  A time the clock cannot
  // reach by those passes fails the step: setting the clock there would skip
  // work the core asked for, or turn time back.
  void advance_to(int32_t t) {
    if (now_ > kEpoch + t) {
      throw std::runtime_error("time " + std::to_string(t) + " is before the clock, at " +
                               std::to_string(now()));
    }
    for (int guard = 0; now_ < kEpoch + t; ++guard) {
      if (guard == kMaxPassesPerStep) {
        throw std::runtime_error("the core still had work at " + std::to_string(now()) + " after " +
                                 std::to_string(guard) + " passes on the way to " + std::to_string(t));
      }
      in_pass([] {});
      const bool answering = answer_served_queries();
      now_ += answering ? 1 : std::max(mdns::engine_time_to_next_event(m_.get(), now_), 1);
    }
    now_ = kEpoch + t;
    mdns::engine_set_fake_clock(m_.get(), now_);
  }

  Slot& slot(const std::string& id) {
    Slot& s = slots_[id];  // a map's entries stay where they are: the core holds them
    s.id = id;
    s.replay = this;
    return s;
  }

  void act(const Line& line) {
    const Words& w = line.words;
    const std::string& verb = w[2];
    if (verb == "browse" || verb == "query" || verb == "resolve") {
      Slot& s = slot(w[3]);
      s.stops = option(w, "then-stop");
      s.resolves = flag(w, "then-resolve");
      const mStatus status = start(s, w);
      if ((status != mStatus_NoError) != flag(w, "refused")) {
        throw std::runtime_error(status != mStatus_NoError ? "refused: " + std::to_string(status)
                                                           : "not refused");
      }
    } else if (verb == "stop") {
      stop(slot(w[3]));
    } else if (verb == "recv" || verb == "recv-dns") {
      for (int n = 1; n <= std::stoi(option(w, "repeat", "1")); ++n) {
        receive(line, n);
      }
    } else if (verb == "iface") {
      change_interfaces(w);
    } else if (verb == "nameservers") {
      change_name_servers(Words(w.begin() + 3, w.end()));
    } else if (verb == "serve") {
      serve(line);
    } else {
      throw std::invalid_argument("unknown action");
    }
  }

  mStatus start(Slot& s, const Words& w) {
    if (w[2] == "resolve") {
      return start_resolve(s, name_of(w[4]), iface_id(option(w, "iface")));
    }
    if (w[2] == "query") {
      s.question.qname = name_of(w[4]);
      s.question.qtype = type_code(w[5]);
      s.question.qclass = kDNSClass_IN;
      s.question.InterfaceID = iface_id(option(w, "iface"));
      s.question.QuestionCallback = on_answer;
      s.question.QuestionContext = &s;
      return mDNS_StartQuery(m_.get(), &s.question);
    }
    // As an application makes them from its texts ("-": an empty text).
    const bool has_domain = w.size() > 5 && (w[5].back() == '.' || w[5] == "-");
    domainname type{};
    domainname domain{};
    MakeDomainNameFromDNSNameString(&type, w[4] == "-" ? "" : w[4].c_str());
    MakeDomainNameFromDNSNameString(&domain, !has_domain ? "local." : w[5] == "-" ? "" : w[5].c_str());
    return mDNS_StartBrowse(m_.get(), &s.question, &type, &domain, iface_id(option(w, "iface")), mDNSfalse,
                            on_answer, &s);
  }

  mStatus start_resolve(Slot& s, const domainname& instance, mDNSInterfaceID interface_id) {
    s.resolve = true;
    s.info.name = instance;
    s.info.InterfaceID = interface_id;
    return mDNS_StartResolveService(m_.get(), &s.query, &s.info, on_resolved, &s);
  }

  // The latest one-shot, or unicast query ("for NAME TYPE": the latest asking
  // that); a one-shot sent to one host (a probe) only that host answers.
  const Sent* last_asked(bool unicast, const Words& w, const std::string& from = "") const {
    const auto at = std::find(w.begin(), w.end(), "for");
    const auto it = std::find_if(sent_.rbegin(), sent_.rend(), [&](const Sent& s) {
      return (unicast
                  ? s.transport() >= mdns::Transport::kUnicastDns
                  : s.transport() == mdns::Transport::kOneShot && (s.server.empty() || s.server == from)) &&
             (at == w.end() || (!s.questions.empty() && s.questions[0].is(name_of(at[1]), type_code(at[2]))));
    });
    return it != sent_.rend() ? &*it : nullptr;
  }

  // The `n`th of "repeat N" packets: {n} in its records counts from 1.
  Bytes message_of(const Line& line, const Sent* asked, int n) const {
    const Words& w = line.words;
    if (flag(w, "raw")) {
      Words digits(std::find(w.begin(), w.end(), "raw"), w.end());
      digits[0] = "hex";  // how record_data takes any bytes
      return record_data(0, digits);
    }
    // echo: the ID and questions of what was asked; echo-id: its ID only.
    const bool echo = asked != nullptr && flag(w, "echo");
    const uint16_t id = flag(w, "id") ? static_cast<uint16_t>(std::stoul(option(w, "id", "0")))
                        : echo || (asked != nullptr && flag(w, "echo-id")) ? asked->header.id
                                                                           : 0;
    DnsMessage msg(id, static_cast<uint16_t>(std::stoul(option(w, "flags", "8400"), nullptr, 16)));
    for (size_t i = 0; echo && i < asked->questions.size(); ++i) {
      msg.question(text_of(asked->questions[i].name), asked->questions[i].type);
    }
    for (const Line& r : line.body) {
      Words f = r.words;
      int copies = 1;
      if (f.size() > 2 && f[f.size() - 2] == "each") {
        copies = std::stoi(f.back());
        f.resize(f.size() - 2);
      }
      for (int i = 1; i <= copies; ++i) {
        add_line(msg, numbered(numbered(f, "{n}", n), i));
      }
    }
    return msg.bytes();
  }

  static Words numbered(Words f, const std::string& mark, int value) {
    for (std::string& word : f) {
      const size_t at = word.find(mark);
      word = at == std::string::npos ? word : word.replace(at, mark.size(), std::to_string(value));
    }
    return f;
  }

  // The `i`th of "each N" records: {i} counts from 1, {i/K} by K at a time
  // (ten instances on one host: host{i/10}).
  static Words numbered(Words f, int i) {
    for (std::string& word : f) {
      for (size_t at; (at = word.find("{i")) != std::string::npos;) {
        const size_t end = word.find('}', at);
        const size_t slash = word.find('/', at);
        const int by = slash < end ? std::stoi(word.substr(slash + 1, end - slash - 1)) : 1;
        word.replace(at, end - at + 1, std::to_string(i / by));
      }
    }
    return f;
  }

  void add_line(DnsMessage& msg, const Words& f) const {
    if (f[0] == "qd") {
      msg.question(f.at(1), type_code(f.at(2)));
      return;
    }
    if (f[0] == "pad") {  // an answer of empty TXT strings that nobody asked for
      msg.add(DnsMessage::kAnswer, {"pad.invalid.", kDNSType_TXT, 0, Bytes(std::stoul(f.at(1)), 0), false});
      return;
    }
    const auto section = f[0] == "an"   ? DnsMessage::kAnswer
                         : f[0] == "ns" ? DnsMessage::kAuthority
                                        : DnsMessage::kAdditional;
    const bool flush = f.size() > 4 && f[4] == "flush";
    const uint16_t type = type_code(f.at(2));
    const Bytes data = record_data(type, Words(f.begin() + (flush ? 5 : 4), f.end()));
    msg.add(section, {f[1], type, static_cast<uint32_t>(std::stoul(f.at(3))), data, flush});
  }

  void receive(const Line& line, int n) {
    if (line.words[2] == "recv-dns") {
      receive_dns(line, n);
      return;
    }
    const Words& w = line.words;
    in_pass([&] {
      const std::string from = numbered(w, "{n}", n).at(3);
      const Bytes bytes = message_of(line, last_asked(false, w, option(w, "as", from)), n);
      mdns::Arrival arrival{};
      arrival.source = address_of(from);
      const int port = std::stoi(option(w, "port", "5353"));
      arrival.source_port.b[0] = static_cast<uint8_t>(port >> 8);
      arrival.source_port.b[1] = static_cast<uint8_t>(port);
      arrival.interface_id = iface_id(option(w, "iface", interfaces_.at(0).first[0]));
      arrival.transport = flag(w, "oneshot") ? mdns::Transport::kOneShot : mdns::Transport::kMulticast;
      arrival.ttl = static_cast<uint8_t>(std::stoi(option(w, "ttl", "255")));
      mdns::engine_receive(m_.get(), bytes.data(), bytes.size(), arrival);
    });
  }

  // On the socket of the query answered, read as the event loop reads it.
  void receive_dns(const Line& line, int n) {
    const Words& w = line.words;
    const Sent* asked = last_asked(true, w);
    if (asked == nullptr) {
      throw std::runtime_error("no unicast query to answer");
    }
    const Bytes bytes = message_of(line, asked, n);
    const uint16_t port = static_cast<uint16_t>(std::stoi(option(w, "port", "53")));
    if (!mdns::platform_test_deliver_dns(m_.get(), asked->message.socket,
                                         address_of(option(w, "from", asked->server)), port, bytes.data(),
                                         bytes.size())) {
      throw std::runtime_error("the query's socket is closed");
    }
    mdns::engine_set_fake_clock(m_.get(), now_);
    in_pass_ = true;
    mDNSPosixProcessFDSet(m_.get(), nullptr);
    in_pass_ = false;
  }

  // From now on the name server answers every unicast query 1 ms after it
  // was sent, from the zone under the step: over UDP an answer over 512 bytes
  // only says TC, over TCP it holds everything (as an authoritative server).
  void serve(const Line& line) {
    zone_.clear();
    serving_since_ = now();
    for (const Line& r : line.body) {
      Words f = r.words;
      int copies = 1;
      if (f.size() > 2 && f[f.size() - 2] == "each") {
        copies = std::stoi(f.back());
        f.resize(f.size() - 2);
      }
      f.insert(f.begin(), "an");
      for (int i = 1; i <= copies; ++i) {
        const Words record = numbered(f, i);
        zone_[{lowercase(record[1]), type_code(record[2])}].push_back(record);
      }
    }
    serving_ = true;
  }

  static std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
  }

  // Answers the queries due; true while some wait for their millisecond.
  bool answer_served_queries() {
    bool waiting = false;
    for (size_t i = 0; serving_ && i < sent_.size(); ++i) {
      Sent& sent = sent_[i];
      if (sent.served || sent.transport() < mdns::Transport::kUnicastDns || sent.time < serving_since_ ||
          sent.questions.size() != 1) {
        continue;
      }
      if (sent.time >= now()) {
        waiting = true;
        continue;
      }
      sent.served = true;
      answer_from_zone(sent);
    }
    return waiting;
  }

  void answer_from_zone(const Sent& sent) {
    const Record& q = sent.questions[0];
    DnsMessage msg(sent.header.id, 0x8400);
    msg.question(text_of(q.name), q.type);
    const auto it = zone_.find({lowercase(text_of(q.name)), q.type});
    if (it != zone_.end()) {
      for (const Words& record : it->second) {
        add_line(msg, record);
      }
    }
    Bytes bytes = msg.bytes();
    if (sent.transport() == mdns::Transport::kUnicastDns && bytes.size() > 512) {
      DnsMessage cut(sent.header.id, 0x8600);
      cut.question(text_of(q.name), q.type);
      bytes = cut.bytes();
    }
    mdns::platform_test_deliver_dns(m_.get(), sent.message.socket, address_of(sent.server), 53, bytes.data(),
                                    bytes.size());
    in_pass_ = true;
    mDNSPosixProcessFDSet(m_.get(), nullptr);
    in_pass_ = false;
  }

  static void capture(void* context, const mdns::SentMessage& message) {
    auto* self = static_cast<Replay*>(context);
    Sent sent{self->now(), message, self->iface_name(message.interface_id),
              message.destination.type != mDNSAddrType_None ? address_text(message.destination) : ""};
    const size_t prefix = message.transport == mdns::Transport::kUnicastTcp && message.length >= 2 ? 2 : 0;
    mdns::MessageParser parser(message.data + prefix, message.length - prefix);  // TCP: after its length
    parser.read_header(sent.header);
    mdns::ParsedQuestion q;
    for (int i = 0; i < sent.header.qdcount && parser.next_question(q) == mdns::MessageParser::Result::kOk;
         ++i) {
      sent.questions.push_back({q.name, q.qtype, {}});
      sent.unicast_response |= q.unicast_response;
    }
    mdns::ParsedRecord r;
    while (parser.next_record(r) == mdns::MessageParser::Result::kOk) {
      sent.known.push_back({r.name, r.rrtype, wire_data(r.rrtype, r.rdata)});
    }
    const bool probe =
        message.transport == mdns::Transport::kOneShot && message.destination.type != mDNSAddrType_None;
    if (probe && self->s_.answer_probes) {
      sent.consumed = true;
      self->probes_.push_back(self->sent_.size());
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
    const uint16_t type = answer->rrtype;
    const Bytes data = wire_data(type, *answer->rdata);
    const bool address = type == kDNSType_A || type == kDNSType_AAAA;
    const std::string text = address                ? address_text(type == kDNSType_A, data.data())
                             : type == kDNSType_PTR ? text_of(answer->rdata->u.name)
                                                    : "";
    s->replay->log_event(*s, kind == QC_add ? "add" : "remove", type, data, text);
    if (kind == QC_add && s->resolves) {  // as the device search does: new storage for each add
      const std::string id = s->id + "/" + text_of(answer->rdata->u.name);
      const int seen = ++s->replay->adds_[id];
      Slot& r = s->replay->slot(seen == 1 ? id : id + "#" + std::to_string(seen));
      s->replay->start_resolve(r, answer->rdata->u.name, answer->InterfaceID);
    }
  }

  static void on_resolved(mDNS* const, ServiceInfoQuery* query) {
    auto* s = static_cast<Slot*>(query->ServiceInfoQueryContext);
    const int port = query->info->port.b[0] << 8 | query->info->port.b[1];
    s->replay->log_event(*s, "resolved", 0, {}, address_text(query->info->ip) + " " + std::to_string(port));
  }

  bool send_matches(const Sent& sent, const Line& line, const Window& w) const {
    const Words& words = line.words;
    const int family = flag(words, "v6") ? 6 : flag(words, "v4") ? 4 : 0;
    if (sent.consumed || !w.contains(sent.time) || sent.transport() != transport_of(words) ||
        (flag(words, "iface") && sent.iface != option(words, "iface")) ||
        (flag(words, "to") && sent.server != option(words, "to")) ||
        (family != 0 && sent.message.family != family) || flag(words, "tc") != sent.truncated() ||
        flag(words, "qu") != sent.unicast_response) {
      return false;
    }
    size_t questions = 0;
    for (const Line& b : line.body) {
      questions += b.words[0] == "q" ? 1 : 0;
      if (has_record(b.words[0] == "q" ? sent.questions : sent.known, b.words) != (b.words[0] != "noknown")) {
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
      out += w.contains(e.time) ? "  " + e.describe() + "\n" : "";
    }
    return "seen in the window:\n" + (out.empty() ? "  nothing\n" : out);
  }

  // How many of what the window holds `match` takes; `mark`: they were expected.
  template <typename T, typename Match>
  static int count(std::vector<T>& seen, const Window& w, Match match, bool mark) {
    int n = 0;
    for (T& x : seen) {
      if (w.contains(x.time) && match(x)) {
        x.consumed |= mark;
        ++n;
      }
    }
    return n;
  }

  // The first match, and with it the same query on the other interfaces and families.
  std::string expect_send(const Line& line, const Window& w) {
    const bool narrowed = flag(line.words, "v4") || flag(line.words, "v6") || flag(line.words, "iface");
    const auto first =
        std::find_if(sent_.begin(), sent_.end(), [&](const Sent& s) { return send_matches(s, line, w); });
    if (first == sent_.end()) {
      return seen_in(w);
    }
    const Window at{first->time, first->time};
    for (Sent& s : sent_) {
      s.consumed |= (&s == &*first || !narrowed) && send_matches(s, line, at);
    }
    return "";
  }

  std::string expect_event(const Line& line, const Window& w) {
    const auto first = std::find_if(events_.begin(), events_.end(), [&](const Event& e) {
      return !e.consumed && w.contains(e.time) && e.matches(line.words);
    });
    if (first == events_.end()) {
      return seen_in(w);
    }
    first->consumed = true;
    return "";
  }

  std::string expect_nosend(const Line& line, const Window& w) {
    const bool any = line.words.size() == 3;
    const auto of_kind = [&](const Sent& s) { return any || s.transport() == transport_of(line.words); };
    return count(sent_, w, of_kind, false) == 0 ? "" : seen_in(w);
  }

  std::string expect_noevent(const Line& line, const Window& w) {
    const auto matches = [&](const Event& e) { return e.matches(line.words); };
    return count(events_, w, matches, false) == 0 ? "" : seen_in(w);
  }

  // Slots named ID or starting with it: a browse's resolves are "ID/instance".
  std::string expect_count(const Line& line, const Window& w) {
    const Words& f = line.words;
    const auto of_kind = [&](const Event& e) { return e.id.rfind(f.at(3), 0) == 0 && e.kind == f.at(4); };
    const int n = count(events_, w, of_kind, true);
    return n == std::stoi(f.at(5)) ? "" : "counted " + std::to_string(n) + "\n";
  }

  // "per P": in every P milliseconds of the window, not just in all of it.
  std::string expect_at_most(const Line& line, const Window& w) {
    const auto of_kind = [&](const Sent& s) { return s.transport() == transport_of(line.words); };
    const int most = std::stoi(line.words.at(3));
    const int32_t per = std::stoi(option(line.words, "per", "0"));
    for (const Sent& s : sent_) {
      const Window span{s.time, s.time + per - 1};
      int n = 0;
      for (const Sent& t : sent_) {
        n += per > 0 && w.contains(s.time) && w.contains(t.time) && span.contains(t.time) && of_kind(t) ? 1
                                                                                                        : 0;
      }
      if (n > most) {
        return "sent " + std::to_string(n) + " from " + std::to_string(s.time) + "\n";
      }
    }
    const int n = count(sent_, w, of_kind, true);
    return per > 0 || n <= most ? "" : "sent " + std::to_string(n) + "\n";
  }

  std::string expect_series(const Line& line, const Window& w) {
    const domainname name = name_of(line.words.at(3));
    const uint16_t type = type_code(line.words.at(4));
    const auto asks = [&](const Sent& s) {
      return s.transport() == mdns::Transport::kMulticast &&
             std::any_of(s.questions.begin(), s.questions.end(),
                         [&](const Record& q) { return q.is(name, type); });
    };
    std::vector<int32_t> times;  // one a query, however many packets it took
    std::string asked = "asked at";
    for (const Sent& s : sent_) {
      if (w.contains(s.time) && asks(s) && (times.empty() || times.back() != s.time)) {
        times.push_back(s.time);
        asked += " " + std::to_string(s.time);
      }
    }
    bool as_expected = times.size() == line.body.size();
    for (size_t i = 0; as_expected && i < times.size(); ++i) {  // see scenario.h for the steps
      const std::string& step = line.body[i].words.at(line.body[i].words[0] == "at" ? 1 : 0);
      const bool gap = step[0] == '+' && i > 0;
      const int32_t previous = i > 1 ? times[i - 1] - times[i - 2] : 0;
      const Window expected = step == "+double" ? Window{2 * previous, 2 * previous + 200}
                                                : parse_window(gap ? step.substr(1) : step);
      as_expected = expected.contains(gap ? times[i] - times[i - 1] : times[i]);
    }
    if (!as_expected) {
      return asked + "\n";
    }
    // A query's packets: those that ask, and their known-answer continuations.
    count(
        sent_, w,
        [&](const Sent& s) {
          return asks(s) || (s.questions.empty() && s.transport() == mdns::Transport::kMulticast &&
                             std::count(times.begin(), times.end(), s.time) > 0);
        },
        true);
    return "";
  }

  const Scenario s_;
  std::unique_ptr<mDNS> m_;
  mDNS_PlatformSupport p_{};
  std::vector<CacheEntity> cache_;
  std::vector<std::pair<Words, uint32_t>> interfaces_;  // with the index of each
  mdns::InterfaceSnapshot snapshot_;                    // what the core reads of them
  uint32_t next_ifindex_ = 2;
  int32_t now_ = kEpoch;
  bool in_pass_ = false;
  std::map<std::string, Slot> slots_;
  std::map<std::string, int> adds_;                                      // add events per browse and instance
  std::map<std::pair<std::string, uint16_t>, std::vector<Words>> zone_;  // "serve": by name and type
  bool serving_ = false;
  int32_t serving_since_ = 0;
  std::vector<Sent> sent_;
  std::vector<size_t> probes_;  // to answer ("answer probes")
  std::vector<Event> events_;
  std::vector<std::string> failures_;
};

// REPLAY_SCENARIOS names another folder, for trying out new scenarios.
std::string scenario_dir() {
  const char* dir = std::getenv("REPLAY_SCENARIOS");
  return dir != nullptr ? dir : SCENARIO_DIR;
}

std::vector<std::string> scenario_names() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(scenario_dir())) {
    if (entry.path().extension() == ".scn") {
      names.push_back(entry.path().stem().string());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

class ReplayTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ReplayTest, Scenario) {
  for (const std::string& failure : Replay(read_scenario(scenario_dir() + "/" + GetParam() + ".scn")).run()) {
    ADD_FAILURE() << failure;
  }
}

INSTANTIATE_TEST_SUITE_P(Replay, ReplayTest, ::testing::ValuesIn(scenario_names()), [](const auto& param) {
  std::string name = param.param;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return !std::isalnum(c); }, '_');
  return name;
});

}  // namespace
}  // namespace replay
