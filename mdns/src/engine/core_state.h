// The core's state, kept in the Private storage of the caller's structures.
// Each struct here has one home: QuestionState in DNSQuestion, ResolveState in
// ServiceInfoQuery, CacheRecord in CacheEntity, CoreState in mDNS.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>

#include "cache/pairing_heap.h"
#include "mdns/mdns.h"
#include "wire/constants.h"

namespace mdns {

// ---- Questions ------------------------------------------------------------

// What a question does on the wire.  Identical questions (same name, type,
// class and interface) form a group: the first asks for all of them, the
// others follow it.
enum class Phase : uint8_t {
  kWaitingForCache,  // started: what the cache holds is delivered at the next pass
  kFirstQueryDue,    // nothing known: the first query goes out 20-120 ms after the start
  kBackingOff,       // querying, each interval at least twice the last
  kResting,          // a unique answer is cached: only its refresh points query
  kQuiet,            // nobody in the group asks any more (resolves that have reported)
  kFollowing,        // an identical question asks for this one
  kAwaitingReply,    // unicast DNS: a query is out, retransmitted until answered
  kPolling,          // unicast DNS: answered; asked again at 80 % of the answers' TTL
};

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

struct QuestionState {
  uint32_t magic;
  mDNS* owner;
  DNSQuestion* bucket_prev;  // every active question, chained by name hash
  DNSQuestion* bucket_next;
  DNSQuestion* leader;     // the twin that asks for this one; null when it asks itself
  DNSQuestion* list_prev;  // on the list `list`
  DNSQuestion* list_next;
  DNSQuestion* next_to_send;        // chosen for this pass's packets
  HeapLinks<DNSQuestion> schedule;  // group leaders, by when they next ask
  uint32_t name_hash;
  int32_t start_time;
  int32_t last_query_time;
  int32_t next_query_time;  // by the continuous schedule (a refresh may come sooner)
  int32_t min_interval;     // the next query may not come sooner after the last one
  uint32_t current_answers;
  uint16_t queries_sent;       // multicast or unicast queries of this group
  int32_t last_sent;           // the last of them, continuous or refresh (see send_governor.h)
  uint16_t known_answer_skip;  // a browse's long known-answer list goes out in turns from here
  uint16_t unicast_slot;       // index + 1 of its outstanding unicast query
  uint16_t asking;             // group leader: members that still ask
  uint16_t first_answer;       // a browse: index + 1 of its first remembered answer
  Phase phase;
  QuestionKind kind;
  bool unicast;         // asked by unicast DNS (a name outside the link-local zones)
  bool listening;       // asks nothing itself any more, but still hears answers
  bool refresh_wanted;  // a cached answer reached a refresh point
  bool spilled;         // its known answers filled more than one packet
  bool sent_this_pass;  // went out on at least one interface in this pass
  ListId list;
};
static_assert(sizeof(QuestionState) <= mDNS_QuestionPrivateSize, "question state outgrew its storage");

// ---- Resolves -------------------------------------------------------------

constexpr int kMaxReportedAddresses = 8;

struct ResolveState {
  uint32_t magic;
  DNSQuestion srv;
  DNSQuestion txt;
  DNSQuestion a;
  DNSQuestion aaaa;
  bool has_srv;
  bool reported;    // at least one address went to the caller
  bool silent;      // a newer resolve of the same instance on the same interface reports instead
  bool rechecking;  // on the core's recheck list, due at recheck_due
  int32_t recheck_due;
  ServiceInfoQuery* recheck_prev;
  ServiceInfoQuery* recheck_next;
  mDNSIPPort port;
  domainname target;
  uint8_t reported_count;
  mDNSAddr reported_addresses[kMaxReportedAddresses];  // with the current SRV
  int32_t first_batch[2];  // when the first reported IPv4 / IPv6 record was first received
};
static_assert(sizeof(ResolveState) <= mDNS_ResolvePrivateSize, "resolve state outgrew its storage");

// ---- Cache ----------------------------------------------------------------

// Where a cached record came from.
enum class Source : uint8_t { kMulticast, kOneShot, kUnicastDns };

struct CacheRecord {
  ResourceRecord resrec;  // what callbacks see; points into the storage below
  domainname namestorage;
  RData rdatastorage;
  HeapLinks<CacheRecord> timer;  // by its next refresh point or expiry
  uint32_t bucket_prev;          // index + 1 of its neighbours in the name-hash chain
  uint32_t bucket_next;
  uint32_t identity_prev;  // ... in the chain of name and data hash
  uint32_t identity_next;
  uint32_t rdata_hash;
  uint32_t packet_seq;  // the packet that last brought it
  uint32_t known_answer_mark;
  uint32_t importance_generation;
  int32_t received;
  int32_t first_received;  // kept when received again: how long it has stood unchanged
  int32_t expiry;
  int32_t next_refresh;
  uint8_t in_use;
  uint8_t add_pending;   // cached from the packet being processed; its add events not yet given
  uint8_t refresh_step;  // 0..4: queries sent at 80/85/90/95 % of the TTL
  uint8_t expiring;      // goodbye or flushed: leaves at `expiry`, one second on
  uint8_t sender;        // index into the sender table
  uint8_t importance;    // as of importance_generation (see cache_policy.h)
  Source source;
  uint8_t in_packet;     // brought (new or again) by the packet being stored: its events wait
  uint32_t packet_next;  // index + 1 of the next record of that packet
};
static_assert(sizeof(CacheRecord) <= mDNS_CacheEntitySize, "cache record outgrew its storage");
static_assert(alignof(CacheRecord) <= alignof(CacheEntity), "cache record alignment");

// The next entries a full cache gives up, nearest expiry first (see cache_policy.cpp).
constexpr uint32_t kVictimListSize = 32;

struct VictimList {
  uint32_t entry[kVictimListSize];  // index + 1
  int32_t expiry[kVictimListSize];  // as it was when listed
  uint8_t importance[kVictimListSize];
  uint32_t count;
  uint32_t next;
  uint32_t generation;  // question_generation when built
  int sender;           // the sender whose entries it lists; -1: idle entries of anybody
  bool valid;
  bool complete;  // held every entry of its kind when built
};

// ---- Senders ----------------------------------------------------------------

// The hosts whose records fill the cache and the browses' memory.  Slot 0
// stands for everybody once the table is full.
constexpr int kMaxSenders = 256;

struct Sender {
  mDNSAddr address;
  uint32_t cached;   // cache entries
  uint32_t answers;  // remembered browse answers
};

// ---- Browse answers ----------------------------------------------------------

// An instance a browse has reported and not yet reported gone.  Remembered
// apart from the cache, so that the cache may push the PTR record out without
// the browse reporting a removal, or a duplicate add when it comes back.
struct BrowseAnswer {
  DNSQuestion* browse;
  uint32_t hash;         // of the full instance name
  uint16_t bucket_next;  // index + 1
  uint16_t browse_next;  // the same browse's answers, index + 1
  uint16_t browse_prev;
  uint8_t in_use;
  uint8_t sender;
  uint8_t interface_slot;  // the interface's ID as a number (IDs are small)
  int32_t expiry;
  int32_t refresh_at;  // asks the browse for a refresh query (80 % of the TTL), then the expiry
  uint32_t ttl;
  domainlabel label;  // the instance; the rest of the name is the browse's
};

constexpr int kBrowseAnswerBuckets = 1024;
constexpr int kMaxWalkDepth = 8;
constexpr int kQuestionBuckets = 4096;
constexpr int kCacheBuckets = 512;

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

// ---- Unicast DNS ----------------------------------------------------------------

constexpr int kMaxNameServers = 3;
constexpr int kMaxUnicastQueries = 16;
constexpr size_t kTcpMessageSize = 65535;

enum class UnicastStage : uint8_t { kFree, kUdp, kTcpConnecting, kTcpWriting, kTcpReading };

struct NameServer {
  mDNSAddr address;
  uint16_t port;   // host order
  uint32_t scope;  // the interface index of a link-local IPv6 server, else 0
};

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

// ---- The core -------------------------------------------------------------------

constexpr size_t kReceiveBufferSize = 9000;

struct Counters {
  uint32_t packets_sent;
  uint32_t bytes_sent;
  uint32_t queries_sent;  // questions written into sent packets
  uint32_t one_shots_sent;
  uint32_t unicast_queries_sent;
  uint32_t packets_received;
  uint32_t packets_accepted;
  uint32_t packets_dropped;
  uint32_t records_cached;
  uint32_t records_evicted;
  uint32_t records_refused;  // no room, nothing evictable
  uint32_t answers_refused;  // browse memory full, and the sender holds the most
};

struct CoreState {
  uint32_t magic;
  mDNS_PlatformSupport* platform;
  mDNSCallback* main_callback;
  void* main_context;
  bool initialized;
  bool shutting_down;

