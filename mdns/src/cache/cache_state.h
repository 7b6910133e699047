// The cache's storage: its records, their indexes and the table of the
// hosts that sent them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cache/pairing_heap.h"
#include "platform/pass_state.h"
#include "wire/constants.h"

namespace mdns {

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
  uint16_t sender;       // index into the sender table
  uint8_t importance;    // as of importance_generation (see cache_policy.h)
  Source source;
  uint8_t in_packet;     // brought (new or again) by the packet being stored: its events wait
  uint32_t packet_next;  // index + 1 of the next record of that packet
  // A goodbye came: its sender is asked whether it still holds the record,
  // which then stays, with the expiry it had before (see engine/devices.h).
  uint8_t goodbye_check;  // GoodbyeCheck
  int32_t expiry_before_goodbye;
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

enum GoodbyeCheck : uint8_t { kNoCheck, kCheckWanted, kCheckAsked };

// ---- Senders ----------------------------------------------------------------

// The hosts whose records fill the cache and the browses' memory, found by
// address through a hash table.  Slot 0 stands for everybody once the table
// is full.
constexpr int kMaxSenders = 1024;
constexpr int kSenderBuckets = 1024;
using SenderSlot = uint16_t;

struct Sender {
  mDNSAddr address;
  uint32_t cached;   // cache entries
  uint32_t answers;  // remembered browse answers
  // Whether the host is still there (engine/devices.h); a link host only.
  int32_t heard;           // when it was last heard
  int32_t probe_sent;      // the last unanswered probe
  uint32_t probe_record;   // index + 1 of the entry a probe asks for
  uint8_t interface_slot;  // where it was last heard (interface_number); 0 for a name server
  uint8_t probes_unanswered;
  uint8_t check_wanted;  // goodbyes wait for a probe
  uint8_t watched;       // holds records that questions ask for
  SenderSlot twin;       // the same host's address of the other family, as its records tell
  SenderSlot next;       // in its hash bucket, or in the free list
};

constexpr int kCacheBuckets = 512;

struct CacheStore : PassState {
  uint32_t question_generation;  // changes whenever what questions need changes
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
  // The records of the packet being stored (index + 1, chained through
  // packet_next), delivered once it is all stored: however many it holds.
  uint32_t packet_head;
  uint32_t packet_tail;
  // The sender of the packet being stored: its slot stays taken even when the
  // entries it held all leave meanwhile, as the packet's records will name it.
  SenderSlot packet_sender;
  Sender senders[kMaxSenders];
  SenderSlot sender_buckets[kSenderBuckets];
  SenderSlot sender_free;
  SenderSlot sender_top;  // no slot above it has been used since the reset
};

inline CacheRecord& record_at(CacheStore& core, uint32_t index_plus_one) {
  return *reinterpret_cast<CacheRecord*>(core.cache[index_plus_one - 1].storage);
}
inline uint32_t index_of(const CacheStore& core, const CacheRecord* rr) {
  return static_cast<uint32_t>(reinterpret_cast<const CacheEntity*>(rr) - core.cache) + 1;
}
inline CacheRecord* record_of(const ResourceRecord* rr) {
  static_assert(offsetof(CacheRecord, resrec) == 0, "a cached record's view comes first");
  return reinterpret_cast<CacheRecord*>(const_cast<ResourceRecord*>(rr));
}

}  // namespace mdns
