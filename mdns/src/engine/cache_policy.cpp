#include "engine/cache_policy.h"

#include "cache/cache.h"
#include "engine/questions.h"
#include "platform/clock.h"

namespace mdns {
namespace {

Importance compute_importance(mDNS* m, const CacheRecord& rr) {
  Importance result = kIdle;
  CoreState& core = core_of(m);
  for (DNSQuestion* q = core.question_buckets[rr.resrec.namehash % kQuestionBuckets]; q != nullptr;
       q = state_of(q).bucket_next) {
    const QuestionState& s = state_of(q);
    if (!question_answered_by(*q, rr.resrec)) {
      continue;
    }
    if (!s.delivered) {
      return kPinned;
    }
    // A resolve that has reported an address only listens, but the host's
    // other instances, whose resolves start later, need the same address.
    if (s.listening && s.kind != QuestionKind::kResolveAddress) {
      continue;
    }
    const Importance mine = s.kind == QuestionKind::kBrowse           ? kBrowseAnswer
                            : s.kind == QuestionKind::kResolveAddress ? kAddress
                                                                      : kNeeded;
    result = mine > result ? mine : result;
  }
  return result;
}

// Whether `a` is a better victim than `b` (null: any is better).
bool better_victim(const CacheRecord* a, Importance ia, const CacheRecord* b, Importance ib) {
  if (b == nullptr) {
    return true;
  }
  if (ia != ib) {
    return ia < ib;
  }
  return time_diff(a->expiry, b->expiry) < 0;
}

// ---- The next victims ----
//
// A scan of the whole cache for every eviction would make a full cache slow to
// churn, so one scan lists the next victims of a kind, best first: idle
// entries of anybody, or the entries of the sender that holds the most.  A
// listed entry whose expiry or importance changed since is stepped over; an
// entry whose expiry changes, or that is delivered, is noted in its new place.
// A list that held every entry of its kind when it was built, once used up,
// means there is none; one that did not is built again.  Questions that start,
// stop or stop asking change what is idle and needed: the lists are built
// again then.

bool ahead(Importance ia, int32_t ea, uint8_t ib, int32_t eb) {
  return ia != ib ? ia < ib : time_diff(ea, eb) < 0;
}

void list_insert(VictimList& list, uint32_t entry, Importance importance, int32_t expiry) {
  uint32_t pos = list.count;
  if (pos == kVictimListSize) {
    list.complete = false;
    if (!ahead(importance, expiry, list.importance[pos - 1], list.expiry[pos - 1])) {
      return;
    }
    --pos;
  } else {
    list.count++;
  }
  while (pos > list.next && ahead(importance, expiry, list.importance[pos - 1], list.expiry[pos - 1])) {
    list.entry[pos] = list.entry[pos - 1];
    list.expiry[pos] = list.expiry[pos - 1];
    list.importance[pos] = list.importance[pos - 1];
    --pos;
  }
  list.entry[pos] = entry;
  list.expiry[pos] = expiry;
  list.importance[pos] = importance;
}

void compact(VictimList& list) {
  const uint32_t left = list.count - list.next;
  for (uint32_t i = 0; i < left; ++i) {
    list.entry[i] = list.entry[list.next + i];
    list.expiry[i] = list.expiry[list.next + i];
    list.importance[i] = list.importance[list.next + i];
  }
  list.count = left;
  list.next = 0;
}

bool belongs(const VictimList& list, const CacheRecord& rr, Importance importance) {
  return list.sender < 0 ? importance == kIdle : importance != kPinned && rr.sender == list.sender;
}

void build_list(mDNS* m, VictimList& list, int sender) {
  CoreState& core = core_of(m);
  list = VictimList{};
  list.sender = sender;
  list.complete = true;
  for (uint32_t i = 0; i < core.cache_size; ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr == nullptr) {
      continue;
    }
    const Importance importance = importance_of(m, rr);
    if (belongs(list, *rr, importance)) {
      list_insert(list, i + 1, importance, rr->expiry);
    }
  }
  list.valid = true;
  list.generation = core.question_generation;
}

bool list_current(const CoreState& core, const VictimList& list, int sender) {
  return list.valid && list.generation == core.question_generation && list.sender == sender;
}

CacheRecord* pop(mDNS* m, VictimList& list, int sender) {
  CoreState& core = core_of(m);
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!list_current(core, list, sender)) {
      build_list(m, list, sender);
    }
    while (list.next < list.count) {
      const uint32_t at = list.next++;
      CacheRecord& rr = record_at(core, list.entry[at]);
      if (rr.in_use && rr.expiry == list.expiry[at] && importance_of(m, &rr) == list.importance[at] &&
          belongs(list, rr, importance_of(m, &rr))) {
        return &rr;
      }
    }
    if (list.complete) {
      return nullptr;
    }
    list.valid = false;
  }
  return nullptr;
}