  int32_t now;  // the one clock reading of the current pass
  bool in_pass;
  int32_t fake_clock;
  bool fake_clock_set;
  uint32_t random_state;

  // Questions.
  DNSQuestion* question_buckets[kQuestionBuckets];
  DNSQuestion* schedule_root;  // leaders by next query time
  QuestionList lists[static_cast<int>(ListId::kCount)];
  DNSQuestion* walk_cursors[kMaxWalkDepth];  // where each walk goes next; moved on by stops
  int walk_depth;
  uint32_t question_generation;  // changes whenever what questions need changes

  // Resolves waiting to look again at a changed SRV or a further address,
  // in the order they are due.
  ServiceInfoQuery* recheck_head;
  ServiceInfoQuery* recheck_tail;

  // Cache.
  CacheEntity* cache;
  uint32_t cache_size;
  uint32_t cache_used;
  uint32_t cache_free;  // index + 1 of the first free entry
  uint32_t cache_buckets[kCacheBuckets];
  uint32_t identity_buckets[kCacheBuckets];
  CacheRecord* cache_timer_root;
  VictimList idle_victims;
  VictimList sender_victims;
  uint32_t packet_seq;
  uint32_t send_serial;

  Sender senders[kMaxSenders];

  // Browse answers.
  BrowseAnswer answers[mDNS_MaxBrowseAnswers];
  uint16_t answer_buckets[kBrowseAnswerBuckets];
  uint16_t answer_free;  // index + 1
  uint32_t answers_used;
  int32_t answers_next_expiry;
  bool answers_expiry_known;

