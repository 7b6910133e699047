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

uint32_t identity_bucket_of(uint32_t namehash, uint32_t datahash) {
  return (namehash ^ (datahash * 2654435761u)) % mDNS_CacheBuckets;
}

// Two doubly linked chains per entry: by owner name (what questions look up)
// and by name and data (what re-receipts look up); both unlink in constant time.
void link_entry(mDNS* m, CacheRecord* rr) {
  const uint32_t self = index_plus_one_of(m, rr);
  uint32_t& head = m->CacheBuckets[bucket_of(rr->resrec.namehash)];
  rr->PrevInBucket = 0;
  rr->NextInBucket = head;
  if (head != 0) {
    entry_at(m, head)->PrevInBucket = self;
  }
  head = self;
  uint32_t& ihead = m->IdentityBuckets[identity_bucket_of(rr->resrec.namehash, rr->RDataHash)];
  rr->PrevInIdentity = 0;
  rr->NextInIdentity = ihead;
  if (ihead != 0) {
    entry_at(m, ihead)->PrevInIdentity = self;
  }
  ihead = self;
}

void unlink_entry(mDNS* m, CacheRecord* rr) {
  if (rr->PrevInBucket != 0) {
    entry_at(m, rr->PrevInBucket)->NextInBucket = rr->NextInBucket;
  } else {
    m->CacheBuckets[bucket_of(rr->resrec.namehash)] = rr->NextInBucket;
  }
  if (rr->NextInBucket != 0) {
    entry_at(m, rr->NextInBucket)->PrevInBucket = rr->PrevInBucket;
  }
  if (rr->PrevInIdentity != 0) {
    entry_at(m, rr->PrevInIdentity)->NextInIdentity = rr->NextInIdentity;
  } else {
    m->IdentityBuckets[identity_bucket_of(rr->resrec.namehash, rr->RDataHash)] = rr->NextInIdentity;
  }
  if (rr->NextInIdentity != 0) {
    entry_at(m, rr->NextInIdentity)->PrevInIdentity = rr->PrevInIdentity;
  }
}

// Whether a record answers an active question only changes when a question
// starts or stops, so the answer is kept until then.
bool answers_active_question(mDNS* m, CacheRecord* rr) {
  if (rr->AnswerCheckGeneration != m->QuestionGeneration) {
    rr->AnswersQuestion = record_answers_active_question(m, rr->resrec) ? 1 : 0;
    rr->AnswerCheckGeneration = m->QuestionGeneration;
  }
  return rr->AnswersQuestion != 0;
}

// Eviction takes the entry nearest its expiry among those answering no active
// question, else the entry nearest its expiry.  A full scan for every eviction
// would make a full cache slow to churn, so one scan lists the next few victims
// of both kinds in expiry order.  A list that is not full holds every entry of
// its kind; a new entry joins in its place (pushing out the last one if the
// list is full, after which it no longer holds every entry of its kind).  Any
// entry whose expiry moves earlier drops both lists, and a question starting or
// stopping drops the idle list.
constexpr mDNSu32 kListSize = mDNS_EvictionCandidates;

void drop_consumed(mDNSEvictionList& list) {
  if (list.next == 0) {
    return;
  }
  const mDNSu32 left = list.count - list.next;
  for (mDNSu32 i = 0; i < left; ++i) {
    list.entry[i] = list.entry[list.next + i];
    list.expiry[i] = list.expiry[list.next + i];
  }
  list.count = left;
  list.next = 0;
}

// Inserts in expiry order, dropping the last entry of a full list.
void list_insert(mDNSEvictionList& list, mDNSu32 entry, int32_t expiry) {
  drop_consumed(list);
  mDNSu32 pos = list.count;
  if (pos == kListSize) {
    list.complete = 0;
    if (time_diff(expiry, list.expiry[pos - 1]) >= 0) {
      return;
    }
    --pos;
  } else {
    list.count++;
  }
  while (pos > list.next && time_diff(expiry, list.expiry[pos - 1]) < 0) {
    list.entry[pos] = list.entry[pos - 1];
    list.expiry[pos] = list.expiry[pos - 1];
    --pos;
  }
  list.entry[pos] = entry;
  list.expiry[pos] = expiry;
}

void list_note_new_entry(mDNSEvictionList& list, mDNSu32 entry, int32_t expiry) {
  if (list.valid) {
    list_insert(list, entry, expiry);
  }
}

void note_new_entry(mDNS* m, CacheRecord* rr) {
  const mDNSu32 entry = index_plus_one_of(m, rr);
  list_note_new_entry(m->EvictAny, entry, rr->ExpiryTime);
  if (m->EvictIdle.valid && m->EvictGeneration == m->QuestionGeneration && !answers_active_question(m, rr)) {
    list_note_new_entry(m->EvictIdle, entry, rr->ExpiryTime);
  }
}

void invalidate_eviction_lists(mDNS* m) {
  m->EvictIdle.valid = 0;
  m->EvictAny.valid = 0;
}

void build_eviction_lists(mDNS* m) {
  mDNSEvictionList& idle = m->EvictIdle;
  mDNSEvictionList& any = m->EvictAny;
  idle.count = idle.next = 0;
  any.count = any.next = 0;
  idle.complete = any.complete = 1;
  for (mDNSu32 i = 0; i < m->rrcache_size; ++i) {
    CacheRecord* rr = &m->rrcache[i].r;
    if (!rr->InUse) {
      continue;
    }
    list_insert(any, i + 1, rr->ExpiryTime);
    if (!answers_active_question(m, rr)) {
      list_insert(idle, i + 1, rr->ExpiryTime);
    }
  }
  idle.valid = 1;
  any.valid = 1;
  m->EvictGeneration = m->QuestionGeneration;
}

