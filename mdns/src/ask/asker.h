// Each group of identical questions has one asker, chosen by its name when
// the group's first question starts: the link asker (continuous multicast
// querying, link_asker.h) for local. and the link-local reverse zones, the DNS
// asker (unicast DNS to the resolver's name servers, dns_asker.h) for the
// rest.  The engine tells the group's asker what happened to the group; the
// asker alone keeps the group's schedule and phases, and hands them over when
// the leader leaves.  Everything it sends goes through the send governor.
#pragma once

#include <cstdint>

#include "ask/ask_state.h"

namespace mdns {

// The leader's first delivery is done: `answered` when the cache held an
// answer that spares it the first queries.
void asker_first_delivery(mDNS* m, DNSQuestion* leader, bool answered);
// A member joined after its group's first delivery and the cache held no
// answer for it: a unicast group asks again when it had answers that the
// cache has given up since (its next poll may be hours away); a link group's
// continuous querying finds them anyway.
void asker_member_unanswered(mDNS* m, DNSQuestion* leader);
// The group's last answer went away, or an interface came: it asks again.
void asker_ask_again(mDNS* m, DNSQuestion* leader);
// A one-shot of the group was answered (see link_asker_one_shot_answered).
void asker_one_shot_answered(mDNS* m, DNSQuestion* leader);
// A unique answer arrived: only refresh points ask from now on.
void asker_answered(mDNS* m, DNSQuestion* leader);
// A cached answer reached a refresh point.
void asker_refresh(mDNS* m, DNSQuestion* leader);
// Whether anybody in the group still asks changed.
void asker_asking_changed(mDNS* m, DNSQuestion* leader);
// The leader leaves: `heir` (already a member) takes the group over, or the
// group ends when it is null.
void asker_leader_leaves(mDNS* m, DNSQuestion* leader, DNSQuestion* heir);

// Everything due at the pass's time: polls and retransmissions of unicast DNS,
// link queries, then the one-shots asked for in this pass.
void askers_run(mDNS* m);
// Milliseconds from `now` until the askers next have work; false when none.
bool askers_next_time(mDNS* m, int32_t& when);

}  // namespace mdns
