// The link asker: continuous querying on the link (RFC 6762 section 5.2) for
// groups of identical questions under local. and the link-local reverse
// zones.  Only group leaders are scheduled; a heap orders them by when they
// are next due, so a pass costs in proportion to what is due.
#pragma once

#include <cstdint>

#include "ask/ask_state.h"

namespace mdns {

void link_asker_first_delivery(mDNS* m, DNSQuestion* leader, bool answered);
void link_asker_ask_again(mDNS* m, DNSQuestion* leader);
void link_asker_answered(mDNS* m, DNSQuestion* leader);
void link_asker_one_shot_answered(mDNS* m, DNSQuestion* leader);
void link_asker_refresh(mDNS* m, DNSQuestion* leader);
void link_asker_asking_changed(mDNS* m, DNSQuestion* leader);
void link_asker_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir);
void link_asker_drop(mDNS* m, DNSQuestion* leader);

// Sends what is due at the pass's time on every interface and family it is
// for, and moves the schedules on.
void link_asker_run(mDNS* m);
bool link_asker_next_time(mDNS* m, int32_t& when);

}  // namespace mdns