  SendBudget budgets[kSendBudgets];

  // One-shot queries.
  OneShot one_shots[kMaxOneShots];
  uint32_t one_shot_next;
  int32_t one_shot_tokens;  // packets that may go out now
  int32_t one_shot_refilled;

  // Unicast DNS.
  NameServer servers[kMaxNameServers];
  uint8_t server_count;
  UnicastQuery unicast[kMaxUnicastQueries];
  uint8_t tcp_buffer[kTcpMessageSize + 2];

  // The records of the packet being stored (index + 1, chained through
  // packet_next), delivered once it is all stored: however many it holds.
  uint32_t packet_head;
  uint32_t packet_tail;

  Counters counters;
  uint8_t rxbuf[kReceiveBufferSize];
  uint8_t txbuf[kMaxQueryPayload];
};
static_assert(sizeof(CoreState) <= mDNS_CorePrivateSize, "core state outgrew its storage");

constexpr uint32_t kCoreMagic = 0x6d444e53;      // "mDNS"
constexpr uint32_t kQuestionMagic = 0x51535421;  // "QST!"
constexpr uint32_t kResolveMagic = 0x52534c56;   // "RSLV"

// Interface IDs are small numbers (a slot of the interface table, 0 for any).
inline uint8_t interface_number(mDNSInterfaceID id) {
  return static_cast<uint8_t>(reinterpret_cast<uintptr_t>(id));
}
inline mDNSInterfaceID interface_from_number(uint8_t number) {
  return reinterpret_cast<mDNSInterfaceID>(static_cast<uintptr_t>(number));
}

inline CoreState& core_of(mDNS* m) {
  return *reinterpret_cast<CoreState*>(m->Private.storage);
}
inline const CoreState& core_of(const mDNS* m) {
  return *reinterpret_cast<const CoreState*>(m->Private.storage);
}
inline QuestionState& state_of(DNSQuestion* q) {
  return *reinterpret_cast<QuestionState*>(q->Private.storage);
}
inline const QuestionState& state_of(const DNSQuestion* q) {
  return *reinterpret_cast<const QuestionState*>(q->Private.storage);
}
inline ResolveState& resolve_of(ServiceInfoQuery* query) {
  return *reinterpret_cast<ResolveState*>(query->Private.storage);
}
inline CacheRecord& record_at(CoreState& core, uint32_t index_plus_one) {
  return *reinterpret_cast<CacheRecord*>(core.cache[index_plus_one - 1].storage);
}
inline uint32_t index_of(const CoreState& core, const CacheRecord* rr) {
  return static_cast<uint32_t>(reinterpret_cast<const CacheEntity*>(rr) - core.cache) + 1;
}
inline CacheRecord* record_of(const ResourceRecord* rr) {
  static_assert(offsetof(CacheRecord, resrec) == 0, "a cached record's view comes first");
  return reinterpret_cast<CacheRecord*>(const_cast<ResourceRecord*>(rr));
}

}  // namespace mdns
