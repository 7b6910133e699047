#include "ask/query_schedule.h"

#include <initializer_list>

#include "ask/question_lists.h"
#include "ask/send_governor.h"
#include "ask/unicast_dns.h"
#include "cache/browse_answers.h"
#include "cache/cache.h"
#include "engine/engine.h"
#include "engine/questions.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "wire/message_writer.h"
#include "wire/names.h"

namespace mdns {
namespace {

// A query that found no room in any interface's budget tries again this much later.
constexpr int32_t kBudgetRetryMs = 50;

struct ScheduleAccess {
  static HeapLinks<DNSQuestion>& links(DNSQuestion* q) { return state_of(q).schedule; }
};
using Schedule = PairingHeap<DNSQuestion, ScheduleAccess>;

void place(CoreState& core, DNSQuestion* leader, int32_t when) {
  Schedule(core.schedule_root).insert(leader, when);
}

void unplace(CoreState& core, DNSQuestion* leader) {
  Schedule(core.schedule_root).remove(leader);
}

bool querying(Phase phase) {
  return phase == Phase::kFirstQueryDue || phase == Phase::kBackingOff;
}

void plan_first_query(mDNS* m, DNSQuestion* leader, int32_t from) {
  CoreState& core = core_of(m);
  QuestionState& s = state_of(leader);
  s.phase = Phase::kFirstQueryDue;
  s.refresh_wanted = false;
  const int32_t delay =
      static_cast<int32_t>(random_between(core.random_state, kFirstQueryMinDelayMs, kFirstQueryMaxDelayMs));
  s.next_query_time = time_add(from, delay);
  if (time_diff(s.next_query_time, core.now) < 0) {
    s.next_query_time = core.now;
  }
  place(core, leader, s.next_query_time);
}

void go_quiet(CoreState& core, DNSQuestion* leader) {
  QuestionState& s = state_of(leader);
  unplace(core, leader);
  s.phase = Phase::kQuiet;
  s.refresh_wanted = false;
}

// A query may join a packet that goes out now when it is due within the
// grouping window, but never before its own minimum interval allows.
bool may_join(const QuestionState& s, int32_t now) {
  if (!governor_may_query(s, now)) {
    return false;
  }
  if (s.refresh_wanted) {
    return true;
  }
  if (s.phase == Phase::kFirstQueryDue) {
    return time_diff(now, s.start_time) >= kFirstQueryMinDelayMs;
  }
  return s.phase == Phase::kBackingOff && time_diff(now, s.last_query_time) >= s.min_interval;
}

bool for_interface(const DNSQuestion& q, mDNSInterfaceID interface_id) {
  return q.InterfaceID == mDNSInterface_Any || q.InterfaceID == interface_id;
}

int32_t grown(int32_t interval, int32_t factor) {
  return interval >= kMaxQueryIntervalMs / factor ? kMaxQueryIntervalMs : interval * factor;
}

// Takes the due leaders (and those that may join them) out of the schedule,
// chained through next_to_send.
DNSQuestion* take_due(CoreState& core, int32_t now) {
  Schedule schedule(core.schedule_root);
  DNSQuestion* top = schedule.top();
  if (top == nullptr || !time_reached(Schedule::key_of(top), now)) {
    return nullptr;
  }
  DNSQuestion* chosen = nullptr;
  DNSQuestion** tail = &chosen;
  DNSQuestion* aside = nullptr;
  while ((top = schedule.top()) != nullptr &&
         time_diff(Schedule::key_of(top), now) <= kQueryGroupingWindowMs) {
    const int32_t key = Schedule::key_of(top);
    schedule.remove(top);
    QuestionState& s = state_of(top);
    if ((time_reached(key, now) && governor_may_query(s, now)) || may_join(s, now)) {
      *tail = top;
      tail = &s.next_to_send;
    } else {
      // Due, but it asked less than a second ago: it waits for its turn.
      s.schedule.key = time_reached(key, now) ? governor_next_query_allowed(s) : key;
      s.next_to_send = aside;
      aside = top;
    }
  }
  *tail = nullptr;
  while (aside != nullptr) {
    DNSQuestion* next = state_of(aside).next_to_send;
    schedule.insert(aside, state_of(aside).schedule.key);
    aside = next;
  }
  return chosen;
}

// Writes packets for one interface and family: questions as they fit, each
// packet followed by the known answers of its own questions (continued in
// packets with TC set when they do not fit, up to the governor's cap).  Every
// packet takes its place in the interface's budget; questions that went out
// nowhere are left for a later pass.
class PacketBuilder {
 public:
  PacketBuilder(mDNS* m, mDNSInterfaceID interface_id, int family, int32_t now)
      : m_(m), core_(core_of(m)), interface_id_(interface_id), family_(family), now_(now) {}

