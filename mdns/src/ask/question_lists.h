// The lists questions wait on (to be delivered, for a one-shot, for a free
// unicast query): first in, first out, and a stopped question leaves its list
// in constant time.
#pragma once

#include "ask/ask_state.h"

namespace mdns {

inline QuestionList& list_of(AskState& core, ListId id) {
  return core.lists[static_cast<int>(id)];
}

inline bool list_empty(AskState& core, ListId id) {
  return list_of(core, id).head == nullptr;
}

inline DNSQuestion* list_first(AskState& core, ListId id) {
  return list_of(core, id).head;
}

inline DNSQuestion* list_next(const DNSQuestion* q) {
  return state_of(q).list_next;
}

// Appends `q` unless it is on a list already.
inline void list_append(AskState& core, ListId id, DNSQuestion* q) {
  QuestionState& s = state_of(q);
  if (s.list != ListId::kNone) {
    return;
  }
  QuestionList& l = list_of(core, id);
  s.list = id;
  s.list_prev = l.tail;
  s.list_next = nullptr;
  (l.tail != nullptr ? state_of(l.tail).list_next : l.head) = q;
  l.tail = q;
}

inline void list_remove(AskState& core, DNSQuestion* q) {
  QuestionState& s = state_of(q);
  if (s.list == ListId::kNone) {
    return;
  }
  QuestionList& l = list_of(core, s.list);
  (s.list_prev != nullptr ? state_of(s.list_prev).list_next : l.head) = s.list_next;
  (s.list_next != nullptr ? state_of(s.list_next).list_prev : l.tail) = s.list_prev;
  s.list = ListId::kNone;
  s.list_prev = s.list_next = nullptr;
}

inline DNSQuestion* list_pop(AskState& core, ListId id) {
  DNSQuestion* q = list_first(core, id);
  if (q != nullptr) {
    list_remove(core, q);
  }
  return q;
}

// Moves every question of `from` to the end of `to`.
inline void list_move_all(AskState& core, ListId from, ListId to) {
  while (DNSQuestion* q = list_pop(core, from)) {
    list_append(core, to, q);
  }
}

}  // namespace mdns
