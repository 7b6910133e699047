// The record cache: a passive store of fixed size in the caller's storage.
// It keeps records, finds them and tells when each is next due (a refresh
// point or its expiry); it never decides what a record's arrival or departure
// means, and never calls anybody.  The engine does that.
#pragma once

#include <cstdint>

#include "cache/cache_state.h"

namespace mdns {

struct ParsedRecord;

void cache_reset(CacheStore& core);

// The entry equal to `rec` (name, type, class, data, interface), or null.
CacheRecord* cache_find(CacheStore& core, const ParsedRecord& rec, uint32_t name_hash, uint32_t data_hash,
                        mDNSInterfaceID interface_id);

bool cache_full(const CacheStore& core);

// Stores a new record in a free entry (null when none is free).
CacheRecord* cache_insert(CacheStore& core, const ParsedRecord& rec, uint32_t name_hash, uint32_t data_hash,
                          mDNSInterfaceID interface_id, Source source, SenderSlot sender, int32_t now);

// Received again: TTL and receive time renewed, refresh points start over.
void cache_refresh(CacheStore& core, CacheRecord* rr, uint32_t ttl, int32_t now);

// Leaves in one second (a goodbye, or flushed by a newer record of its set).
void cache_expire_soon(CacheStore& core, CacheRecord* rr, int32_t now);

// A goodbye: leaves in one second unless cache_keep_after_goodbye comes first.
void cache_goodbye(CacheStore& core, CacheRecord* rr, int32_t now);
// Its sender still holds it: back to the expiry it had before the goodbye.
void cache_keep_after_goodbye(CacheStore& core, CacheRecord* rr);

// Leaves at the next pass (unicast DNS: a new answer no longer holds it).
void cache_expire_now(CacheStore& core, CacheRecord* rr, int32_t now);

// Takes the entry out of the store.
void cache_free(CacheStore& core, CacheRecord* rr);

// The entry with the earliest timer if that has come by `now`, else null.
CacheRecord* cache_next_due(CacheStore& core, int32_t now);
// True when the entry's expiry (not just a refresh point) has come.
bool cache_expired(const CacheRecord& rr, int32_t now);
// A refresh point has passed: the timer moves to the next (the last leads to
// expiry).  Returns false when the entry was already past its last one.
bool cache_pass_refresh_point(CacheStore& core, CacheRecord* rr);
// When the next entry is due; false for an empty cache.
bool cache_next_time(const CacheStore& core, int32_t& when);

int64_t cache_remaining_ms(const CacheRecord& rr, int32_t now);

// Iteration over the records of one name hash.
CacheRecord* cache_first(CacheStore& core, uint32_t name_hash);
CacheRecord* cache_next(CacheStore& core, const CacheRecord* rr);
// Iteration over every entry in use.
CacheRecord* cache_entry(CacheStore& core, uint32_t index);  // null when unused

// Sender bookkeeping: the table slot of a source address (slot 0 stands for
// everybody once the table is full).
SenderSlot sender_slot(CacheStore& core, const mDNSAddr& address);
void sender_release_if_unused(CacheStore& core, SenderSlot slot);
// The address's slot, 0 when the table has none.
SenderSlot sender_find(const CacheStore& core, const mDNSAddr& address);
// The slots in use all lie below this one (the free list hands out the lowest
// first after a reset).
inline int senders_end(const CacheStore& core) {
  return core.sender_top + 1;
}

}  // namespace mdns
