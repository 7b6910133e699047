#include "query_schedule.h"

#include "cache.h"
#include "clock.h"
#include "message_writer.h"
#include "platform.h"
#include "questions.h"

namespace mdns {
namespace {

constexpr int32_t kFirstQueryMinDelayMs = 20;

bool due_by_schedule(const DNSQuestion& q, int32_t now) {
  return time_reached(q.NextQTime, now);
}

// Joins a packet that goes out now: due within the grouping window, and a first
// query never earlier than its minimum delay.
bool may_join(const DNSQuestion& q, int32_t now) {
  if (q.RefreshPending) {
    return true;
  }
  if (!q.SentOnce && time_diff(now, q.StartTime) < kFirstQueryMinDelayMs) {
    return false;
  }
  return time_diff(q.NextQTime, now) <= kQueryGroupingWindowMs;
}

bool for_interface(const DNSQuestion& q, mDNSInterfaceID interface_id) {
  return q.InterfaceID == mDNSInterface_Any || q.InterfaceID == interface_id;
}

// A question that goes out now takes its identical twins along: they ask the
// same thing, so from here on they share one schedule and one place on the wire.
void join_identical_questions(mDNS* m) {
  for (DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (!q->SendNow || q->DeliverAddsPending) {
      continue;
    }
    for (DNSQuestion* twin = m->Questions; twin != nullptr; twin = twin->next) {
      if (!twin->SendNow && twin->InterfaceID == q->InterfaceID && same_question(*twin, *q)) {
        twin->SendNow = 1;
      }
    }
  }
}

bool select_questions(mDNS* m, int32_t now) {
  bool any_due = false;
  for (DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (q->RefreshPending || due_by_schedule(*q, now)) {
      any_due = true;
    }
  }
  for (DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    q->SendNow = any_due && may_join(*q, now) ? 1 : 0;
    q->KnownAnswersSpilled = 0;
  }
  if (any_due) {
    join_identical_questions(m);
  }
  return any_due;
}

// Several questions of the core may ask the same thing (e.g. many resolves of
// services on one host): it goes on the wire once, with the first of them.
bool asked_earlier(const mDNS* m, const DNSQuestion* q, mDNSInterfaceID interface_id) {
  for (const DNSQuestion* it = m->Questions; it != q; it = it->next) {
    if (it->SendNow && for_interface(*it, interface_id) && same_question(*it, *q)) {
      return true;
    }
  }
  return false;
}

bool goes_on(const mDNS* m, const DNSQuestion* q, mDNSInterfaceID interface_id) {
  return q->SendNow && for_interface(*q, interface_id) && !asked_earlier(m, q, interface_id);
}

// The first query of a question asks for unicast responses: a responder that
// has just multicast the answer (its one-second rule would hold back another
// multicast) can then answer at once.  Later queries ask for multicast, so
// that every cache on the link stays fresh and a reply that another process
// on this host received in our place is made up for.
bool wants_unicast(const DNSQuestion* q, mDNSInterfaceID interface_id) {
  for (const DNSQuestion* it = q; it != nullptr; it = it->next) {
    if (it->SendNow && !it->SentOnce && for_interface(*it, interface_id) && same_question(*it, *q)) {
      return true;
    }
  }
  return false;
}

class PacketSender {
 public:
  PacketSender(mDNS* m, mDNSInterfaceID interface_id, int family)
      : m_(m), interface_id_(interface_id), family_(family) {}

  // The platform counts packets and bytes sent.
  void send(size_t length) { (void)platform_send(m_, interface_id_, family_, m_->txbuf, length); }

