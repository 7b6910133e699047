// Continuous querying: which questions go out when, packed with their known answers.
#pragma once

#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Largest query payload: fits an Ethernet MTU under IPv6 and UDP headers.
constexpr size_t kMaxQueryPayload = 1440;

// Questions due within this window of the earliest due one share its packets.
constexpr int32_t kQueryGroupingWindowMs = 100;

// Sends the questions that are due at `now` (by their schedule or because a
// cached answer needs a refresh) on every interface they are for, and moves
// their schedules on.
void send_due_queries(mDNS* m, int32_t now);

// When the next question becomes due.
bool next_query_time(const mDNS* m, int32_t& when);

}  // namespace mdns
