// The active questions: their index by name hash, their groups of identical
// questions (each led by one that its asker asks for), and walks over them
// that stay safe while callbacks start and stop questions.
#pragma once

#include <cstdint>

#include "ask/groups.h"
#include "engine/core_state.h"

namespace mdns {

// Membership is decided by the core's own links, never by the caller's bytes.
bool question_active(const mDNS* m, const DNSQuestion* q);

// Adds the question; its cached answers are delivered at the next pass.
mStatus question_start(mDNS* m, DNSQuestion* q, QuestionKind kind, int32_t now);
void question_stop(mDNS* m, DNSQuestion* q);

// A question that stops asking still hears answers; its group goes quiet once
// nobody in it asks.  (Unicast DNS questions keep polling regardless.)
void question_set_listening(mDNS* m, DNSQuestion* q, bool listening);

// ---- Walks ----

// The questions of one name hash, in index order.  A question stopped during
// the walk (by a callback) is stepped over; one started during it is not seen.
class QuestionWalk {
 public:
  QuestionWalk(mDNS* m, uint32_t name_hash);
  ~QuestionWalk();
  QuestionWalk(const QuestionWalk&) = delete;
  QuestionWalk& operator=(const QuestionWalk&) = delete;

  DNSQuestion* next();

 private:
  CoreState& core_;
  int depth_;
};

// ---- Questions waiting for their cached answers ----

// Takes the questions started so far out of the waiting list, one at a time
// (null when none is left); questions started meanwhile wait for the next round.
void begin_delivery_round(mDNS* m);
DNSQuestion* next_to_deliver(mDNS* m);
bool any_waiting(const mDNS* m);

}  // namespace mdns