  void send_all(DNSQuestion* chosen) {
    DNSQuestion* next = chosen;
    while (next != nullptr) {
      QueryWriter first(core_.txbuf, kMaxQueryPayload);
      DNSQuestion* begin = next;
      DNSQuestion* end = next;
      bool new_question = false;
      for (; end != nullptr; end = state_of(end).next_to_send) {
        if (!for_interface(*end, interface_id_)) {
          continue;
        }
        if (!first.add_question(end->qname, end->qtype, end->qclass)) {
          break;
        }
        new_question = new_question || state_of(end).queries_sent == 0;
      }
      if (first.question_count() == 0 ||
          !governor_take_packet(core_, interface_id_,
                                new_question ? SendPriority::kNewQuestion : SendPriority::kRoutine)) {
        return;
      }
      core_.send_serial++;
      writer_ = &first;
      packets_ = 1;
      for (DNSQuestion* q = begin; q != end; q = state_of(q).next_to_send) {
        if (for_interface(*q, interface_id_)) {
          core_.counters.queries_sent++;
          state_of(q).sent_this_pass = true;
          write_known_answers(q);
        }
      }
      send(writer_->finish());
      next = end;
    }
  }

 private:
  void send(size_t length) {
    engine_send_multicast(m_, Transport::kMulticast, interface_id_, family_, core_.txbuf, length);
  }

  // Answers whose remaining TTL is above half the original go along, so that
  // responders holding the same need not answer.  False once the query's
  // known answers reached their cap.
  bool add(DNSQuestion* q, const domainname& name, uint16_t rrtype, uint16_t rrclass, int64_t remaining_ms,
           uint32_t ttl, const RData& rdata) {
    if (remaining_ms * 2 <= static_cast<int64_t>(ttl) * 1000) {
      return true;
    }
    const uint32_t remaining = static_cast<uint32_t>(remaining_ms / 1000);
    if (writer_->add_known_answer(name, rrtype, rrclass, remaining, rdata)) {
      return true;
    }
    if (packets_ == kMaxKnownAnswerPackets ||
        !governor_take_packet(core_, interface_id_, SendPriority::kRoutine)) {
      return false;
    }
    state_of(q).spilled = true;
    writer_->set_truncated();
    send(writer_->finish());
    packets_++;
    spare_ = QueryWriter(core_.txbuf, kMaxQueryPayload);
    writer_ = &spare_;
    return writer_->add_known_answer(name, rrtype, rrclass, remaining, rdata);
  }

  void write_known_answers(DNSQuestion* q) {
    if (state_of(q).kind == QuestionKind::kBrowse) {
      write_remembered_answers(q);
      return;
    }
    for (CacheRecord* rr = cache_first(core_, state_of(q).name_hash); rr != nullptr;
         rr = cache_next(core_, rr)) {
      if (rr->expiring || rr->known_answer_mark == core_.send_serial ||
          rr->resrec.InterfaceID != interface_id_ || !question_answered_by(*q, rr->resrec)) {
        continue;
      }
      rr->known_answer_mark = core_.send_serial;
      if (!add(q, *rr->resrec.name, rr->resrec.rrtype, rr->resrec.rrclass, cache_remaining_ms(*rr, now_),
               rr->resrec.rroriginalttl, *rr->resrec.rdata)) {
        return;
      }
    }
  }

