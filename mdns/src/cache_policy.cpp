#include "cache_policy.h"

#include "cache.h"
#include "clock.h"
#include "questions.h"

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
    if (s.phase == Phase::kWaitingForCache) {
      return kPinned;
    }
    if (s.listening) {
      continue;
    }
    const Importance mine = s.kind == QuestionKind::kBrowse ? kBrowseAnswer : kNeeded;
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

}  // namespace

Importance importance_of(mDNS* m, CacheRecord* rr) {
  if (rr->add_pending) {
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

CacheRecord* choose_victim(mDNS* m) {
  CoreState& core = core_of(m);
  CacheRecord* idle = nullptr;
  CacheRecord* best_of_sender[kMaxSenders] = {};
  Importance best_importance[kMaxSenders] = {};
  for (uint32_t i = 0; i < core.cache_size; ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr == nullptr) {
      continue;
    }
    const Importance importance = importance_of(m, rr);
    if (importance == kIdle) {
      if (better_victim(rr, kIdle, idle, kIdle)) {
        idle = rr;
      }
    } else if (importance != kPinned &&
               better_victim(rr, importance, best_of_sender[rr->sender], best_importance[rr->sender])) {
      best_of_sender[rr->sender] = rr;
      best_importance[rr->sender] = importance;
    }
  }
  if (idle != nullptr) {
    return idle;
  }
  int top = -1;
  for (int s = 0; s < kMaxSenders; ++s) {
    if (best_of_sender[s] != nullptr && (top < 0 || core.senders[s].cached > core.senders[top].cached)) {
      top = s;
    }
  }
  return top < 0 ? nullptr : best_of_sender[top];
}

}  // namespace mdns