void note(mDNS* m, VictimList& list, CacheRecord* rr) {
  CoreState& core = core_of(m);
  if (!list_current(core, list, list.sender)) {
    return;
  }
  const Importance importance = importance_of(m, rr);
  if (!belongs(list, *rr, importance)) {
    return;
  }
  const uint32_t last = list.count - 1;
  if (list.count == kVictimListSize &&
      !ahead(importance, rr->expiry, list.importance[last], list.expiry[last])) {
    list.complete = false;
    return;
  }
  if (list.next > 0) {
    compact(list);
  }
  list_insert(list, index_of(core, rr), importance, rr->expiry);
}

int top_sender(const CoreState& core) {
  int top = -1;
  for (int s = 0; s < kMaxSenders; ++s) {
    if (core.senders[s].cached > 0 && (top < 0 || core.senders[s].cached > core.senders[top].cached)) {
      top = s;
    }
  }
  return top;
}

// The least needed entry of the sender with the most entries that are not pinned.
CacheRecord* least_needed_of_anybody(mDNS* m) {
  CoreState& core = core_of(m);
  CacheRecord* best_of_sender[kMaxSenders] = {};
  Importance best_importance[kMaxSenders] = {};
  for (uint32_t i = 0; i < core.cache_size; ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr == nullptr) {
      continue;
    }
    const Importance importance = importance_of(m, rr);
    if (importance != kPinned &&
        better_victim(rr, importance, best_of_sender[rr->sender], best_importance[rr->sender])) {
      best_of_sender[rr->sender] = rr;
      best_importance[rr->sender] = importance;
    }
  }
  int top = -1;
  for (int s = 0; s < kMaxSenders; ++s) {
    if (best_of_sender[s] != nullptr && (top < 0 || core.senders[s].cached > core.senders[top].cached)) {
      top = s;
    }
  }
  return top < 0 ? nullptr : best_of_sender[top];
}

}  // namespace

Importance importance_of(mDNS* m, CacheRecord* rr) {
  if (rr->add_pending || rr->in_packet) {
    return kPinned;
  }
  // What questions need only changes when a question starts, stops or stops
  // asking, so the answer is kept until then.
  CoreState& core = core_of(m);
  if (rr->importance_generation != core.question_generation) {
    rr->importance = compute_importance(m, *rr);
    rr->importance_generation = core.question_generation;
  }
  return static_cast<Importance>(rr->importance);
}

void note_victim_candidate(mDNS* m, CacheRecord* rr) {
  CoreState& core = core_of(m);
  note(m, core.idle_victims, rr);
  note(m, core.sender_victims, rr);
}

CacheRecord* choose_victim(mDNS* m) {
  CoreState& core = core_of(m);
  if (CacheRecord* idle = pop(m, core.idle_victims, -1)) {
    return idle;
  }
  // No entry is idle: the sender holding the most entries gives up its least
  // needed one.  (Should all of that sender's be pinned, any other's will do.)
  const int top = top_sender(core);
  if (top < 0) {
    return nullptr;
  }
  if (CacheRecord* rr = pop(m, core.sender_victims, top)) {
    return rr;
  }
  return least_needed_of_anybody(m);
}

}  // namespace mdns
