#include "cache/cache.h"

#include <cstring>

#include "platform/clock.h"
#include "wire/identity.h"
#include "wire/message_reader.h"

namespace mdns {
namespace {

constexpr int kRefreshSteps = 4;  // queries at 80, 85, 90 and 95 % of the TTL

struct TimerAccess {
  static HeapLinks<CacheRecord>& links(CacheRecord* rr) { return rr->timer; }
};
using CacheTimers = PairingHeap<CacheRecord, TimerAccess>;

uint32_t bucket_of(uint32_t name_hash) {
  return name_hash % kCacheBuckets;
}

uint32_t identity_bucket_of(uint32_t name_hash, uint32_t data_hash) {
  return (name_hash ^ (data_hash * 2654435761u)) % kCacheBuckets;
}

uint32_t address_bucket(const mDNSAddr& address) {
  const size_t size = address.type == mDNSAddrType_IPv4 ? 4 : 16;
  return wire_hash(reinterpret_cast<const uint8_t*>(&address.ip), size) % kSenderBuckets;
}

CacheRecord* entry_at(CacheStore& core, uint32_t index_plus_one) {
  return index_plus_one == 0 ? nullptr : &record_at(core, index_plus_one);
}

// The timer fires at the next refresh point, or at expiry after the last.
int32_t timer_time(const CacheRecord& rr) {
  if (!rr.expiring && rr.refresh_step < kRefreshSteps && time_diff(rr.next_refresh, rr.expiry) < 0) {
    return rr.next_refresh;
  }
  return rr.expiry;
}

void arm_timer(CacheStore& core, CacheRecord* rr) {
  CacheTimers(core.cache_timer_root).insert(rr, timer_time(*rr));
}

// 80, 85, 90, 95 % of the TTL from the time of receipt, plus up to 2 % at random.
void plan_refresh(CacheStore& core, CacheRecord* rr) {
  if (rr->resrec.rroriginalttl < kRefreshTtlFloorSeconds) {
    rr->refresh_step = kRefreshSteps;  // too short-lived to be worth a query: it just expires
  }
  if (rr->refresh_step >= kRefreshSteps) {
    rr->next_refresh = rr->expiry;
    return;
  }
  const int64_t ttl_ms = static_cast<int64_t>(rr->resrec.rroriginalttl) * 1000;
  const int64_t base = ttl_ms * (80 + 5 * rr->refresh_step) / 100;
  const int64_t jitter = random_between(core.random_state, 0, static_cast<uint32_t>(ttl_ms * 2 / 100));
  rr->next_refresh = time_add(rr->received, base + jitter);
}

void set_lifetime(CacheStore& core, CacheRecord* rr, uint32_t ttl, int32_t now) {
  if (ttl > kMaxCachedTtlSeconds) {
    ttl = kMaxCachedTtlSeconds;
  }
  rr->resrec.rroriginalttl = ttl;
  rr->received = now;
  rr->expiry = time_add(now, static_cast<int64_t>(ttl) * 1000);
  rr->expiring = 0;
  rr->goodbye_check = kNoCheck;
  rr->refresh_step = 0;
  plan_refresh(core, rr);
  arm_timer(core, rr);
}

// Two doubly linked chains per entry: by owner name (what questions look up)
// and by name and data (what re-receipts look up); both unlink in constant time.
void link_entry(CacheStore& core, CacheRecord* rr) {
  const uint32_t self = index_of(core, rr);
  uint32_t& head = core.cache_buckets[bucket_of(rr->resrec.namehash)];
  rr->bucket_prev = 0;
  rr->bucket_next = head;
  if (head != 0) {
    entry_at(core, head)->bucket_prev = self;
  }
  head = self;
  uint32_t& ihead = core.identity_buckets[identity_bucket_of(rr->resrec.namehash, rr->rdata_hash)];
  rr->identity_prev = 0;
  rr->identity_next = ihead;
  if (ihead != 0) {
    entry_at(core, ihead)->identity_prev = self;
  }
  ihead = self;
}

void unlink_entry(CacheStore& core, CacheRecord* rr) {
  if (rr->bucket_prev != 0) {
    entry_at(core, rr->bucket_prev)->bucket_next = rr->bucket_next;
  } else {
    core.cache_buckets[bucket_of(rr->resrec.namehash)] = rr->bucket_next;
  }
  if (rr->bucket_next != 0) {
    entry_at(core, rr->bucket_next)->bucket_prev = rr->bucket_prev;
  }
  if (rr->identity_prev != 0) {
    entry_at(core, rr->identity_prev)->identity_next = rr->identity_next;
  } else {
    core.identity_buckets[identity_bucket_of(rr->resrec.namehash, rr->rdata_hash)] = rr->identity_next;
  }
  if (rr->identity_next != 0) {
    entry_at(core, rr->identity_next)->identity_prev = rr->identity_prev;
  }
}

}  // namespace

void cache_reset(CacheStore& core) {
  core.cache_free = 0;
  core.cache_used = 0;
  core.packet_head = 0;
  core.packet_tail = 0;
  core.cache_timer_root = nullptr;
  std::memset(core.cache_buckets, 0, sizeof core.cache_buckets);
  std::memset(core.identity_buckets, 0, sizeof core.identity_buckets);
  for (uint32_t i = core.cache_size; i > 0; --i) {
    CacheRecord* rr = &record_at(core, i);
    std::memset(rr, 0, sizeof *rr);
    rr->bucket_next = core.cache_free;
    core.cache_free = i;
  }
  std::memset(core.senders, 0, sizeof core.senders);
  std::memset(core.sender_buckets, 0, sizeof core.sender_buckets);
  core.packet_sender = 0;
  core.sender_free = 0;
  core.sender_top = 0;
  for (int i = kMaxSenders - 1; i > 0; --i) {
    core.senders[i].next = core.sender_free;
    core.sender_free = static_cast<SenderSlot>(i);
  }
}

CacheRecord* cache_find(CacheStore& core, const ParsedRecord& rec, uint32_t name_hash, uint32_t data_hash,
                        mDNSInterfaceID interface_id) {
  for (CacheRecord* rr = entry_at(core, core.identity_buckets[identity_bucket_of(name_hash, data_hash)]);
       rr != nullptr; rr = entry_at(core, rr->identity_next)) {
    const ResourceRecord& r = rr->resrec;
    if (r.namehash == name_hash && rr->rdata_hash == data_hash && r.rrtype == rec.rrtype &&
        r.rrclass == rec.rrclass && r.InterfaceID == interface_id && names_equal(*r.name, rec.name) &&
        rdata_equal(r.rrtype, *r.rdata, rec.rdata)) {
      return rr;
    }
  }
  return nullptr;
}

bool cache_full(const CacheStore& core) {
  return core.cache_free == 0;
}

CacheRecord* cache_insert(CacheStore& core, const ParsedRecord& rec, uint32_t name_hash, uint32_t data_hash,
                          mDNSInterfaceID interface_id, Source source, SenderSlot sender, int32_t now) {
  CacheRecord* rr = entry_at(core, core.cache_free);
  if (rr == nullptr) {
    return nullptr;
  }
  core.cache_free = rr->bucket_next;
  std::memset(rr, 0, sizeof *rr);
  rr->namestorage = rec.name;
  rr->rdatastorage = rec.rdata;
  rr->rdatastorage.MaxRDLength = static_cast<mDNSu16>(sizeof(RDataBody));
  ResourceRecord& r = rr->resrec;
  r.rrtype = rec.rrtype;
  r.rrclass = rec.rrclass;
  r.rdlength = rec.rdata.length;
  r.InterfaceID = interface_id;
  r.name = &rr->namestorage;
  r.namehash = name_hash;
  r.rdata = &rr->rdatastorage;
  rr->rdata_hash = data_hash;
  rr->packet_seq = core.packet_seq;
  rr->importance_generation = core.question_generation - 1;
  rr->source = source;
  rr->sender = sender;
  rr->in_use = 1;
  rr->first_received = now;
  set_lifetime(core, rr, rec.ttl, now);
  link_entry(core, rr);
  core.cache_used++;
  core.senders[sender].cached++;
  core.counters.records_cached++;
  return rr;
}

void cache_refresh(CacheStore& core, CacheRecord* rr, uint32_t ttl, int32_t now) {
  rr->packet_seq = core.packet_seq;
  set_lifetime(core, rr, ttl, now);
}

void cache_expire_soon(CacheStore& core, CacheRecord* rr, int32_t now) {
  rr->expiring = 1;
  rr->goodbye_check = kNoCheck;
  rr->expiry = time_add(now, kGoodbyeDelayMs);
  rr->next_refresh = rr->expiry;
  arm_timer(core, rr);
}

void cache_goodbye(CacheStore& core, CacheRecord* rr, int32_t now) {
  const int32_t before = rr->expiry;
  cache_expire_soon(core, rr, now);
  rr->expiry_before_goodbye = before;
  rr->goodbye_check = kCheckWanted;
}

void cache_keep_after_goodbye(CacheStore& core, CacheRecord* rr) {
  rr->expiring = 0;
  rr->goodbye_check = kNoCheck;
  rr->expiry = rr->expiry_before_goodbye;
  plan_refresh(core, rr);
  arm_timer(core, rr);
}

void cache_expire_now(CacheStore& core, CacheRecord* rr, int32_t now) {
  rr->expiring = 1;
  rr->goodbye_check = kNoCheck;
  rr->expiry = now;
  rr->next_refresh = now;
  arm_timer(core, rr);
}

void cache_free(CacheStore& core, CacheRecord* rr) {
  if (!rr->in_use) {
    return;
  }
  CacheTimers(core.cache_timer_root).remove(rr);
  unlink_entry(core, rr);
  core.senders[rr->sender].cached--;
  sender_release_if_unused(core, rr->sender);
  rr->in_use = 0;
  rr->bucket_next = core.cache_free;
  core.cache_free = index_of(core, rr);
  core.cache_used--;
}

CacheRecord* cache_next_due(CacheStore& core, int32_t now) {
  CacheRecord* rr = CacheTimers(core.cache_timer_root).top();
  return rr != nullptr && time_reached(rr->timer.key, now) ? rr : nullptr;
}

bool cache_expired(const CacheRecord& rr, int32_t now) {
  return time_reached(rr.expiry, now);
}

bool cache_pass_refresh_point(CacheStore& core, CacheRecord* rr) {
  if (rr->expiring || rr->refresh_step >= kRefreshSteps) {
    arm_timer(core, rr);
    return false;
  }
  rr->refresh_step++;
  plan_refresh(core, rr);
  arm_timer(core, rr);
  return true;
}

bool cache_next_time(const CacheStore& core, int32_t& when) {
  if (core.cache_timer_root == nullptr) {
    return false;
  }
  when = core.cache_timer_root->timer.key;
  return true;
}

int64_t cache_remaining_ms(const CacheRecord& rr, int32_t now) {
  return time_diff(rr.expiry, now);
}

CacheRecord* cache_first(CacheStore& core, uint32_t name_hash) {
  return entry_at(core, core.cache_buckets[bucket_of(name_hash)]);
}

CacheRecord* cache_next(CacheStore& core, const CacheRecord* rr) {
  return entry_at(core, rr->bucket_next);
}

CacheRecord* cache_entry(CacheStore& core, uint32_t index) {
  if (index >= core.cache_size) {
    return nullptr;
  }
  CacheRecord* rr = &record_at(core, index + 1);
  return rr->in_use ? rr : nullptr;
}

SenderSlot sender_find(const CacheStore& core, const mDNSAddr& address) {
  for (SenderSlot i = core.sender_buckets[address_bucket(address)]; i != 0; i = core.senders[i].next) {
    if (addresses_equal(core.senders[i].address, address)) {
      return i;
    }
  }
  return 0;
}

SenderSlot sender_slot(CacheStore& core, const mDNSAddr& address) {
  SenderSlot& head = core.sender_buckets[address_bucket(address)];
  for (SenderSlot i = head; i != 0; i = core.senders[i].next) {
    if (addresses_equal(core.senders[i].address, address)) {
      return i;
    }
  }
  const SenderSlot slot = core.sender_free;
  if (slot == 0) {
    return 0;
  }
  core.sender_free = core.senders[slot].next;
  core.sender_top = slot > core.sender_top ? slot : core.sender_top;
  core.senders[slot] = Sender{};
  core.senders[slot].address = address;
  core.senders[slot].next = head;
  head = slot;
  return slot;
}

void sender_release_if_unused(CacheStore& core, SenderSlot slot) {
  Sender& s = core.senders[slot];
  if (slot == 0 || slot == core.packet_sender || s.cached != 0 || s.answers != 0) {
    return;
  }
  for (SenderSlot* link = &core.sender_buckets[address_bucket(s.address)]; *link != 0;
       link = &core.senders[*link].next) {
    if (*link == slot) {
      *link = s.next;
      break;
    }
  }
  s = Sender{};
  s.next = core.sender_free;
  core.sender_free = slot;
}

}  // namespace mdns
