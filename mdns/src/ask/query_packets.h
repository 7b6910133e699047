// The packets of one round of link queries on one interface and family:
// questions as they fit, each packet followed by the known answers of its own
// questions (RFC 6762 section 7.1), continued in packets with TC set when they
// do not fit (section 7.2), up to the send governor's cap.
#pragma once

#include <cstdint>

#include "ask/ask_state.h"

namespace mdns {

// One answer a browse remembers having reported, as a known answer.
struct RememberedAnswer {
  domainname name;  // the full instance name (the PTR record's data)
  int64_t remaining_ms;
  uint32_t ttl;
  mDNSInterfaceID interface_id;
  bool one_shot;  // its TTL is a one-shot answer's (see one_shot_ttl below)
};

// The browse's remembered answers, one at a time from `cursor` (0 at first);
// false at the end.  Kept by the engine, which alone knows what it reported.
bool remembered_answer_next(mDNS* m, const DNSQuestion* browse, int& cursor, RememberedAnswer& out);

// Sends the chosen questions (chained through next_to_send) that are for the
// interface; marks each one that went out (link.sent_this_pass).
void send_query_packets(mDNS* m, DNSQuestion* chosen, mDNSInterfaceID interface_id, int family);

}  // namespace mdns
