#include "ask/dns_asker.h"

#include <cstring>

#include "ask/groups.h"
#include "ask/question_lists.h"
#include "ask/send_governor.h"
#include "cache/cache.h"
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

UnicastQuery* slot_of(AskState& core, const DNSQuestion* leader) {
  const uint16_t slot = state_of(leader).dns.slot;
  return slot == 0 ? nullptr : &core.unicast[slot - 1];
}

UnicastQuery* free_slot(AskState& core) {
  for (UnicastQuery& u : core.unicast) {
    if (u.stage == UnicastStage::kFree) {
      return &u;
    }
  }
  return nullptr;
}

bool tcp_busy(const AskState& core) {
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
  QuestionSchedule(ask_of(m).dns_schedule_root).insert(leader, when);
}

void release(mDNS* m, UnicastQuery& u) {
  close_socket(m, u);
  if (u.question != nullptr) {
    state_of(u.question).dns.slot = 0;
  }
  u = UnicastQuery{};
  u.fd = -1;
}

// A failed exchange: the question rests and asks again later.
void give_up(mDNS* m, UnicastQuery& u) {
  DNSQuestion* leader = u.question;
  release(m, u);
  if (leader != nullptr) {
    state_of(leader).dns.phase = DnsPhase::kPolling;
    plan_ask(m, leader, time_add(ask_of(m).now, kRetryAfterFailureMs));
  }
}

size_t write_query(const UnicastQuery& u, uint8_t* buffer, size_t capacity) {
  const DNSQuestion& q = *u.question;
  QueryWriter writer(buffer, capacity, u.id, kFlagRecursionDesired);
  return writer.add_question(q.qname, q.qtype, q.qclass) ? writer.finish() : 0;
}

