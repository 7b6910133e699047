// What the askers keep: each question's state (its group, and how its group
// asks), the lists questions wait on, one-shots, unicast DNS queries and the
// send budgets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cache/cache_state.h"
#include "platform/platform.h"

namespace mdns {

// ---- Questions ------------------------------------------------------------

// Identical questions (same name, type, class and interface) form a group:
// the first (the leader) asks for all of them, the others follow it.  How the
// group asks is its asker's business: continuous querying on the link, or
// polling the name servers by unicast DNS (see asker.h).

enum class QuestionKind : uint8_t { kPlain, kBrowse, kResolveSrv, kResolveTxt, kResolveAddress };

// The lists a question waits on, one at a time (see question_lists.h).
enum class ListId : uint8_t {
  kNone,
  kWaiting,         // started: its cached answers are delivered at the next pass
  kDelivering,      // the round of first deliveries under way
  kOneShot,         // wants a one-shot query in this pass
  kUnicastWaiting,  // waits for a free unicast query
  kCount,
};

struct QuestionList {
  DNSQuestion* head;
  DNSQuestion* tail;
};

// The link asker's phases (RFC 6762 section 5.2).
enum class LinkPhase : uint8_t {
  kFirstQueryDue,  // nothing known: the first query goes out 20-120 ms after the start
  kBackingOff,     // querying, each interval at least twice the last
  kResting,        // a unique answer is cached: only its refresh points query
  kQuiet,          // nobody in the group asks any more (resolves that have reported)
};

struct LinkSchedule {
  LinkPhase phase;
  bool refresh_wanted;         // a cached answer reached a refresh point
  bool spilled;                // its known answers filled more than one packet
  bool sent_this_pass;         // went out on at least one interface in this pass
  uint16_t known_answer_skip;  // a browse's long known-answer list goes out in turns from here
  int32_t last_query_time;     // of the continuous schedule
  int32_t next_query_time;     // by the continuous schedule (a refresh may come sooner)
  int32_t min_interval;        // the next query may not come sooner after the last one
};

// The unicast DNS asker's phases.
enum class DnsPhase : uint8_t {
  kIdle,           // not asked yet
  kAwaitingReply,  // a query is out, retransmitted until answered
  kPolling,        // answered; asked again at 80 % of the answers' TTL
};

struct DnsSchedule {
  DnsPhase phase;
  bool answer_evicted;  // the cache gave up an answer of the last poll for space
  uint16_t slot;        // index + 1 of its outstanding unicast query
};

struct QuestionState {
  uint32_t magic;
  mDNS* owner;
  DNSQuestion* bucket_prev;  // every active question, chained by name hash
  DNSQuestion* bucket_next;
  DNSQuestion* leader;     // the twin that asks for this one; null when it asks itself
  DNSQuestion* list_prev;  // on the list `list`
  DNSQuestion* list_next;
  DNSQuestion* next_to_send;        // chosen for this pass's packets
  HeapLinks<DNSQuestion> schedule;  // group leaders, in their asker's schedule
  uint32_t name_hash;
  int32_t start_time;
  uint32_t current_answers;
  uint16_t queries_sent;  // multicast or unicast queries of this group
  int32_t last_sent;      // the last of them, continuous or refresh (see send_governor.h)
  uint16_t asking;        // group leader: members that still ask
  uint16_t first_answer;  // a browse: index + 1 of its first remembered answer
  QuestionKind kind;
  bool unicast;    // asked by unicast DNS (a name outside the link-local zones)
  bool listening;  // asks nothing itself any more, but still hears answers
  bool delivered;  // its first delivery (what the cache held at its start) is done
  ListId list;
  LinkSchedule link;  // the leader's, when its group asks on the link
  DnsSchedule dns;    // the leader's, when its group asks by unicast DNS
};
static_assert(sizeof(QuestionState) <= mDNS_QuestionPrivateSize, "question state outgrew its storage");

// ---- One-shot queries ----------------------------------------------------------

constexpr int kMaxOneShots = 8;
constexpr int kOneShotQuestions = 40;
constexpr int32_t kOneShotLifetimeMs = 3000;

struct OneShot {
  uint16_t id;
  uint8_t family;
  uint8_t question_count;
  mDNSInterfaceID interface_id;
  int32_t sent;
  uint32_t questions[kOneShotQuestions];  // question_key() of each
};

// Probes: one-shots sent to one device's own address, answered by it alone.
constexpr int kMaxProbes = 32;  // more than the probe budget sends within a one-shot's lifetime
constexpr int kProbeQuestions = 8;

struct Probe {
  uint16_t id;
  uint8_t question_count;
  mDNSInterfaceID interface_id;
  mDNSAddr target;
  int32_t sent;
  uint32_t questions[kProbeQuestions];  // question_key() of each
};

// ---- Unicast DNS ----------------------------------------------------------------

constexpr int kMaxUnicastQueries = 16;
constexpr size_t kTcpMessageSize = 65535;

enum class UnicastStage : uint8_t { kFree, kUdp, kTcpConnecting, kTcpWriting, kTcpReading };

struct UnicastQuery {
  UnicastStage stage;
  NameServer server;  // the one asked: only it may answer, whatever the configuration says now
  uint8_t attempts;   // UDP sends so far
  uint16_t id;
  int fd;
  DNSQuestion* question;  // the group leader it asks for
  int32_t deadline;       // of this attempt
  uint32_t tcp_done;      // bytes written or read over TCP
};

// ---- Sending ----------------------------------------------------------------------

struct SendBudget {
  int32_t tokens;  // packets that may go out now
  int32_t refilled;
};
constexpr int kSendBudgets = mDNS_MaxInterfaces + 1;  // by interface number

constexpr int kQuestionBuckets = 4096;
constexpr size_t kReceiveBufferSize = 9000;

struct AskState : CacheStore {
  DNSQuestion* question_buckets[kQuestionBuckets];  // every active question, by name hash
  DNSQuestion* link_schedule_root;                  // link askers' leaders, by next query time
  DNSQuestion* dns_schedule_root;                   // unicast askers' leaders, by next poll
  QuestionList lists[static_cast<int>(ListId::kCount)];
  uint32_t send_serial;
  SendBudget budgets[kSendBudgets];

