#include "questions.h"

#include "cache.h"
#include "clock.h"
#include "names.h"

namespace mdns {
namespace {

constexpr uint32_t kFirstQueryMinDelayMs = 20;
constexpr uint32_t kFirstQueryMaxDelayMs = 120;
constexpr int32_t kSecondQueryInterval = 1000;

bool has_fresh_answer(mDNS* m, const DNSQuestion& q) {
  for (CacheRecord* rr = cache_bucket_first(m, q.qnamehash); rr != nullptr; rr = cache_bucket_next(m, rr)) {
    if (rr->InUse && !rr->ExpiryPending && question_answered_by(q, rr->resrec)) {
      return true;
    }
  }
  return false;
}

void schedule_first_query(mDNS* m, DNSQuestion* q, int32_t now) {
  q->SentOnce = 0;
  q->StartTime = now;
  q->ThisQInterval = kSecondQueryInterval;
  q->NextQTime = time_add(now, random_between(m, kFirstQueryMinDelayMs, kFirstQueryMaxDelayMs));
}

// A unique record that is cached needs no periodic queries: its refresh points
// keep it alive.  Querying resumes once the answer goes away.
void rest_schedule(DNSQuestion* q, int32_t now) {
  q->SentOnce = 1;
  q->ThisQInterval = kMaxQueryInterval;
  q->NextQTime = time_add(now, kMaxQueryInterval);
}

// An identical question already querying sets the pace: asking again at once
// would only repeat what is on the wire (or about to be).
const DNSQuestion* querying_twin(const mDNS* m, const DNSQuestion& q) {
  for (const DNSQuestion* it = m->Questions; it != nullptr; it = it->next) {
    if (it != &q && it->InterfaceID == q.InterfaceID && it->ThisQInterval < kMaxQueryInterval &&
        same_question(*it, q)) {
      return it;
    }
  }
  return nullptr;
}

void share_schedule(DNSQuestion* q, const DNSQuestion& twin) {
  q->SentOnce = twin.SentOnce;
  q->StartTime = twin.StartTime;
  q->LastQTime = twin.LastQTime;
  q->ThisQInterval = twin.ThisQInterval;
  q->NextQTime = twin.NextQTime;
}

void track_answer(mDNS* m, DNSQuestion* q, QC_result kind, int32_t now, RemoveCause cause) {
  if (kind == QC_add) {
    q->CurrentAnswers++;
    if (is_unique_type(q->qtype)) {
      rest_schedule(q, now);
    }
    return;
  }
  if (q->CurrentAnswers > 0) {
    q->CurrentAnswers--;
  }
  // An evicted answer still exists on the network: asking for it again would
  // only push another answer out of the full cache, and so on without end.
  if (q->CurrentAnswers == 0 && is_unique_type(q->qtype) && cause == RemoveCause::kGone) {
    schedule_first_query(m, q, now);
    m->NextScheduledEvent = time_min(m->NextScheduledEvent, q->NextQTime);
  }
}

void call_back(mDNS* m, DNSQuestion* q, const ResourceRecord& rr, QC_result kind) {
  if (q->QuestionCallback != nullptr) {
    q->QuestionCallback(m, q, &rr, kind);
  }
}

void deliver_cached_answers(mDNS* m, DNSQuestion* q, int32_t now) {
  for (CacheRecord* rr = cache_bucket_first(m, q->qnamehash); rr != nullptr; rr = cache_bucket_next(m, rr)) {
    if (!rr->InUse || rr->AddPending || !question_answered_by(*q, rr->resrec)) {
      continue;
    }
    track_answer(m, q, QC_add, now, RemoveCause::kGone);
    call_back(m, q, rr->resrec, QC_add);
    // The callback may have stopped this very question (or stopped and restarted
    // it, which schedules a delivery of its own).
    if (!question_is_active(m, q) || q->DeliverAddsPending) {
      return;
    }
  }
}

}  // namespace

bool is_unique_type(uint16_t rrtype) {
  return rrtype == kDNSType_SRV || rrtype == kDNSType_TXT || rrtype == kDNSType_A || rrtype == kDNSType_AAAA;
}

bool question_is_active(const mDNS* m, const DNSQuestion* q) {
  for (const DNSQuestion* it = m->Questions; it != nullptr; it = it->next) {
    if (it == q) {
      return true;
    }
  }
  return false;
}

bool same_question(const DNSQuestion& a, const DNSQuestion& b) {
  return a.qnamehash == b.qnamehash && a.qtype == b.qtype && a.qclass == b.qclass &&
         names_equal(a.qname, b.qname);
}

bool question_answered_by(const DNSQuestion& q, const ResourceRecord& rr) {
  if (q.qtype != rr.rrtype && q.qtype != kDNSType_ANY) {
    return false;
  }
  if (q.qclass != rr.rrclass && q.qclass != kDNSType_ANY) {
    return false;
  }
  if (q.InterfaceID != mDNSInterface_Any && q.InterfaceID != rr.InterfaceID) {
    return false;
  }
  return q.qnamehash == rr.namehash && names_equal(q.qname, *rr.name);
}

bool record_answers_active_question(const mDNS* m, const ResourceRecord& rr) {
  for (const DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (q->qnamehash == rr.namehash && question_answered_by(*q, rr)) {
      return true;
    }
  }
  return false;
}

mStatus question_start(mDNS* m, DNSQuestion* q, int32_t now) {
  if (!m->Initialized || m->ShutdownPending) {
    return mStatus_NotInitializedErr;
  }
  if (question_is_active(m, q)) {
    return mStatus_AlreadyRegistered;
  }
  if (name_length(q->qname) == 0) {
    return mStatus_BadParamErr;
  }
  q->qnamehash = name_hash(q->qname);
  q->next = nullptr;
  q->CurrentAnswers = 0;
  q->LastQTime = now;
  q->RefreshPending = 0;
  q->SendNow = 0;
  q->Active = 1;
  q->DeliverAddsPending = 1;
  if (is_unique_type(q->qtype) && has_fresh_answer(m, *q)) {
    rest_schedule(q, now);
  } else if (const DNSQuestion* twin = querying_twin(m, *q)) {
    share_schedule(q, *twin);
  } else {
    schedule_first_query(m, q, now);
  }
  DNSQuestion** tail = &m->Questions;
  while (*tail != nullptr) {
    tail = &(*tail)->next;
  }
  *tail = q;
  m->QuestionGeneration++;
  m->NextScheduledEvent = now;
  return mStatus_NoError;
}

void question_stop(mDNS* m, DNSQuestion* q) {
  for (DNSQuestion** link = &m->Questions; *link != nullptr; link = &(*link)->next) {
    if (*link != q) {
      continue;
    }
    if (m->CurrentQuestion == q) {
      m->CurrentQuestion = q->next;
    }
    *link = q->next;
    m->QuestionGeneration++;
    q->next = nullptr;
    q->Active = 0;
    q->DeliverAddsPending = 0;
    return;
  }
}

void question_ask_again(mDNS* m, DNSQuestion* q, int32_t now) {
  if (const DNSQuestion* twin = querying_twin(m, *q)) {
    share_schedule(q, *twin);
  } else {
    schedule_first_query(m, q, now);
  }
  m->NextScheduledEvent = time_min(m->NextScheduledEvent, q->NextQTime);
}

void deliver_record_event(mDNS* m, CacheRecord* rr, QC_result kind, int32_t now, RemoveCause cause) {
  // Callbacks may start and stop questions: the cursor in m->CurrentQuestion is
  // moved on by question_stop when its question leaves the list.
  DNSQuestion* const saved = m->CurrentQuestion;
  const mDNSu8 saved_eviction = m->EvictionInProgress;
  m->EvictionInProgress = cause == RemoveCause::kEvicted ? 1 : 0;
  m->CurrentQuestion = m->Questions;
  while (m->CurrentQuestion != nullptr) {
    DNSQuestion* q = m->CurrentQuestion;
    m->CurrentQuestion = q->next;
    if (q->DeliverAddsPending || !question_answered_by(*q, rr->resrec)) {
      continue;
    }
    track_answer(m, q, kind, now, cause);
    call_back(m, q, rr->resrec, kind);
  }
  m->EvictionInProgress = saved_eviction;
  m->CurrentQuestion = saved;
}

void deliver_pending_adds(mDNS* m, int32_t now) {
  // Only questions started before this pass: one restarted by a callback waits
  // for the next pass, so a callback that keeps restarting cannot hold a pass.
  constexpr mDNSu8 kDueThisPass = 2;
  for (DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (q->DeliverAddsPending) {
      q->DeliverAddsPending = kDueThisPass;
    }
  }
  DNSQuestion* const saved = m->CurrentQuestion;
  m->CurrentQuestion = m->Questions;
  while (m->CurrentQuestion != nullptr) {
    DNSQuestion* q = m->CurrentQuestion;
    m->CurrentQuestion = q->next;
    if (q->DeliverAddsPending != kDueThisPass) {
      continue;
    }
    q->DeliverAddsPending = 0;
    deliver_cached_answers(m, q, now);
    // It rested on a cached answer that has left (evicted) before delivery.
    if (question_is_active(m, q) && !q->DeliverAddsPending && q->CurrentAnswers == 0 &&
        q->ThisQInterval == kMaxQueryInterval) {
      question_ask_again(m, q, now);
    }
  }
  m->CurrentQuestion = saved;
}

bool any_adds_pending(const mDNS* m) {
  for (const DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (q->DeliverAddsPending) {
      return true;
    }
  }
  return false;
}

}  // namespace mdns