  // A browse knows every instance it reported, also those the cache had no
  // room for.  When they are more than the cap lets go, each query starts
  // where the last one stopped, so that all are named in turn (and the
  // answers a long list still draws are not always the same).
  void write_remembered_answers(DNSQuestion* q) {
    QuestionState& s = state_of(q);
    const int skip = s.known_answer_skip;
    int eligible = 0;
    int written = 0;
    bool full = false;
    for (int pass = 0; pass < 2 && !full; ++pass) {
      int n = 0;
      for (int i = browse_answers_first(core_, q); i >= 0 && !full; i = browse_answers_next(core_, i)) {
        if (!remembered_answer_goes(q, i)) {
          continue;
        }
        const bool in_turn = pass == 0 ? n >= skip : n < skip;
        ++n;
        if (!in_turn) {
          continue;
        }
        full = !add_remembered(q, i);
        written += full ? 0 : 1;
      }
      eligible = pass == 0 ? n : eligible;
    }
    s.known_answer_skip = full && eligible > 0 ? static_cast<uint16_t>((skip + written) % eligible) : 0;
  }

  bool remembered_answer_goes(const DNSQuestion* q, int index) const {
    const BrowseAnswer& a = core_.answers[index];
    (void)q;
    return interface_from_number(a.interface_slot) == interface_id_ &&
           time_diff(a.expiry, now_) * 2 > static_cast<int64_t>(a.ttl) * 1000;
  }

  bool add_remembered(DNSQuestion* q, int index) {
    const BrowseAnswer& a = core_.answers[index];
    RData rdata{};
    if (!browse_answer_name(core_, index, rdata.u.name)) {
      return true;
    }
    rdata.length = static_cast<mDNSu16>(name_length(rdata.u.name));
    return add(q, q->qname, kDNSType_PTR, kDNSClass_IN, time_diff(a.expiry, now_), a.ttl, rdata);
  }

  mDNS* m_;
  CoreState& core_;
  mDNSInterfaceID interface_id_;
  int family_;
  int32_t now_;
  int packets_ = 0;
  QueryWriter* writer_ = nullptr;
  QueryWriter spare_{nullptr, 0};
};

// A refresh query that does not coincide with the group's own schedule
// leaves that schedule as it was.
void advance(CoreState& core, DNSQuestion* q, int32_t now) {
  QuestionState& s = state_of(q);
  const bool scheduled = querying(s.phase) && time_diff(s.next_query_time, now) <= kQueryGroupingWindowMs;
  const bool spilled = s.spilled;
  s.spilled = false;
  s.refresh_wanted = false;
  governor_note_query(s, now);
  if (!scheduled) {
    if (querying(s.phase)) {
      place(core, q, s.next_query_time);
    }
    return;
  }
  if (s.phase == Phase::kFirstQueryDue) {
    s.phase = Phase::kBackingOff;
    s.min_interval = kSecondQueryIntervalMs;
  } else {
    // Intervals double; a query whose known answers filled several packets is
    // costly for every host on the link, so after one the interval grows fourfold.
    s.min_interval = grown(time_diff(now, s.last_query_time), spilled ? 4 : 2);
  }
  s.last_query_time = now;
  const int32_t wait = s.min_interval >= kMaxQueryIntervalMs - kQueryGroupingWindowMs
                           ? kMaxQueryIntervalMs
                           : s.min_interval + kQueryGroupingWindowMs;
  s.next_query_time = time_add(now, wait);
  place(core, q, s.next_query_time);
}

}  // namespace

void schedule_after_first_delivery(mDNS* m, DNSQuestion* leader, bool answered) {
  CoreState& core = core_of(m);
  QuestionState& s = state_of(leader);
  if (s.unicast) {
    unicast_question_ready(m, leader, answered);
    return;
  }
  if (!group_asks(leader)) {
    go_quiet(core, leader);
  } else if (answered && is_unique_type(leader->qtype)) {
    s.phase = Phase::kResting;
  } else {
    plan_first_query(m, leader, s.start_time);
  }
  // Nothing cached: a one-shot query brings the answers at once (RFC 6762
  // section 5.1), while continuous querying starts as usual.
  if (!answered) {
    list_append(core, ListId::kOneShot, leader);
  }
}

void schedule_ask_again(mDNS* m, DNSQuestion* leader, int32_t now) {
  QuestionState& s = state_of(leader);
  if (s.unicast) {
    unicast_ask_now(m, leader);
    return;
  }
  if (s.phase == Phase::kWaitingForCache || s.phase == Phase::kFollowing) {
    return;
  }
  if (!group_asks(leader)) {
    go_quiet(core_of(m), leader);
    return;
  }
  plan_first_query(m, leader, now);
}

void schedule_rest(mDNS* m, DNSQuestion* leader) {
  QuestionState& s = state_of(leader);
  if (querying(s.phase)) {
    unplace(core_of(m), leader);
    s.phase = Phase::kResting;
  }
}

void schedule_refresh(mDNS* m, DNSQuestion* leader, int32_t now) {
  QuestionState& s = state_of(leader);
  if (s.unicast) {
    unicast_ask_now(m, leader);
    return;
  }
  if (!group_asks(leader) || (!querying(s.phase) && s.phase != Phase::kResting)) {
    return;
  }
  s.refresh_wanted = true;
  CoreState& core = core_of(m);
  const int32_t when = governor_may_query(s, now) ? now : governor_next_query_allowed(s);
  if (!Schedule::contains(leader) || time_diff(when, Schedule::key_of(leader)) < 0) {
    unplace(core, leader);
    place(core, leader, when);
  }
}

void schedule_asking_changed(mDNS* m, DNSQuestion* leader) {
  CoreState& core = core_of(m);
  QuestionState& s = state_of(leader);
  if (s.unicast || s.phase == Phase::kWaitingForCache || s.phase == Phase::kFollowing) {
    return;
  }
  if (!group_asks(leader)) {
    go_quiet(core, leader);
  } else if (s.phase == Phase::kQuiet) {
    if (is_unique_type(leader->qtype) && s.current_answers > 0) {
      s.phase = Phase::kResting;
    } else {
      plan_first_query(m, leader, core.now);
    }
  }
}

void schedule_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir) {
  CoreState& core = core_of(m);
  QuestionState& from = state_of(leader);
  QuestionState& to = state_of(heir);
  const bool heir_delivered = to.phase == Phase::kFollowing;
  to.phase = from.phase;
  to.asking = from.asking;
  to.last_query_time = from.last_query_time;
  to.next_query_time = from.next_query_time;
  to.min_interval = from.min_interval;
  to.queries_sent = from.queries_sent;
  to.refresh_wanted = from.refresh_wanted;
  to.unicast_slot = from.unicast_slot;
  if (Schedule::contains(leader)) {
    const int32_t key = Schedule::key_of(leader);
    unplace(core, leader);
    place(core, heir, key);
  }
  if (from.unicast_slot != 0) {
    unicast_hand_over(m, leader, heir);
  }
  // The leader never got its first delivery, but the heir did.
  if (from.phase == Phase::kWaitingForCache && heir_delivered) {
    schedule_after_first_delivery(m, heir, to.current_answers > 0);
  }
}

