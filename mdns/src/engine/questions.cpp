#include "engine/questions.h"

#include <cstring>

#include "ask/asker.h"
#include "ask/question_lists.h"
#include "engine/browse_answers.h"
#include "wire/identity.h"
#include "wire/names.h"

namespace mdns {
namespace {

DNSQuestion*& bucket_head(CoreState& core, uint32_t hash) {
  return core.question_buckets[hash % kQuestionBuckets];
}

// Identical on the wire and in what the core does with the answers.
bool same_group(const DNSQuestion& a, const DNSQuestion& b) {
  const QuestionState& sa = state_of(&a);
  const QuestionState& sb = state_of(&b);
  return sa.name_hash == sb.name_hash && a.qtype == b.qtype && a.qclass == b.qclass &&
         a.InterfaceID == b.InterfaceID &&
         (sa.kind == QuestionKind::kBrowse) == (sb.kind == QuestionKind::kBrowse) &&
         names_equal(a.qname, b.qname);
}

DNSQuestion* find_leader(CoreState& core, const DNSQuestion& q) {
  for (DNSQuestion* it = bucket_head(core, state_of(&q).name_hash); it != nullptr;
       it = state_of(it).bucket_next) {
    if (it != &q && state_of(it).leader == nullptr && same_group(*it, q)) {
      return it;
    }
  }
  return nullptr;
}

// A leader goes first in its bucket, its followers right after it, so that
// finding a group's leader does not walk past all of its followers.
void link_into_bucket(CoreState& core, DNSQuestion* q) {
  QuestionState& s = state_of(q);
  DNSQuestion*& head = bucket_head(core, s.name_hash);
  DNSQuestion* prev = s.leader;
  DNSQuestion* next = prev != nullptr ? state_of(prev).bucket_next : head;
  s.bucket_prev = prev;
  s.bucket_next = next;
  if (next != nullptr) {
    state_of(next).bucket_prev = q;
  }
  if (prev != nullptr) {
    state_of(prev).bucket_next = q;
  } else {
    head = q;
  }
}

void unlink_from_bucket(CoreState& core, DNSQuestion* q) {
  QuestionState& s = state_of(q);
  if (s.bucket_prev != nullptr) {
    state_of(s.bucket_prev).bucket_next = s.bucket_next;
  } else {
    bucket_head(core, s.name_hash) = s.bucket_next;
  }
  if (s.bucket_next != nullptr) {
    state_of(s.bucket_next).bucket_prev = s.bucket_prev;
  }
  // Walks that would visit it next step over it.
  for (int i = 0; i < core.walk_depth; ++i) {
    if (core.walk_cursors[i] == q) {
      core.walk_cursors[i] = s.bucket_next;
    }
  }
}

// The leader leaves: the first other member takes over the group's schedule.
void hand_over_group(mDNS* m, DNSQuestion* leader) {
  CoreState& core = core_of(m);
  DNSQuestion* heir = nullptr;
  for (DNSQuestion* it = bucket_head(core, state_of(leader).name_hash); it != nullptr;
       it = state_of(it).bucket_next) {
    if (state_of(it).leader != leader) {
      continue;
    }
    if (heir == nullptr) {
      heir = it;
      state_of(it).leader = nullptr;
    } else {
      state_of(it).leader = heir;
    }
  }
  asker_leader_leaves(m, leader, heir);
}

void change_asking(mDNS* m, DNSQuestion* q, int delta) {
  DNSQuestion* leader = leader_of(q);
  QuestionState& ls = state_of(leader);
  const bool asked = ls.asking > 0;
  ls.asking = static_cast<uint16_t>(ls.asking + delta);
  if (asked != (ls.asking > 0)) {
    asker_asking_changed(m, leader);
  }
  core_of(m).question_generation++;
}

}  // namespace

bool question_active(const mDNS* m, const DNSQuestion* q) {
  if (m == nullptr || q == nullptr) {
    return false;
  }
  const QuestionState& s = state_of(q);
  if (s.magic != kQuestionMagic || s.owner != m) {
    return false;
  }
  // A copy of an active question's bytes has the same links; only the
  // original is where they point.
  const CoreState& core = core_of(m);
  if (s.bucket_prev != nullptr) {
    return state_of(s.bucket_prev).bucket_next == q;
  }
  return core.question_buckets[s.name_hash % kQuestionBuckets] == q;
}

mStatus question_start(mDNS* m, DNSQuestion* q, QuestionKind kind, int32_t now) {
  CoreState& core = core_of(m);
  if (!core.initialized || core.shutting_down) {
    return mStatus_NotInitializedErr;
  }
  if (question_active(m, q)) {
    return mStatus_AlreadyRegistered;
  }
  if (name_length(q->qname) == 0) {
    return mStatus_BadParamErr;
  }
  std::memset(&q->Private, 0, sizeof q->Private);
  QuestionState& s = state_of(q);
  s.magic = kQuestionMagic;
  s.owner = m;
  s.kind = kind;
  s.name_hash = name_hash(q->qname);
  s.start_time = now;
  s.unicast = !name_is_link_local(q->qname);
  s.leader = find_leader(core, *q);
  link_into_bucket(core, q);
  list_append(core, ListId::kWaiting, q);
  change_asking(m, q, +1);
  return mStatus_NoError;
}

void question_stop(mDNS* m, DNSQuestion* q) {
  if (!question_active(m, q)) {
    return;
  }
  CoreState& core = core_of(m);
  QuestionState& s = state_of(q);
  list_remove(core, q);
  if (!s.listening) {
    change_asking(m, q, -1);
  }
  unlink_from_bucket(core, q);
  if (s.leader == nullptr) {
    hand_over_group(m, q);
  }
  if (s.kind == QuestionKind::kBrowse) {
    browse_answers_forget_all(core, q);
  }
  core.question_generation++;
  std::memset(&q->Private, 0, sizeof q->Private);
}

void question_set_listening(mDNS* m, DNSQuestion* q, bool listening) {
  QuestionState& s = state_of(q);
  if (s.listening == listening || s.unicast) {
    return;
  }
  s.listening = listening;
  change_asking(m, q, listening ? -1 : +1);
}

QuestionWalk::QuestionWalk(mDNS* m, uint32_t name_hash) : core_(core_of(m)), depth_(core_.walk_depth) {
  // Deeper nesting than callbacks can cause: the walk sees nothing rather than
  // risk a cursor that stops cannot move on.
  if (depth_ < kMaxWalkDepth) {
    core_.walk_cursors[depth_] = bucket_head(core_, name_hash);
    core_.walk_depth++;
  }
}

QuestionWalk::~QuestionWalk() {
  if (depth_ < kMaxWalkDepth) {
    core_.walk_depth--;
  }
}

DNSQuestion* QuestionWalk::next() {
  if (depth_ >= kMaxWalkDepth) {
    return nullptr;
  }
  DNSQuestion* q = core_.walk_cursors[depth_];
  if (q != nullptr) {
    core_.walk_cursors[depth_] = state_of(q).bucket_next;
  }
  return q;
}

void begin_delivery_round(mDNS* m) {
  // Left over from an earlier round (a callback stopped the pass) go first.
  list_move_all(core_of(m), ListId::kWaiting, ListId::kDelivering);
}

DNSQuestion* next_to_deliver(mDNS* m) {
  return list_pop(core_of(m), ListId::kDelivering);
}

bool any_waiting(const mDNS* m) {
  CoreState& core = core_of(const_cast<mDNS*>(m));
  return !list_empty(core, ListId::kWaiting) || !list_empty(core, ListId::kDelivering);
}

}  // namespace mdns
