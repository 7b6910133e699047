#include "ask/unicast_dns.h"

#include <cstring>

#include "ask/question_lists.h"
#include "ask/send_governor.h"
#include "cache/cache.h"
#include "engine/questions.h"
#include "engine/receive.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "wire/identity.h"
#include "wire/message_reader.h"
#include "wire/message_writer.h"
#include "wire/names.h"

namespace mdns {
namespace {

// Retransmission: the first wait, doubled after each, and the number of sends
// (rotating over the servers) before the question rests and tries later.
constexpr int32_t kFirstTimeoutMs = 1000;
constexpr int kMaxAttempts = 4;
constexpr int32_t kTcpTimeoutMs = 5000;
constexpr int32_t kRetryAfterFailureMs = 30 * 1000;
// Answered questions ask again at 80 % of the shortest TTL, within these bounds.
constexpr int32_t kMinPollMs = 1000;
constexpr int32_t kEmptyAnswerPollMs = 60 * 1000;
// While a TCP connect is under way (the caller's loop only watches reads).
constexpr int32_t kConnectCheckMs = 5;

struct ScheduleAccess {
  static HeapLinks<DNSQuestion>& links(DNSQuestion* q) { return state_of(q).schedule; }
};

UnicastQuery* slot_of(CoreState& core, const DNSQuestion* leader) {
  const uint16_t slot = state_of(leader).unicast_slot;
  return slot == 0 ? nullptr : &core.unicast[slot - 1];
}

UnicastQuery* free_slot(CoreState& core) {
  for (UnicastQuery& u : core.unicast) {
    if (u.stage == UnicastStage::kFree) {
      return &u;
    }
  }
  return nullptr;
}

bool tcp_busy(const CoreState& core) {
  for (const UnicastQuery& u : core.unicast) {
    if (u.stage == UnicastStage::kTcpConnecting || u.stage == UnicastStage::kTcpWriting ||
        u.stage == UnicastStage::kTcpReading) {
      return true;
    }
  }
  return false;
}

void close_socket(mDNS* m, UnicastQuery& u) {
  if (u.fd >= 0) {
    platform_close_dns(m, u.fd);
  }
  u.fd = -1;
}

// The group asks again at `when` (a poll, or a retry after failure).
void plan_ask(mDNS* m, DNSQuestion* leader, int32_t when) {
  PairingHeap<DNSQuestion, ScheduleAccess>(core_of(m).schedule_root).insert(leader, when);
  state_of(leader).next_query_time = when;
}

void release(mDNS* m, UnicastQuery& u) {
  close_socket(m, u);
  if (u.question != nullptr) {
    state_of(u.question).unicast_slot = 0;
  }
  u = UnicastQuery{};
  u.fd = -1;
}

// A failed exchange: the question rests and asks again later.
void give_up(mDNS* m, UnicastQuery& u) {
  DNSQuestion* leader = u.question;
  release(m, u);
  if (leader != nullptr) {
    state_of(leader).phase = Phase::kPolling;
    plan_ask(m, leader, time_add(core_of(m).now, kRetryAfterFailureMs));
  }
}

size_t write_query(const UnicastQuery& u, uint8_t* buffer, size_t capacity) {
  const DNSQuestion& q = *u.question;
  QueryWriter writer(buffer, capacity, u.id, kFlagRecursionDesired);
  return writer.add_question(q.qname, q.qtype, q.qclass) ? writer.finish() : 0;
}

// One UDP send to the server whose turn it is, from a fresh port and ID.
void send_udp(mDNS* m, UnicastQuery& u) {
  CoreState& core = core_of(m);
  close_socket(m, u);
  // The resolver file may have lost its servers since the last send.
  if (core.server_count == 0) {
    give_up(m, u);
    return;
  }
  u.server = core.servers[u.attempts % core.server_count];
  u.id = platform_random_id();
  u.fd = platform_open_dns_udp(m, u.server);
  u.stage = UnicastStage::kUdp;
  u.deadline = time_add(core.now, static_cast<int64_t>(kFirstTimeoutMs) << u.attempts);
  u.attempts++;
  uint8_t message[kMaxQueryPayload];
  const size_t length = write_query(u, message, sizeof message);
  if (u.fd < 0 || length == 0 || platform_dns_send(m, u.fd, message, length) < 0) {
    return;  // the deadline moves on to the next server
  }
  core.counters.unicast_queries_sent++;
  governor_note_query(state_of(u.question), core.now);
}

// Truncated over UDP: the same question over TCP to the same server.
void start_tcp(mDNS* m, UnicastQuery& u) {
  CoreState& core = core_of(m);
  close_socket(m, u);
  u.fd = platform_open_dns_tcp(m, u.server);
  u.stage = UnicastStage::kTcpConnecting;
  u.tcp_done = 0;
  u.deadline = time_add(core.now, kTcpTimeoutMs);
  if (u.fd < 0) {
    give_up(m, u);
  }
}

bool same_server(const UnicastQuery& u, const mDNSAddr& source, uint16_t port) {
  const NameServer& s = u.server;
  const size_t size = s.address.type == mDNSAddrType_IPv4 ? 4 : 16;
  return port == s.port && source.type == s.address.type && std::memcmp(&source.ip, &s.address.ip, size) == 0;
}

// The question section must be the one question that was asked.
bool repeats_question(MessageParser& parser, const MessageHeader& header, const DNSQuestion& q) {
  ParsedQuestion asked;
  return header.qdcount == 1 && parser.next_question(asked) == MessageParser::Result::kOk &&
         asked.qtype == q.qtype && asked.qclass == q.qclass && names_equal(asked.name, q.qname);
}

// Answers: the question's name and type.  Other records: only names under the
// question's name, for which the server asked speaks.
bool in_bailiwick(const ParsedRecord& rec, const DNSQuestion& q) {
  if (rec.section == Section::kAnswer) {
    return rec.rrtype == q.qtype && rec.rrclass == q.qclass && names_equal(rec.name, q.qname);
  }
  return rec.section == Section::kAdditional && rec.rrclass == kDNSClass_IN &&
         name_is_under(rec.name, q.qname);
}

// Records of the question's set that this answer no longer holds have gone:
// they leave, with their events, once the answer is stored.
void expire_missing(mDNS* m, const DNSQuestion& q) {
  CoreState& core = core_of(m);
  const uint32_t hash = name_hash(q.qname);
  for (CacheRecord* rr = cache_first(core, hash); rr != nullptr; rr = cache_next(core, rr)) {
    if (rr->source == Source::kUnicastDns && rr->packet_seq != core.packet_seq && !rr->expiring &&
        rr->resrec.rrtype == q.qtype && names_equal(*rr->resrec.name, q.qname)) {
      cache_expire_now(core, rr, core.now);
    }
  }
}

int32_t poll_interval(uint32_t shortest_ttl) {
  if (shortest_ttl == 0) {
    return kEmptyAnswerPollMs;
  }
  const int64_t ms = static_cast<int64_t>(shortest_ttl) * 800;
  return ms < kMinPollMs            ? kMinPollMs
         : ms > kMaxQueryIntervalMs ? kMaxQueryIntervalMs
                                    : static_cast<int32_t>(ms);
}

// An answer from the server asked, with the ID and question sent.
void accept_answer(mDNS* m, UnicastQuery& u, MessageParser& parser) {
  CoreState& core = core_of(m);
  DNSQuestion* leader = u.question;
  core.counters.packets_accepted++;
  core.packet_seq++;
  RecordOrigin origin{mDNSInterface_Any, Source::kUnicastDns, sender_slot(core, u.server.address)};
  uint32_t shortest = 0;
  ParsedRecord rec;
  for (MessageParser::Result r; (r = parser.next_record(rec)) != MessageParser::Result::kEnd;) {
    if (r == MessageParser::Result::kMalformed) {
      break;
    }
    if (r == MessageParser::Result::kOk && rec.ttl > 0 && in_bailiwick(rec, *leader)) {
      shortest = shortest == 0 || rec.ttl < shortest ? rec.ttl : shortest;
      store_record(m, rec, origin);
    }
  }
  sender_release_if_unused(core, origin.sender);
  // An empty answer and a name error (NXDOMAIN) both mean: nothing, or nothing
  // left.  The query's own bookkeeping is done before any callback runs, so
  // that what a callback stops stays stopped.
  release(m, u);
  state_of(leader).phase = Phase::kPolling;
  plan_ask(m, leader, time_add(core.now, poll_interval(shortest)));
  expire_missing(m, *leader);
  finish_packet(m);
}

// `cut`: a datagram longer than the buffer, whose missing records must not
// count as gone: it is taken as the server's own truncated answer.
void handle_message(mDNS* m, UnicastQuery& u, const uint8_t* message, size_t length, bool cut) {
  CoreState& core = core_of(m);
  MessageParser parser(message, length);
  MessageHeader header;
  if (!parser.read_header(header) || (header.flags & kFlagResponse) == 0 ||
      ((header.flags >> 11) & 0xF) != 0 || header.id != u.id ||
      !repeats_question(parser, header, *u.question)) {
    core.counters.packets_dropped++;
    return;
  }
  const unsigned code = header.flags & 0xF;
  if (code != 0 && code != kRcodeNameError) {
    // The server cannot answer (SERVFAIL, REFUSED...): the next one is asked
    // at once; asking the same one again would only repeat it.
    if (core.server_count > 1 && u.attempts < kMaxAttempts) {
      u.deadline = core.now;
    } else {
      give_up(m, u);
    }
    return;
  }
  if ((cut || (header.flags & kFlagTruncated) != 0) && u.stage == UnicastStage::kUdp) {
    if (!tcp_busy(core)) {
      start_tcp(m, u);
    } else {
      u.deadline = time_add(core.now, kConnectCheckMs * 20);  // asks again when TCP is free
    }
    return;
  }
  accept_answer(m, u, parser);
}

// ---- TCP, step by step: the caller's loop only tells when a socket reads ----

void tcp_write(mDNS* m, UnicastQuery& u) {
  CoreState& core = core_of(m);
  const size_t length = write_query(u, core.tcp_buffer + 2, kMaxQueryPayload);
  core.tcp_buffer[0] = static_cast<uint8_t>(length >> 8);
  core.tcp_buffer[1] = static_cast<uint8_t>(length);
  const long sent = platform_dns_send(m, u.fd, core.tcp_buffer + u.tcp_done, length + 2 - u.tcp_done);
  if (length == 0 || sent < 0) {
    give_up(m, u);
    return;
  }
  u.tcp_done += static_cast<uint32_t>(sent);
  if (u.tcp_done == length + 2) {
    u.stage = UnicastStage::kTcpReading;
    u.tcp_done = 0;
    core.counters.unicast_queries_sent++;
  }
}

size_t tcp_message_length(const CoreState& core) {
  return static_cast<size_t>(core.tcp_buffer[0]) << 8 | core.tcp_buffer[1];
}

// The length prefix, then the message, as far as the stream has them.
void tcp_read(mDNS* m, UnicastQuery& u) {
  CoreState& core = core_of(m);
  for (;;) {
    const size_t want = u.tcp_done < 2 ? 2 : 2 + tcp_message_length(core);
    const long got = platform_dns_receive(m, u.fd, core.tcp_buffer + u.tcp_done, want - u.tcp_done).length;
    if (got < 0) {
      give_up(m, u);
      return;
    }
    if (got == 0) {
      return;
    }
    u.tcp_done += static_cast<uint32_t>(got);
    if (u.tcp_done >= 2 && u.tcp_done == 2 + tcp_message_length(core)) {
      handle_message(m, u, core.tcp_buffer + 2, u.tcp_done - 2, false);
      if (u.stage == UnicastStage::kTcpReading) {
        give_up(m, u);  // not an acceptable answer: TCP gets one chance
      }
      return;
    }
  }
}

// The socket is connected, so the kernel lets only the server's datagrams
// through; the source is checked all the same.
void read_udp(mDNS* m, UnicastQuery& u) {
  CoreState& core = core_of(m);
  const DnsReceived got = platform_dns_receive(m, u.fd, core.rxbuf, sizeof core.rxbuf);
  if (got.length <= 0) {
    return;
  }
  core.counters.packets_received++;
  if (!same_server(u, got.source, got.port)) {
    core.counters.packets_dropped++;
    return;
  }
  handle_message(m, u, core.rxbuf, static_cast<size_t>(got.length), got.truncated);
}

void step(mDNS* m, UnicastQuery& u) {
  CoreState& core = core_of(m);
  if (u.stage == UnicastStage::kTcpConnecting) {
    const int state = platform_dns_connected(m, u.fd);
    if (state < 0) {
      give_up(m, u);
      return;
    }
    if (state > 0) {
      u.stage = UnicastStage::kTcpWriting;
    }
  }
  if (u.stage == UnicastStage::kTcpWriting) {
    tcp_write(m, u);
  }
  if (u.stage != UnicastStage::kFree && time_reached(u.deadline, core.now)) {
    if (u.stage == UnicastStage::kUdp && u.attempts < kMaxAttempts) {
      send_udp(m, u);
    } else {
      give_up(m, u);
    }
  }
}

}  // namespace

void unicast_reset(mDNS* m) {
  CoreState& core = core_of(m);
  const int n = platform_read_name_servers(m, core.servers, kMaxNameServers);
  core.server_count = static_cast<uint8_t>(n < 0 ? 0 : n);
  for (UnicastQuery& u : core.unicast) {
    if (u.stage == UnicastStage::kFree) {
      u.fd = -1;
    }
  }
}

void unicast_close_all(mDNS* m) {
  for (UnicastQuery& u : core_of(m).unicast) {
    if (u.stage != UnicastStage::kFree) {
      release(m, u);
    }
  }
  while (list_pop(core_of(m), ListId::kUnicastWaiting) != nullptr) {
  }
}

void unicast_question_ready(mDNS* m, DNSQuestion* leader, bool answered) {
  if (answered) {
    // Its answers' refresh points will ask again.
    state_of(leader).phase = Phase::kPolling;
    return;
  }
  unicast_ask_now(m, leader);
}

void unicast_ask_now(mDNS* m, DNSQuestion* leader) {
  CoreState& core = core_of(m);
  QuestionState& s = state_of(leader);
  if (s.unicast_slot != 0 || s.phase == Phase::kWaitingForCache || s.phase == Phase::kFollowing) {
    return;
  }
  s.phase = Phase::kAwaitingReply;
  if (core.server_count == 0) {
    plan_ask(m, leader, time_add(core.now, kRetryAfterFailureMs));  // nobody to ask yet
    return;
  }
  if (!governor_may_query(s, core.now)) {
    plan_ask(m, leader, governor_next_query_allowed(s));
    return;
  }
  UnicastQuery* u = free_slot(core);
  if (u == nullptr) {
    list_append(core, ListId::kUnicastWaiting, leader);  // goes out as soon as one is free, in turn
    return;
  }
  PairingHeap<DNSQuestion, ScheduleAccess>(core.schedule_root).remove(leader);
  *u = UnicastQuery{};
  u->fd = -1;
  u->question = leader;
  s.unicast_slot = static_cast<uint16_t>(u - core.unicast + 1);
  send_udp(m, *u);
}

void unicast_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir) {
  if (UnicastQuery* u = slot_of(core_of(m), leader)) {
    u->question = heir;
  }
}

