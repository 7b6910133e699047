#include "cache.h"

#include <cstring>

#include "clock.h"
#include "message_reader.h"
#include "names.h"
#include "questions.h"

namespace mdns {
namespace {

constexpr int kRefreshSteps = 4;  // queries at 80, 85, 90 and 95 % of the TTL

uint32_t bucket_of(uint32_t namehash) {
  return namehash % mDNS_CacheBuckets;
}

CacheRecord* entry_at(mDNS* m, uint32_t index_plus_one) {
  return index_plus_one == 0 ? nullptr : &m->rrcache[index_plus_one - 1].r;
}

uint32_t index_plus_one_of(const mDNS* m, const CacheRecord* rr) {
  return static_cast<uint32_t>(reinterpret_cast<const CacheEntity*>(rr) - m->rrcache) + 1;
}

void schedule_refresh(mDNS* m, CacheRecord* rr) {
  if (rr->RefreshStep >= kRefreshSteps) {
    rr->NextRequiredQuery = rr->ExpiryTime;
    return;
  }
  const int64_t ttl_ms = static_cast<int64_t>(rr->resrec.rroriginalttl) * 1000;
  const int64_t base = ttl_ms * (80 + 5 * rr->RefreshStep) / 100;
  const int64_t jitter = random_between(m, 0, static_cast<uint32_t>(ttl_ms * 2 / 100));
  rr->NextRequiredQuery = time_add(rr->TimeRcvd, base + jitter);
}

void set_lifetime(mDNS* m, CacheRecord* rr, uint32_t ttl, int32_t now) {
  if (ttl > kMaxCachedTtlSeconds) {
    ttl = kMaxCachedTtlSeconds;
  }
  rr->resrec.rroriginalttl = ttl;
  rr->TimeRcvd = now;
  rr->ExpiryTime = time_add(now, static_cast<int64_t>(ttl) * 1000);
  rr->ExpiryPending = 0;
  rr->RefreshStep = 0;
  rr->UnansweredQueries = 0;
  schedule_refresh(m, rr);
}

void unlink_from_bucket(mDNS* m, CacheRecord* rr) {
  const uint32_t self = index_plus_one_of(m, rr);
  uint32_t* link = &m->CacheBuckets[bucket_of(rr->resrec.namehash)];
  while (*link != 0) {
    if (*link == self) {
      *link = rr->NextInBucket;
      return;
    }
    link = &entry_at(m, *link)->NextInBucket;
  }
}

// The entry nearest its expiry among those answering no active question, else
// the entry nearest its expiry.
CacheRecord* choose_victim(mDNS* m, int32_t now) {
  CacheRecord* idle = nullptr;
  CacheRecord* any = nullptr;
  for (mDNSu32 i = 0; i < m->rrcache_size; ++i) {
    CacheRecord* rr = &m->rrcache[i].r;
    if (!rr->InUse) {
      continue;
    }
    if (any == nullptr || time_diff(rr->ExpiryTime, any->ExpiryTime) < 0) {
      any = rr;
    }
    // Checking the questions is the costly part: only for a possible improvement.
    if ((idle == nullptr || time_diff(rr->ExpiryTime, idle->ExpiryTime) < 0) &&
        !record_answers_active_question(m, rr->resrec)) {
      idle = rr;
    }
  }
  (void)now;
  return idle != nullptr ? idle : any;
}

CacheRecord* take_free_entry(mDNS* m, int32_t now) {
  if (m->CacheFree == 0) {
    CacheRecord* victim = choose_victim(m, now);
    if (victim == nullptr) {
      return nullptr;
    }
    m->counters.records_evicted++;
    cache_remove(m, victim, now);
  }
  CacheRecord* rr = entry_at(m, m->CacheFree);
  if (rr != nullptr) {
    m->CacheFree = rr->NextInBucket;
  }
  return rr;
}

}  // namespace

void cache_reset(mDNS* m) {
  m->CacheFree = 0;
  m->CacheUsed = 0;
  for (mDNSu32 b = 0; b < mDNS_CacheBuckets; ++b) {
    m->CacheBuckets[b] = 0;
  }
  for (mDNSu32 i = m->rrcache_size; i > 0; --i) {
    CacheRecord* rr = &m->rrcache[i - 1].r;
    rr->InUse = 0;
    rr->AddPending = 0;
    rr->NextInBucket = m->CacheFree;
    m->CacheFree = i;
  }
}

CacheRecord* cache_bucket_first(mDNS* m, uint32_t namehash) {
  return entry_at(m, m->CacheBuckets[bucket_of(namehash)]);
}

CacheRecord* cache_bucket_next(mDNS* m, const CacheRecord* rr) {
  return entry_at(m, rr->NextInBucket);
}

CacheRecord* cache_find(mDNS* m, const ParsedRecord& rec, uint32_t namehash, mDNSInterfaceID interface_id) {
  for (CacheRecord* rr = cache_bucket_first(m, namehash); rr != nullptr; rr = cache_bucket_next(m, rr)) {
    const ResourceRecord& r = rr->resrec;
    if (r.namehash == namehash && r.rrtype == rec.rrtype && r.rrclass == rec.rrclass &&
        r.InterfaceID == interface_id && names_equal(*r.name, rec.name) &&
        rdata_equal(r.rrtype, *r.rdata, rec.rdata)) {
      return rr;
    }
  }
  return nullptr;
}

CacheRecord* cache_insert(mDNS* m, const ParsedRecord& rec, uint32_t namehash, mDNSInterfaceID interface_id,
                          int32_t now) {
  CacheRecord* rr = take_free_entry(m, now);
  if (rr == nullptr) {
    return nullptr;
  }
  std::memcpy(rr->namestorage.c, rec.name.c, sizeof(rr->namestorage.c));
  rr->rdatastorage = rec.rdata;
  rr->rdatastorage.MaxRDLength = static_cast<mDNSu16>(sizeof(RDataBody));
  ResourceRecord& r = rr->resrec;
  r.rrtype = rec.rrtype;
  r.rrclass = rec.rrclass;
  r.rdlength = rec.rdata.length;
  r.InterfaceID = interface_id;
  r.name = &rr->namestorage;
  r.namehash = namehash;
  r.rdata = &rr->rdatastorage;
  rr->InUse = 1;
  rr->AddPending = 0;
  rr->DelayDelivery = 0;
  rr->KnownAnswerMark = 0;
  rr->ReceivedPacketSeq = m->PacketSeq;
  set_lifetime(m, rr, rec.ttl, now);

  uint32_t& head = m->CacheBuckets[bucket_of(namehash)];
  rr->NextInBucket = head;
  head = index_plus_one_of(m, rr);
  m->CacheUsed++;
  m->counters.records_cached++;
  return rr;
}

void cache_refresh(mDNS* m, CacheRecord* rr, uint32_t ttl, int32_t now) {
  rr->ReceivedPacketSeq = m->PacketSeq;
  set_lifetime(m, rr, ttl, now);
}

void cache_expire_soon(CacheRecord* rr, int32_t now) {
  rr->ExpiryPending = 1;
  rr->ExpiryTime = time_add(now, kGoodbyeDelayMs);
  rr->NextRequiredQuery = rr->ExpiryTime;
}

void cache_remove(mDNS* m, CacheRecord* rr, int32_t now) {
  if (!rr->InUse) {
    return;
  }
  if (!rr->AddPending) {
    deliver_record_event(m, rr, QC_rmv, now);
  }
  rr->AddPending = 0;
  unlink_from_bucket(m, rr);
  rr->InUse = 0;
  rr->NextInBucket = m->CacheFree;
  m->CacheFree = index_plus_one_of(m, rr);
  m->CacheUsed--;
}

int32_t cache_next_event(const CacheRecord& rr) {
  if (!rr.ExpiryPending && rr.RefreshStep < kRefreshSteps &&
      time_diff(rr.NextRequiredQuery, rr.ExpiryTime) < 0) {
    return rr.NextRequiredQuery;
  }
  return rr.ExpiryTime;
}

int64_t cache_remaining_ms(const CacheRecord& rr, int32_t now) {
  return time_diff(rr.ExpiryTime, now);
}

void cache_advance_refresh(mDNS* m, CacheRecord* rr) {
  rr->RefreshStep++;
  rr->UnansweredQueries++;
  schedule_refresh(m, rr);
}

}  // namespace mdns
