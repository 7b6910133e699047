// Service resolves (mDNS_StartResolveService): what the engine's pass does
// for them besides delivering their questions' answers.
#pragma once

#include <cstdint>

#include "engine/core_state.h"

namespace mdns {

// Resolves whose wait for a changed SRV or a further address to stand still
// is over look at the cache again.
void resolves_recheck_due(mDNS* m);
bool resolves_next_recheck(const mDNS* m, int32_t& when);
// The core ends: the list is forgotten (the resolves' storage stays the caller's).
void resolves_forget_rechecks(mDNS* m);

}  // namespace mdns