void schedule_drop(mDNS* m, DNSQuestion* leader) {
  unplace(core_of(m), leader);
  if (state_of(leader).unicast_slot != 0) {
    unicast_cancel(m, leader);
  }
}

void send_due_queries(mDNS* m, int32_t now) {
  CoreState& core = core_of(m);
  DNSQuestion* chosen = take_due(core, now);
  // Unicast DNS questions due for a poll or a retry ask their servers.
  for (DNSQuestion** link = &chosen; *link != nullptr;) {
    DNSQuestion* q = *link;
    if (state_of(q).unicast) {
      *link = state_of(q).next_to_send;
      unicast_ask_now(m, q);
    } else {
      link = &state_of(q).next_to_send;
    }
  }
  if (chosen == nullptr) {
    return;
  }
  for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
    for (int family : {mDNSAddrType_IPv4, mDNSAddrType_IPv6}) {
      if (platform_interface_usable(m, i->InterfaceID, family)) {
        PacketBuilder(m, i->InterfaceID, family, now).send_all(chosen);
      }
    }
  }
  while (chosen != nullptr) {
    QuestionState& s = state_of(chosen);
    DNSQuestion* next = s.next_to_send;
    if (s.sent_this_pass) {
      s.sent_this_pass = false;
      advance(core, chosen, now);
    } else {
      place(core, chosen, time_add(now, kBudgetRetryMs));  // no interface had room for it
    }
    chosen = next;
  }
}

bool next_query_time(const mDNS* m, int32_t& when) {
  DNSQuestion* top = core_of(m).schedule_root;
  if (top == nullptr) {
    return false;
  }
  when = Schedule::key_of(top);
  return true;
}

}  // namespace mdns