 private:
  mDNS* m_;
  mDNSInterfaceID interface_id_;
  int family_;
};

// Cached answers on this interface whose remaining TTL is above half the
// original go along, so that responders holding the same need not answer.
bool write_known_answers(mDNS* m, DNSQuestion& q, mDNSInterfaceID interface_id, int32_t now, QueryWriter*& w,
                         PacketSender& sender, QueryWriter& spare) {
  for (CacheRecord* rr = cache_bucket_first(m, q.qnamehash); rr != nullptr; rr = cache_bucket_next(m, rr)) {
    if (!rr->InUse || rr->ExpiryPending || rr->KnownAnswerMark == m->SendSerial ||
        rr->resrec.InterfaceID != interface_id || !question_answered_by(q, rr->resrec)) {
      continue;
    }
    const int64_t remaining = cache_remaining_ms(*rr, now);
    if (remaining * 2 <= static_cast<int64_t>(rr->resrec.rroriginalttl) * 1000) {
      continue;
    }
    rr->KnownAnswerMark = m->SendSerial;
    const uint32_t ttl = static_cast<uint32_t>(remaining / 1000);
    if (w->add_known_answer(*rr->resrec.name, rr->resrec.rrtype, rr->resrec.rrclass, ttl,
                            *rr->resrec.rdata)) {
      continue;
    }
    // Full: this packet goes with TC set, the rest follow in the next.
    q.KnownAnswersSpilled = 1;
    w->set_truncated();
    sender.send(w->finish());
    spare = QueryWriter(m->txbuf, kMaxQueryPayload);
    w = &spare;
    (void)w->add_known_answer(*rr->resrec.name, rr->resrec.rrtype, rr->resrec.rrclass, ttl,
                              *rr->resrec.rdata);
  }
  return true;
}

void send_on(mDNS* m, mDNSInterfaceID interface_id, int family, int32_t now) {
  PacketSender sender(m, interface_id, family);
  // Questions go in packets as they fit; each packet carries the known answers
  // of its own questions.
  DNSQuestion* next = m->Questions;
  while (next != nullptr) {
    QueryWriter first(m->txbuf, kMaxQueryPayload);
    DNSQuestion* begin = next;
    DNSQuestion* end = next;
    for (; end != nullptr; end = end->next) {
      if (!goes_on(m, end, interface_id)) {
        continue;
      }
      if (!first.add_question(end->qname, end->qtype, end->qclass, wants_unicast(end, interface_id))) {
        break;
      }
      m->counters.queries_sent++;
    }
    if (first.question_count() == 0) {
      return;
    }
    m->SendSerial++;
    QueryWriter spare(m->txbuf, kMaxQueryPayload);
    QueryWriter* w = &first;
    for (DNSQuestion* q = begin; q != end; q = q->next) {
      if (goes_on(m, q, interface_id)) {
        write_known_answers(m, *q, interface_id, now, w, sender, spare);
      }
    }
    sender.send(w->finish());
    next = end;
  }
}

int32_t grown_interval(int32_t interval, int32_t factor) {
  return interval >= kMaxQueryInterval / factor ? kMaxQueryInterval : interval * factor;
}

// Identical questions keep one schedule, so a spill seen by the one that went
// on the wire counts for its twins too.
void share_spills(mDNS* m) {
  for (DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (!q->SendNow || !q->KnownAnswersSpilled) {
      continue;
    }
    for (DNSQuestion* twin = m->Questions; twin != nullptr; twin = twin->next) {
      if (twin->SendNow && twin->InterfaceID == q->InterfaceID && same_question(*twin, *q)) {
        twin->KnownAnswersSpilled = 1;
      }
    }
  }
}

// Intervals double; a query whose known answers filled several packets is
// costly for every host on the link, so after one the next interval is four
// times the last instead.
void advance_schedules(mDNS* m, int32_t now) {
  share_spills(m);
  for (DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (!q->SendNow) {
      continue;
    }
    q->SendNow = 0;
    q->LastQTime = now;
    const bool refresh_only =
        q->RefreshPending && q->SentOnce && time_diff(q->NextQTime, now) > kQueryGroupingWindowMs;
    q->RefreshPending = 0;
    if (refresh_only) {
      continue;
    }
    q->SentOnce = 1;
    if (q->KnownAnswersSpilled) {
      q->ThisQInterval = grown_interval(q->ThisQInterval, 2);
    }
    q->NextQTime = time_add(now, q->ThisQInterval);
    q->ThisQInterval = grown_interval(q->ThisQInterval, 2);
  }
}

}  // namespace

void send_due_queries(mDNS* m, int32_t now) {
  if (!select_questions(m, now)) {
    return;
  }
  for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
    if (i->v4usable) {
      send_on(m, i->InterfaceID, 4, now);
    }
    if (i->v6usable) {
      send_on(m, i->InterfaceID, 6, now);
    }
  }
  advance_schedules(m, now);
}

bool next_query_time(const mDNS* m, int32_t& when) {
  bool any = false;
  for (const DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (q->RefreshPending) {
      when = m->timenow;
      return true;
    }
    when = any ? time_min(when, q->NextQTime) : q->NextQTime;
    any = true;
  }
  return any;
}

}  // namespace mdns
