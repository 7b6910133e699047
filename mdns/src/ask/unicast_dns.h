// Unicast DNS for names outside the link-local zones (DNS-SD over unicast DNS,
// RFC 6763 section 11): queries to the name servers of the resolver
// configuration from a fresh random port and ID each, retransmitted with
// back-off over the servers, repeated over TCP when an answer comes truncated.
// Answers count only from the server asked, with the ID and question sent,
// and only records in the question's bailiwick (its name or names under it).
// Answered questions poll again at about 80 % of their answers' TTL; records a
// new answer no longer holds leave with the usual events.  No pass waits.
#pragma once

#include <sys/select.h>

#include <cstdint>

#include "engine/core_state.h"

namespace mdns {

// At init and interface refresh: the servers are read anew.
void unicast_reset(mDNS* m);
void unicast_close_all(mDNS* m);

// A unicast question's first delivery is done: it asks at once (or, answered
// from the cache, polls later).
void unicast_question_ready(mDNS* m, DNSQuestion* leader, bool answered);
// It asks again at once (an answer went away, or a refresh point came).
void unicast_ask_now(mDNS* m, DNSQuestion* leader);
void unicast_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir);
void unicast_cancel(mDNS* m, DNSQuestion* leader);

// Retransmissions, time-outs, TCP connects and polls that are due.
void unicast_run(mDNS* m);
bool unicast_next_time(mDNS* m, int32_t& when);

// The descriptor-set integration of the queries' sockets.
void unicast_add_sockets(mDNS* m, int* nfds, fd_set* readfds);
void unicast_read_sockets(mDNS* m, fd_set* readfds);

}  // namespace mdns
