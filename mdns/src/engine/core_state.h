// The core's state, kept in the Private storage of the caller's structures.
// Each struct has one home: QuestionState in DNSQuestion, ResolveState in
// ServiceInfoQuery, CacheRecord in CacheEntity, CoreState in mDNS.  CoreState
// extends what the layers below keep (PassState, CacheStore, AskState).
#pragma once

#include <cstddef>
#include <cstdint>

#include "ask/ask_state.h"

namespace mdns {

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
  uint8_t interface_slot;  // the interface's ID as a number (IDs are small)
  SenderSlot sender;
  uint8_t under_udp;  // the type list's answers: the type is _udp, not _tcp
  uint8_t one_shot;   // its TTL came with a one-shot answer
  int32_t expiry;
  int32_t refresh_at;  // asks the browse for a refresh query (80 % of the TTL), then the expiry
  uint32_t ttl;
  domainlabel label;  // the instance; the rest of the name is the browse's
  uint32_t seen;      // unicast DNS: the answer that last listed it (packet number)
};

constexpr int kBrowseAnswerBuckets = 1024;
constexpr int kMaxWalkDepth = 8;

struct CoreState : AskState {
  mDNSCallback* main_callback;
  void* main_context;
  bool shutting_down;
  bool in_pass;
  int32_t fake_clock;
  bool fake_clock_set;

  int callback_depth;                        // callbacks under way (see CallbackScope)
  DNSQuestion* walk_cursors[kMaxWalkDepth];  // where each walk goes next; moved on by stops
  int walk_depth;

  // Resolves waiting to look again at a changed SRV or a further address,
  // in the order they are due.
  ServiceInfoQuery* recheck_head;
  ServiceInfoQuery* recheck_tail;

  // Browse answers.
  BrowseAnswer answers[mDNS_MaxBrowseAnswers];
  uint16_t answer_buckets[kBrowseAnswerBuckets];
  uint16_t answer_free;  // index + 1
  uint32_t answers_used;
  int32_t answers_next_expiry;
  bool answers_expiry_known;

  // Devices (see devices.h).
  int32_t devices_next;  // when devices_run next has work
  bool devices_planned;  // devices_next holds (else: at the next pass)
  int32_t devices_surveyed;
  bool devices_surveyed_once;
  uint16_t devices_watched;
};
static_assert(sizeof(CoreState) <= mDNS_CorePrivateSize, "core state outgrew its storage");

constexpr uint32_t kCoreMagic = 0x6d444e53;      // "mDNS"
constexpr uint32_t kQuestionMagic = 0x51535421;  // "QST!"
constexpr uint32_t kResolveMagic = 0x52534c56;   // "RSLV"

inline CoreState& core_of(mDNS* m) {
  return *reinterpret_cast<CoreState*>(m->Private.storage);
}
inline const CoreState& core_of(const mDNS* m) {
  return *reinterpret_cast<const CoreState*>(m->Private.storage);
}
// Marks a callback under way: the core it runs in may be ended from inside
// it, but not started again on the same storage until it returns.
class CallbackScope {
 public:
  explicit CallbackScope(mDNS* m) : core_(core_of(m)) { core_.callback_depth++; }
  ~CallbackScope() { core_.callback_depth--; }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

 private:
  CoreState& core_;
};

inline ResolveState& resolve_of(ServiceInfoQuery* query) {
  return *reinterpret_cast<ResolveState*>(query->Private.storage);
}

}  // namespace mdns
