// One-shot queries (RFC 6762 section 5.1): when a question starts and the
// cache cannot answer it, one query goes out at once from an ephemeral port,
// per interface and family, shared by the questions started in the same pass.
// Responders must answer it directly (section 6.7) and do so without the
// delays of multicast answers.  The answers are accepted only with the ID of
// an outstanding one-shot and a question section that repeats its questions.
#pragma once

#include <cstdint>

#include "ask/ask_state.h"

namespace mdns {

struct MessageHeader;

// Where a reply to a one-shot came from.
struct OneShotReply {
  mDNSInterfaceID interface_id;
  mDNSAddr source;
};

// A question of a probe.
struct ProbeQuestion {
  const domainname* name;
  uint16_t type;
};

void one_shots_reset(AskState& core);

// Sends one-shots for the questions that want one, and forgets the list.
void send_one_shots(mDNS* m);

// A probe: a one-shot with these questions to port 5353 of one device on the
// link of the interface, through the send governor (the caller has taken the
// probe budget).  Only that device's answer is accepted.  False when it could
// not go out.
bool send_probe(mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& device, const ProbeQuestion* questions,
                int count);

// Whether a response that arrived on a one-shot socket answers an outstanding
// one-shot or probe: its ID and interface (and a probe's device), and each of its
// questions one the one-shot asked.
bool one_shot_expected(mDNS* m, const MessageHeader& header, const OneShotReply& arrival);
bool one_shot_asked(mDNS* m, const MessageHeader& header, const OneShotReply& arrival, uint32_t question_key);

}  // namespace mdns
