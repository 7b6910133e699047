// The record cache: entries in caller storage, chained into hash buckets by index.
#pragma once

#include <cstdint>

#include "mdns/mdns.h"
#include "questions.h"

namespace mdns {

struct ParsedRecord;

// Longest TTL kept, so that expiry times stay within the millisecond clock's range.
constexpr uint32_t kMaxCachedTtlSeconds = 7 * 24 * 3600;
constexpr int32_t kGoodbyeDelayMs = 1000;

void cache_reset(mDNS* m);

// Hash of record data, equal whenever rdata_equal() says equal (names inside
// compare case-insensitively, so the hash ignores ASCII case).
uint32_t rdata_hash(uint16_t rrtype, const RData& rdata);

// The entry equal to `rec` (name, type, class, data, interface), or null.
CacheRecord* cache_find(mDNS* m, const ParsedRecord& rec, uint32_t namehash, uint32_t datahash,
                        mDNSInterfaceID interface_id);

// Stores a new record (evicting if the cache is full) and returns its entry.
CacheRecord* cache_insert(mDNS* m, const ParsedRecord& rec, uint32_t namehash, uint32_t datahash,
                          mDNSInterfaceID interface_id, int32_t now);

// Re-receipt of a cached record: TTL and receive time renewed.
void cache_refresh(mDNS* m, CacheRecord* rr, uint32_t ttl, int32_t now);

// The record leaves in one second (goodbye, or flushed by a newer record).
void cache_expire_soon(mDNS* m, CacheRecord* rr, int32_t now);

// A refresh point has passed: schedule the next one (the last leads to expiry).
void cache_advance_refresh(mDNS* m, CacheRecord* rr);

// Takes the entry out of the cache, giving remove events to the questions it answered.
void cache_remove(mDNS* m, CacheRecord* rr, int32_t now, RemoveCause cause = RemoveCause::kGone);

// When the entry next needs attention: its next refresh point, else its expiry.
int32_t cache_next_event(const CacheRecord& rr);

int64_t cache_remaining_ms(const CacheRecord& rr, int32_t now);

// Iteration over one hash bucket.
CacheRecord* cache_bucket_first(mDNS* m, uint32_t namehash);
CacheRecord* cache_bucket_next(mDNS* m, const CacheRecord* rr);

}  // namespace mdns