void unicast_cancel(mDNS* m, DNSQuestion* leader) {
  if (UnicastQuery* u = slot_of(core_of(m), leader)) {
    release(m, *u);
  }
}

void unicast_run(mDNS* m) {
  CoreState& core = core_of(m);
  for (UnicastQuery& u : core.unicast) {
    if (u.stage != UnicastStage::kFree) {
      step(m, u);
    }
  }
  while (!list_empty(core, ListId::kUnicastWaiting) && free_slot(core) != nullptr) {
    unicast_ask_now(m, list_pop(core, ListId::kUnicastWaiting));
  }
}

bool unicast_next_time(mDNS* m, int32_t& when) {
  CoreState& core = core_of(m);
  bool any = false;
  for (const UnicastQuery& u : core.unicast) {
    if (u.stage == UnicastStage::kFree) {
      continue;
    }
    const int32_t t = u.stage == UnicastStage::kTcpConnecting || u.stage == UnicastStage::kTcpWriting
                          ? time_add(core.now, kConnectCheckMs)
                          : u.deadline;
    when = any ? time_min(when, t) : t;
    any = true;
  }
  return any;
}

void unicast_add_sockets(mDNS* m, int* nfds, fd_set* readfds) {
  for (const UnicastQuery& u : core_of(m).unicast) {
    if ((u.stage == UnicastStage::kUdp || u.stage == UnicastStage::kTcpReading) && u.fd >= 0 &&
        u.fd < FD_SETSIZE) {
      FD_SET(u.fd, readfds);
      *nfds = u.fd + 1 > *nfds ? u.fd + 1 : *nfds;
    }
  }
}

void unicast_read_sockets(mDNS* m, fd_set* readfds) {
  CoreState& core = core_of(m);
  for (UnicastQuery& u : core.unicast) {
    if (!core.initialized || u.fd < 0 || !platform_dns_readable(m, u.fd, readfds)) {
      continue;
    }
    if (u.stage == UnicastStage::kTcpReading) {
      tcp_read(m, u);
    } else if (u.stage == UnicastStage::kUdp) {
      read_udp(m, u);
    }
  }
}

}  // namespace mdns
