// Continuous querying (RFC 6762 section 5.2): when each group of identical
// questions asks, and the packets that carry them with their known answers.
// Only group leaders are scheduled; a heap orders them by when they are next
// due, so a pass costs in proportion to what is due.
#pragma once

#include <cstdint>

#include "engine/core_state.h"

namespace mdns {

// After the first delivery of a new leader's cached answers: it rests on a
// unique answer, or its first query goes out 20-120 ms after its start.
void schedule_after_first_delivery(mDNS* m, DNSQuestion* leader, bool answered);

// The group's last answer went away on the network: it asks again from the start.
void schedule_ask_again(mDNS* m, DNSQuestion* leader, int32_t now);
// A unique answer arrived: only refresh points query from now on.
void schedule_rest(mDNS* m, DNSQuestion* leader);
// A cached answer reached a refresh point: the group asks in this pass.
void schedule_refresh(mDNS* m, DNSQuestion* leader, int32_t now);

// Group bookkeeping (questions.cpp): whether anybody still asks changed, the
// leader leaves in favour of `heir`, or the last member leaves.
void schedule_asking_changed(mDNS* m, DNSQuestion* leader);
void schedule_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir);
void schedule_drop(mDNS* m, DNSQuestion* leader);

// Sends what is due at `now` on every interface and family it is for, and
// moves the schedules on.
void send_due_queries(mDNS* m, int32_t now);

// When the next group becomes due; false when none is scheduled.
bool next_query_time(const mDNS* m, int32_t& when);

}  // namespace mdns