// One UDP send to the server whose turn it is, from a fresh port and ID.
void send_udp(mDNS* m, UnicastQuery& u) {
  AskState& core = ask_of(m);
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
  AskState& core = ask_of(m);
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
int32_t poll_interval(uint32_t shortest_ttl) {
  if (shortest_ttl == 0) {
    return kEmptyAnswerPollMs;
  }
  const int64_t ms = static_cast<int64_t>(shortest_ttl) * 800;
  return ms < kMinPollMs            ? kMinPollMs
         : ms > kMaxQueryIntervalMs ? kMaxQueryIntervalMs
                                    : static_cast<int32_t>(ms);
}

// The shortest TTL of the records the answer holds for the question.
uint32_t shortest_ttl(MessageParser parser, const DNSQuestion& q) {
  uint32_t shortest = 0;
  ParsedRecord rec;
  for (MessageParser::Result r; (r = parser.next_record(rec)) != MessageParser::Result::kEnd;) {
    if (r == MessageParser::Result::kMalformed) {
      break;
    }
    if (r == MessageParser::Result::kOk && rec.ttl > 0 && dns_answer_in_bailiwick(rec, q)) {
      shortest = shortest == 0 || rec.ttl < shortest ? rec.ttl : shortest;
    }
  }
  return shortest;
}

// An answer from the server asked, with the ID and question sent.  The
// query's own bookkeeping is done before the engine stores the answer and
// its callbacks run, so that what a callback stops stays stopped.  An empty
// answer and a name error (NXDOMAIN) both mean: nothing, or nothing left.
void accept_answer(mDNS* m, UnicastQuery& u, const MessageParser& parser) {
  AskState& core = ask_of(m);
  DNSQuestion* leader = u.question;
  const NameServer server = u.server;
  core.counters.packets_accepted++;
  const uint32_t shortest = shortest_ttl(parser, *leader);
  release(m, u);
  state_of(leader).dns.phase = DnsPhase::kPolling;
  state_of(leader).dns.answer_evicted = false;
  plan_ask(m, leader, time_add(core.now, poll_interval(shortest)));
  engine_take_dns_answer(m, leader, parser, server);
}

// `cut`: a datagram longer than the buffer, whose missing records must not
// count as gone: it is taken as the server's own truncated answer.
void handle_message(mDNS* m, UnicastQuery& u, const uint8_t* message, size_t length, bool cut) {
  AskState& core = ask_of(m);
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
  AskState& core = ask_of(m);
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

size_t tcp_message_length(const AskState& core) {
  return static_cast<size_t>(core.tcp_buffer[0]) << 8 | core.tcp_buffer[1];
}

// The length prefix, then the message, as far as the stream has them.
void tcp_read(mDNS* m, UnicastQuery& u) {
  AskState& core = ask_of(m);
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
  AskState& core = ask_of(m);
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
  AskState& core = ask_of(m);
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

bool dns_answer_in_bailiwick(const ParsedRecord& rec, const DNSQuestion& q) {
  if (rec.section == Section::kAnswer) {
    return rec.rrtype == q.qtype && rec.rrclass == q.qclass && names_equal(rec.name, q.qname);
  }
  return rec.section == Section::kAdditional && rec.rrclass == kDNSClass_IN &&
         name_is_under(rec.name, q.qname);
}

void dns_asker_reset(mDNS* m) {
  AskState& core = ask_of(m);
  const int n = platform_read_name_servers(m, core.servers, kMaxNameServers);
  core.server_count = static_cast<uint8_t>(n < 0 ? 0 : n);
  for (UnicastQuery& u : core.unicast) {
    if (u.stage == UnicastStage::kFree) {
      u.fd = -1;
    }
  }
}

void dns_asker_close_all(mDNS* m) {
  for (UnicastQuery& u : ask_of(m).unicast) {
    if (u.stage != UnicastStage::kFree) {
      release(m, u);
    }
  }
  while (list_pop(ask_of(m), ListId::kUnicastWaiting) != nullptr) {
  }
}

void dns_asker_first_delivery(mDNS* m, DNSQuestion* leader, bool answered) {
  if (answered) {
    // Its answers' refresh points will ask again.
    state_of(leader).dns.phase = DnsPhase::kPolling;
    return;
  }
  dns_asker_ask_now(m, leader);
}

void dns_asker_ask_now(mDNS* m, DNSQuestion* leader) {
  AskState& core = ask_of(m);
  QuestionState& s = state_of(leader);
  if (s.dns.slot != 0) {
    return;
  }
  s.dns.phase = DnsPhase::kAwaitingReply;
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
  QuestionSchedule(core.dns_schedule_root).remove(leader);
  *u = UnicastQuery{};
  u->fd = -1;
  u->question = leader;
  s.dns.slot = static_cast<uint16_t>(u - core.unicast + 1);
  send_udp(m, *u);
}

// A browse's answers live in each browse's memory, so a new browse never
// finds them in the cache; other questions' answers only when evicted.
void dns_asker_member_unanswered(mDNS* m, DNSQuestion* leader) {
  const QuestionState& s = state_of(leader);
  if (s.dns.phase == DnsPhase::kPolling &&
      (s.kind == QuestionKind::kBrowse ? s.current_answers > 0 : s.dns.answer_evicted)) {
    dns_asker_ask_now(m, leader);
  }
}

void dns_asker_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir) {
  AskState& core = ask_of(m);
  state_of(heir).dns = state_of(leader).dns;
  if (UnicastQuery* u = slot_of(core, leader)) {
    u->question = heir;
  }
  if (QuestionSchedule::contains(leader)) {
    const int32_t key = QuestionSchedule::key_of(leader);
    QuestionSchedule(core.dns_schedule_root).remove(leader);
    plan_ask(m, heir, key);
  }
  // Waiting for a free query (the leader has already left that list): the
  // heir takes its turn.
  const DnsSchedule& from = state_of(leader).dns;
  if (from.phase == DnsPhase::kAwaitingReply && from.slot == 0 && !QuestionSchedule::contains(heir)) {
    list_append(core, ListId::kUnicastWaiting, heir);
  }
}

void dns_asker_drop(mDNS* m, DNSQuestion* leader) {
  AskState& core = ask_of(m);
  QuestionSchedule(core.dns_schedule_root).remove(leader);
  if (UnicastQuery* u = slot_of(core, leader)) {
    release(m, *u);
  }
}

void dns_asker_run(mDNS* m) {
  AskState& core = ask_of(m);
  QuestionSchedule polls(core.dns_schedule_root);
  while (DNSQuestion* due = polls.top()) {
    if (!time_reached(QuestionSchedule::key_of(due), core.now)) {
      break;
    }
    polls.remove(due);
    dns_asker_ask_now(m, due);
  }
  for (UnicastQuery& u : core.unicast) {
    if (u.stage != UnicastStage::kFree) {
      step(m, u);
    }
  }
  while (!list_empty(core, ListId::kUnicastWaiting) && free_slot(core) != nullptr) {
    dns_asker_ask_now(m, list_pop(core, ListId::kUnicastWaiting));
  }
}

bool dns_asker_next_time(mDNS* m, int32_t& when) {
  AskState& core = ask_of(m);
  bool any = core.dns_schedule_root != nullptr;
  if (any) {
    when = QuestionSchedule::key_of(core.dns_schedule_root);
  }
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

void dns_asker_add_sockets(mDNS* m, int* nfds, fd_set* readfds) {
  for (const UnicastQuery& u : ask_of(m).unicast) {
    if ((u.stage == UnicastStage::kUdp || u.stage == UnicastStage::kTcpReading) && u.fd >= 0 &&
        u.fd < FD_SETSIZE) {
      FD_SET(u.fd, readfds);
      *nfds = u.fd + 1 > *nfds ? u.fd + 1 : *nfds;
    }
  }
}

void dns_asker_read_sockets(mDNS* m, fd_set* readfds) {
  AskState& core = ask_of(m);
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