// Refreshed or replaced entries are no longer where the list put them.
CacheRecord* list_pop(mDNS* m, mDNSEvictionList& list, bool need_idle) {
  while (list.next < list.count) {
    const mDNSu32 at = list.next++;
    CacheRecord* rr = entry_at(m, list.entry[at]);
    if (rr->InUse && rr->ExpiryTime == list.expiry[at] && (!need_idle || !answers_active_question(m, rr))) {
      return rr;
    }
  }
  return nullptr;
}

bool lists_usable(const mDNS* m) {
  return m->EvictIdle.valid && m->EvictAny.valid && m->EvictGeneration == m->QuestionGeneration;
}

CacheRecord* choose_victim(mDNS* m) {
  if (!lists_usable(m)) {
    build_eviction_lists(m);
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (CacheRecord* rr = list_pop(m, m->EvictIdle, true)) {
      return rr;
    }
    // An exhausted idle list that held every idle entry: none is left.
    if (m->EvictIdle.complete) {
      if (CacheRecord* rr = list_pop(m, m->EvictAny, false)) {
        return rr;
      }
      if (m->EvictAny.complete) {
        return nullptr;
      }
    }
    build_eviction_lists(m);
  }
  return nullptr;
}

CacheRecord* take_free_entry(mDNS* m, int32_t now) {
  if (m->CacheFree == 0) {
    CacheRecord* victim = choose_victim(m);
    if (victim == nullptr) {
      return nullptr;
    }
    m->counters.records_evicted++;
    cache_remove(m, victim, now, RemoveCause::kEvicted);
  }
  CacheRecord* rr = entry_at(m, m->CacheFree);
  if (rr != nullptr) {
    m->CacheFree = rr->NextInBucket;
  }
  return rr;
}

}  // namespace

void cache_reset(mDNS* m) {
  invalidate_eviction_lists(m);
  m->CacheFree = 0;
  m->CacheUsed = 0;
  for (mDNSu32 b = 0; b < mDNS_CacheBuckets; ++b) {
    m->CacheBuckets[b] = 0;
    m->IdentityBuckets[b] = 0;
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

uint32_t rdata_hash(uint16_t rrtype, const RData& rdata) {
  switch (rrtype) {
    case kDNSType_PTR:
      return name_hash(rdata.u.name);
    case kDNSType_SRV:
      return name_hash(rdata.u.srv.target) ^ (static_cast<uint32_t>(rdata.u.srv.port.NotAnInteger) << 16) ^
             rdata.u.srv.priority ^ (static_cast<uint32_t>(rdata.u.srv.weight) << 8);
    default:
      break;
  }
  uint32_t h = 2166136261u;  // FNV-1a over ASCII-lowered bytes
  const size_t n = rdata.length < sizeof(rdata.u.data) ? rdata.length : sizeof(rdata.u.data);
  for (size_t i = 0; i < n; ++i) {
    uint8_t c = rdata.u.data[i];
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<uint8_t>(c + ('a' - 'A'));
    }
    h = (h ^ c) * 16777619u;
  }
  return h;
}

CacheRecord* cache_find(mDNS* m, const ParsedRecord& rec, uint32_t namehash, uint32_t datahash,
                        mDNSInterfaceID interface_id) {
  for (CacheRecord* rr = entry_at(m, m->IdentityBuckets[identity_bucket_of(namehash, datahash)]);
       rr != nullptr; rr = entry_at(m, rr->NextInIdentity)) {
    const ResourceRecord& r = rr->resrec;
    if (r.namehash == namehash && rr->RDataHash == datahash && r.rrtype == rec.rrtype &&
        r.rrclass == rec.rrclass && r.InterfaceID == interface_id && names_equal(*r.name, rec.name) &&
        rdata_equal(r.rrtype, *r.rdata, rec.rdata)) {
      return rr;
    }
  }
  return nullptr;
}

CacheRecord* cache_insert(mDNS* m, const ParsedRecord& rec, uint32_t namehash, uint32_t datahash,
                          mDNSInterfaceID interface_id, int32_t now) {
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
  rr->RDataHash = datahash;
  rr->AnswerCheckGeneration = m->QuestionGeneration - 1;
  r.rdata = &rr->rdatastorage;
  rr->InUse = 1;
  rr->AddPending = 0;
  rr->DelayDelivery = 0;
  rr->KnownAnswerMark = 0;
  rr->ReceivedPacketSeq = m->PacketSeq;
  set_lifetime(m, rr, rec.ttl, now);

  link_entry(m, rr);
  m->CacheUsed++;
  m->counters.records_cached++;
  note_new_entry(m, rr);
  return rr;
}

void cache_refresh(mDNS* m, CacheRecord* rr, uint32_t ttl, int32_t now) {
  const int32_t old_expiry = rr->ExpiryTime;
  rr->ReceivedPacketSeq = m->PacketSeq;
  set_lifetime(m, rr, ttl, now);
  if (time_diff(rr->ExpiryTime, old_expiry) < 0) {
    invalidate_eviction_lists(m);  // a shorter TTL can move it ahead of listed entries
  }
}

void cache_expire_soon(mDNS* m, CacheRecord* rr, int32_t now) {
  invalidate_eviction_lists(m);
  rr->ExpiryPending = 1;
  rr->ExpiryTime = time_add(now, kGoodbyeDelayMs);
  rr->NextRequiredQuery = rr->ExpiryTime;
}

void cache_remove(mDNS* m, CacheRecord* rr, int32_t now, RemoveCause cause) {
  if (!rr->InUse) {
    return;
  }
  if (!rr->AddPending) {
    deliver_record_event(m, rr, QC_rmv, now, cause);
  }
  rr->AddPending = 0;
  unlink_entry(m, rr);
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