  // One-shot queries.
  OneShot one_shots[kMaxOneShots];
  uint32_t one_shot_next;
  SendBudget one_shot_budget;
  Probe probes[kMaxProbes];
  uint32_t probe_next;
  SendBudget probe_budget;  // every probe
  SendBudget check_budget;  // probes after a goodbye, on top of the above
  // Until then the responders are answering a browse's first multicast query
  // with everything they offer (see link_asker_one_shot_answered).
  int32_t browse_answers_until;
  bool browse_answers_coming;

  // Unicast DNS.
  NameServer servers[kMaxNameServers];
  uint8_t server_count;
  UnicastQuery unicast[kMaxUnicastQueries];
  uint8_t tcp_buffer[kTcpMessageSize + 2];
  uint8_t txbuf[kMaxQueryPayload];
  uint8_t rxbuf[kReceiveBufferSize];
};

// The core's state as the askers see it (defined with the core's own state).
AskState& ask_of(mDNS* m);

struct ScheduleAccess {
  static HeapLinks<DNSQuestion>& links(DNSQuestion* q);
};
using QuestionSchedule = PairingHeap<DNSQuestion, ScheduleAccess>;

inline QuestionState& state_of(DNSQuestion* q) {
  return *reinterpret_cast<QuestionState*>(q->Private.storage);
}
inline const QuestionState& state_of(const DNSQuestion* q) {
  return *reinterpret_cast<const QuestionState*>(q->Private.storage);
}

inline HeapLinks<DNSQuestion>& ScheduleAccess::links(DNSQuestion* q) {
  return state_of(q).schedule;
}

}  // namespace mdns
