#include "ask/asker.h"

#include <initializer_list>

#include "ask/dns_asker.h"
#include "ask/link_asker.h"
#include "ask/one_shot.h"
#include "ask/question_lists.h"
#include "platform/clock.h"

namespace mdns {
namespace {

// Only a leader past its first delivery has a schedule to change.
bool asks_for_its_group(const DNSQuestion* q) {
  const QuestionState& s = state_of(q);
  return s.delivered && s.leader == nullptr;
}

}  // namespace

void asker_first_delivery(mDNS* m, DNSQuestion* leader, bool answered) {
  if (state_of(leader).unicast) {
    dns_asker_first_delivery(m, leader, answered);
  } else {
    link_asker_first_delivery(m, leader, answered);
  }
}

void asker_ask_again(mDNS* m, DNSQuestion* leader) {
  if (!asks_for_its_group(leader)) {
    return;
  }
  if (state_of(leader).unicast) {
    dns_asker_ask_now(m, leader);
  } else {
    link_asker_ask_again(m, leader);
  }
}

void asker_member_unanswered(mDNS* m, DNSQuestion* leader) {
  if (asks_for_its_group(leader) && state_of(leader).unicast) {
    dns_asker_member_unanswered(m, leader);
  }
}

void asker_one_shot_answered(mDNS* m, DNSQuestion* leader) {
  if (asks_for_its_group(leader) && !state_of(leader).unicast) {
    link_asker_one_shot_answered(m, leader);
  }
}

void asker_answered(mDNS* m, DNSQuestion* leader) {
  if (asks_for_its_group(leader) && !state_of(leader).unicast) {
    link_asker_answered(m, leader);
  }
}

void asker_refresh(mDNS* m, DNSQuestion* leader) {
  if (!asks_for_its_group(leader)) {
    return;
  }
  if (state_of(leader).unicast) {
    dns_asker_ask_now(m, leader);
  } else {
    link_asker_refresh(m, leader);
  }
}

void asker_asking_changed(mDNS* m, DNSQuestion* leader) {
  // Unicast DNS questions keep polling whoever listens.
  if (asks_for_its_group(leader) && !state_of(leader).unicast) {
    link_asker_asking_changed(m, leader);
  }
}

void asker_leader_leaves(mDNS* m, DNSQuestion* leader, DNSQuestion* heir) {
  const bool unicast = state_of(leader).unicast;
  if (heir == nullptr) {
    unicast ? dns_asker_drop(m, leader) : link_asker_drop(m, leader);
    return;
  }
  QuestionState& from = state_of(leader);
  QuestionState& to = state_of(heir);
  to.asking = from.asking;
  to.queries_sent = from.queries_sent;
  to.last_sent = from.last_sent;
  unicast ? dns_asker_hand_over(m, leader, heir) : link_asker_hand_over(m, leader, heir);
  // The leader never got its first delivery, but the heir did: the group
  // starts asking now, as the leader would have.
  if (!from.delivered && to.delivered) {
    asker_first_delivery(m, heir, to.current_answers > 0);
  }
}

void askers_run(mDNS* m) {
  dns_asker_run(m);
  link_asker_run(m);
  send_one_shots(m);
}

bool askers_next_time(mDNS* m, int32_t& when) {
  AskState& core = ask_of(m);
  if (!list_empty(core, ListId::kOneShot)) {
    when = core.now;
    return true;
  }
  bool any = false;
  int32_t t = 0;
  for (bool (*next)(mDNS*, int32_t&) : {link_asker_next_time, dns_asker_next_time}) {
    if (next(m, t)) {
      when = any ? time_min(when, t) : t;
      any = true;
    }
  }
  return any;
}

}  // namespace mdns
