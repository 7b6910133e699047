#include "ask/link_asker.h"

#include <initializer_list>

#include "ask/groups.h"
#include "ask/query_packets.h"
#include "ask/question_lists.h"
#include "ask/send_governor.h"
#include "platform/clock.h"
#include "platform/platform.h"

namespace mdns {
namespace {

// A query that found no room in any interface's budget tries again this much later.
constexpr int32_t kBudgetRetryMs = 50;
// Responders answer a query for shared records within 20-120 ms; a little
// more for a busy host.
constexpr int32_t kResponderWindowMs = 150;

// A resolve that starts while the responders answer a browse's first query
// (which names none of their instances as known, see query_packets.cpp)
// gets its records with those answers: a one-shot of its own would only
// bring them a few tens of milliseconds sooner, at a packet each.
bool answers_coming(const AskState& core, const DNSQuestion* q) {
  const QuestionKind kind = state_of(q).kind;
  return core.browse_answers_coming && time_diff(core.browse_answers_until, core.now) > 0 &&
         (kind == QuestionKind::kResolveSrv || kind == QuestionKind::kResolveTxt ||
          kind == QuestionKind::kResolveAddress);
}

QuestionSchedule schedule_of(AskState& core) {
  return QuestionSchedule(core.link_schedule_root);
}

void place(AskState& core, DNSQuestion* leader, int32_t when) {
  schedule_of(core).insert(leader, when);
}

void unplace(AskState& core, DNSQuestion* leader) {
  schedule_of(core).remove(leader);
}

bool querying(LinkPhase phase) {
  return phase == LinkPhase::kFirstQueryDue || phase == LinkPhase::kBackingOff;
}

void plan_first_query(mDNS* m, DNSQuestion* leader, int32_t from) {
  AskState& core = ask_of(m);
  LinkSchedule& link = state_of(leader).link;
  link.phase = LinkPhase::kFirstQueryDue;
  link.refresh_wanted = false;
  const int32_t delay =
      static_cast<int32_t>(random_between(core.random_state, kFirstQueryMinDelayMs, kFirstQueryMaxDelayMs));
  link.next_query_time = time_add(from, delay);
  if (time_diff(link.next_query_time, core.now) < 0) {
    link.next_query_time = core.now;
  }
  place(core, leader, link.next_query_time);
}

void go_quiet(AskState& core, DNSQuestion* leader) {
  LinkSchedule& link = state_of(leader).link;
  unplace(core, leader);
  link.phase = LinkPhase::kQuiet;
  link.refresh_wanted = false;
}

// A query may join a packet that goes out now when it is due within the
// grouping window, but never before its own minimum interval allows.
bool may_join(const QuestionState& s, int32_t now) {
  if (!governor_may_query(s, now)) {
    return false;
  }
  if (s.link.refresh_wanted) {
    return true;
  }
  if (s.link.phase == LinkPhase::kFirstQueryDue) {
    return time_diff(now, s.start_time) >= kFirstQueryMinDelayMs;
  }
  return s.link.phase == LinkPhase::kBackingOff &&
         time_diff(now, s.link.last_query_time) >= s.link.min_interval;
}

int32_t grown(int32_t interval, int32_t factor) {
  return interval >= kMaxQueryIntervalMs / factor ? kMaxQueryIntervalMs : interval * factor;
}

// Takes the due leaders (and those that may join them) out of the schedule,
// chained through next_to_send.
DNSQuestion* take_due(AskState& core, int32_t now) {
  QuestionSchedule schedule = schedule_of(core);
  DNSQuestion* top = schedule.top();
  if (top == nullptr || !time_reached(QuestionSchedule::key_of(top), now)) {
    return nullptr;
  }
  DNSQuestion* chosen = nullptr;
  DNSQuestion** tail = &chosen;
  DNSQuestion* aside = nullptr;
  while ((top = schedule.top()) != nullptr &&
         time_diff(QuestionSchedule::key_of(top), now) <= kQueryGroupingWindowMs) {
    const int32_t key = QuestionSchedule::key_of(top);
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

// A refresh query that does not coincide with the group's own schedule
// leaves that schedule as it was.
void advance(AskState& core, DNSQuestion* q, int32_t now) {
  QuestionState& s = state_of(q);
  LinkSchedule& link = s.link;
  const bool scheduled =
      querying(link.phase) && time_diff(link.next_query_time, now) <= kQueryGroupingWindowMs;
  const bool spilled = link.spilled;
  link.spilled = false;
  link.refresh_wanted = false;
  governor_note_query(s, now);
  if (!scheduled) {
    if (querying(link.phase)) {
      place(core, q, link.next_query_time);
    }
    return;
  }
  if (link.phase == LinkPhase::kFirstQueryDue) {
    link.phase = LinkPhase::kBackingOff;
    link.min_interval = kSecondQueryIntervalMs;
  } else {
    // Intervals double; a query whose known answers filled several packets is
    // costly for every host on the link, so after one the interval grows fourfold.
    link.min_interval = grown(time_diff(now, link.last_query_time), spilled ? 4 : 2);
  }
  link.last_query_time = now;
  const int32_t wait = link.min_interval >= kMaxQueryIntervalMs - kQueryGroupingWindowMs
                           ? kMaxQueryIntervalMs
                           : link.min_interval + kQueryGroupingWindowMs;
  link.next_query_time = time_add(now, wait);
  place(core, q, link.next_query_time);
}

}  // namespace

void link_asker_first_delivery(mDNS* m, DNSQuestion* leader, bool answered) {
  AskState& core = ask_of(m);
  QuestionState& s = state_of(leader);
  s.link.last_query_time = s.start_time;
  if (!group_asks(leader)) {
    go_quiet(core, leader);
  } else if (answered && is_unique_type(leader->qtype)) {
    s.link.phase = LinkPhase::kResting;
  } else {
    plan_first_query(m, leader, s.start_time);
  }
  // Nothing cached: a one-shot query brings the answers at once (RFC 6762
  // section 5.1), while continuous querying starts as usual.
  if (!answered && !answers_coming(core, leader)) {
    list_append(core, ListId::kOneShot, leader);
  }
}

void link_asker_ask_again(mDNS* m, DNSQuestion* leader) {
  if (!group_asks(leader)) {
    go_quiet(ask_of(m), leader);
    return;
  }
  plan_first_query(m, leader, ask_of(m).now);
}

void link_asker_answered(mDNS* m, DNSQuestion* leader) {
  LinkSchedule& link = state_of(leader).link;
  if (querying(link.phase)) {
    unplace(ask_of(m), leader);
    link.phase = LinkPhase::kResting;
  }
}

// A responder answered the group's one-shot with shared records (a browse's
// PTRs): somebody is there, and what did not fit the direct answers (a
// responder gives a one-shot one datagram of at most 512 bytes) comes only by
// multicast, after the responders' own 20-120 ms.  The first query goes now
// instead of after the random 20-120 ms meant to spread queries that may
// find nobody.
void link_asker_one_shot_answered(mDNS* m, DNSQuestion* leader) {
  AskState& core = ask_of(m);
  LinkSchedule& link = state_of(leader).link;
  if (link.phase != LinkPhase::kFirstQueryDue || !QuestionSchedule::contains(leader) ||
      time_diff(QuestionSchedule::key_of(leader), core.now) <= 0) {
    return;
  }
  unplace(core, leader);
  link.next_query_time = core.now;
  place(core, leader, core.now);
  core.browse_answers_until = time_add(core.now, kResponderWindowMs);
  core.browse_answers_coming = true;
}

void link_asker_refresh(mDNS* m, DNSQuestion* leader) {
  QuestionState& s = state_of(leader);
  if (!group_asks(leader) || (!querying(s.link.phase) && s.link.phase != LinkPhase::kResting)) {
    return;
  }
  s.link.refresh_wanted = true;
  AskState& core = ask_of(m);
  const int32_t when = governor_may_query(s, core.now) ? core.now : governor_next_query_allowed(s);
  if (!QuestionSchedule::contains(leader) || time_diff(when, QuestionSchedule::key_of(leader)) < 0) {
    place(core, leader, when);
  }
}

void link_asker_asking_changed(mDNS* m, DNSQuestion* leader) {
  AskState& core = ask_of(m);
  QuestionState& s = state_of(leader);
  if (!group_asks(leader)) {
    go_quiet(core, leader);
  } else if (s.link.phase == LinkPhase::kQuiet) {
    if (is_unique_type(leader->qtype) && s.current_answers > 0) {
      s.link.phase = LinkPhase::kResting;
    } else {
      plan_first_query(m, leader, core.now);
    }
  }
}

void link_asker_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir) {
  AskState& core = ask_of(m);
  state_of(heir).link = state_of(leader).link;
  if (QuestionSchedule::contains(leader)) {
    const int32_t key = QuestionSchedule::key_of(leader);
    unplace(core, leader);
    place(core, heir, key);
  }
}

void link_asker_drop(mDNS* m, DNSQuestion* leader) {
  unplace(ask_of(m), leader);
}

void link_asker_run(mDNS* m) {
  AskState& core = ask_of(m);
  const int32_t now = core.now;
  DNSQuestion* chosen = take_due(core, now);
  if (chosen == nullptr) {
    return;
  }
  for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
    for (int family : {mDNSAddrType_IPv4, mDNSAddrType_IPv6}) {
      if (platform_interface_usable(m, i->InterfaceID, family)) {
        send_query_packets(m, chosen, i->InterfaceID, family);
      }
    }
  }
  while (chosen != nullptr) {
    LinkSchedule& link = state_of(chosen).link;
    DNSQuestion* next = state_of(chosen).next_to_send;
    if (link.sent_this_pass) {
      link.sent_this_pass = false;
      advance(core, chosen, now);
    } else {
      place(core, chosen, time_add(now, kBudgetRetryMs));  // no interface had room for it
    }
    chosen = next;
  }
}

bool link_asker_next_time(mDNS* m, int32_t& when) {
  DNSQuestion* top = ask_of(m).link_schedule_root;
  if (top == nullptr) {
    return false;
  }
  when = QuestionSchedule::key_of(top);
  return true;
}

}  // namespace mdns
