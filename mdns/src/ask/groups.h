// Groups of identical questions, as the askers see them: who leads, whether
// anybody still asks, and which records answer a question.
#pragma once

#include <cstdint>

#include "ask/ask_state.h"

namespace mdns {

// The question that asks on the wire for `q`: itself or its group's leader.
inline DNSQuestion* leader_of(DNSQuestion* q) {
  DNSQuestion* leader = state_of(q).leader;
  return leader != nullptr ? leader : q;
}

// Whether any question of the group still asks.
inline bool group_asks(const DNSQuestion* leader) {
  return state_of(leader).asking > 0;
}

bool question_answered_by(const DNSQuestion& q, const ResourceRecord& rr);

// SRV, TXT, A and AAAA: one owner answers them, so a cached answer makes a
// query unnecessary until its refresh is due.
bool is_unique_type(uint16_t rrtype);

// Name, type and class, as a one-shot's answer must repeat them.
uint32_t question_key(const domainname& name, uint16_t qtype, uint16_t qclass);

inline bool for_interface(const DNSQuestion& q, mDNSInterfaceID interface_id) {
  return q.InterfaceID == mDNSInterface_Any || q.InterfaceID == interface_id;
}

}  // namespace mdns
