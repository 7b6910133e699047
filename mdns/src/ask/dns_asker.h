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

#include "ask/ask_state.h"
#include "wire/message_reader.h"

namespace mdns {

// At init and interface refresh: the servers are read anew.
void dns_asker_reset(mDNS* m);
void dns_asker_close_all(mDNS* m);

// A group's first delivery is done: it asks at once (or, answered from the
// cache, polls when its answers' refresh points come).
void dns_asker_first_delivery(mDNS* m, DNSQuestion* leader, bool answered);
// It asks again as soon as the governor lets it (an answer went away, or a
// refresh point came).
void dns_asker_ask_now(mDNS* m, DNSQuestion* leader);
// A member joined whose answers are not cached (see asker_member_unanswered).
void dns_asker_member_unanswered(mDNS* m, DNSQuestion* leader);
void dns_asker_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir);
void dns_asker_drop(mDNS* m, DNSQuestion* leader);

// Polls, retransmissions, time-outs and TCP connects that are due.
void dns_asker_run(mDNS* m);
bool dns_asker_next_time(mDNS* m, int32_t& when);

// The descriptor-set integration of the queries' sockets.
void dns_asker_add_sockets(mDNS* m, int* nfds, fd_set* readfds);
void dns_asker_read_sockets(mDNS* m, fd_set* readfds);

// The server speaks for the question's name and what lies under it: answers
// of its name and type, additional records under it.
bool dns_answer_in_bailiwick(const ParsedRecord& rec, const DNSQuestion& q);

// What the engine does with an accepted answer (after the asker has planned
// its next poll): stores the records in the question's bailiwick, lets those
// the answer no longer holds go, and delivers the events.
void engine_take_dns_answer(mDNS* m, DNSQuestion* leader, const MessageParser& answer,
                            const NameServer& server);

}  // namespace mdns
