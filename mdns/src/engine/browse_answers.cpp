#include "engine/browse_answers.h"

#include <cstring>

#include "ask/query_packets.h"
#include "cache/cache.h"
#include "platform/clock.h"
#include "wire/identity.h"
#include "wire/names.h"

namespace mdns {
namespace {

uint16_t& bucket_of(CoreState& core, uint32_t hash) {
  return core.answer_buckets[hash % kBrowseAnswerBuckets];
}

int index_from(uint16_t index_plus_one) {
  return static_cast<int>(index_plus_one) - 1;
}

uint16_t link_to(int index) {
  return static_cast<uint16_t>(index + 1);
}

void note_time(CoreState& core, int32_t when) {
  if (!core.answers_expiry_known || time_diff(when, core.answers_next_expiry) < 0) {
    core.answers_next_expiry = when;
    core.answers_expiry_known = true;
  }
}

void set_times(CoreState& core, BrowseAnswer& a, uint32_t ttl, int32_t now) {
  if (ttl > kMaxCachedTtlSeconds) {
    ttl = kMaxCachedTtlSeconds;
  }
  a.ttl = ttl;
  a.expiry = time_add(now, static_cast<int64_t>(ttl) * 1000);
  a.refresh_at = ttl < kRefreshTtlFloorSeconds ? a.expiry : time_add(now, static_cast<int64_t>(ttl) * 800);
  note_time(core, a.refresh_at);
}

// The rest of an answer's name is its browse's: the first labels decide.
bool matches(const BrowseAnswer& a, const DNSQuestion* browse, const domainlabel& instance,
             mDNSInterfaceID interface_id) {
  return a.in_use && a.browse == browse && interface_from_number(a.interface_slot) == interface_id &&
         a.label.c[0] == instance.c[0] && wire_equal(a.label.c, instance.c, 1 + instance.c[0]);
}

// The sender holding the most remembered answers.
SenderSlot top_sender(const CoreState& core) {
  SenderSlot top = 0;
  for (int i = 1; i < kMaxSenders; ++i) {
    if (core.senders[i].answers > core.senders[top].answers) {
      top = static_cast<SenderSlot>(i);
    }
  }
  return top;
}

}  // namespace

void browse_answers_reset(CoreState& core) {
  std::memset(core.answers, 0, sizeof core.answers);
  std::memset(core.answer_buckets, 0, sizeof core.answer_buckets);
  core.answer_free = 0;
  for (int i = mDNS_MaxBrowseAnswers - 1; i >= 0; --i) {
    core.answers[i].bucket_next = core.answer_free;
    core.answer_free = link_to(i);
  }
  core.answers_used = 0;
  core.answers_expiry_known = false;
}

namespace {

// `name` without its first `skipped` labels; false when it has no more.
bool name_after(const domainname& name, size_t skipped, domainname& rest) {
  if (label_count(name) <= skipped) {
    return false;
  }
  const uint8_t* from = skip_labels(name, skipped);
  std::memcpy(rest.c, from, name_length(name) - static_cast<size_t>(from - name.c));
  return true;
}

bool is_type_list(const domainname& qname) {
  return label_count(qname) > 3 && label_equals(qname.c, "_services") &&
         label_equals(skip_labels(qname, 1), "_dns-sd") && label_equals(skip_labels(qname, 2), "_udp");
}

// The name a browse's instance labels sit under.
bool browse_parent(const domainname& qname, bool udp, domainname& parent) {
  if (label_count(qname) > 4 && label_equals(skip_labels(qname, 1), "_sub")) {
    return name_after(qname, 2, parent);
  }
  if (is_type_list(qname)) {
    domainlabel protocol{};
    protocol.c[0] = 4;
    std::memcpy(protocol.c + 1, udp ? "_udp" : "_tcp", 4);
    domainname domain{};
    return name_after(qname, 3, domain) && prepend_label(parent, protocol, domain);
  }
  parent = qname;
  return true;
}

}  // namespace

bool browse_answer_name(const CoreState& core, int index, domainname& out) {
  const BrowseAnswer& a = core.answers[index];
  domainname parent{};
  return a.browse != nullptr && browse_parent(a.browse->qname, a.under_udp != 0, parent) &&
         prepend_label(out, a.label, parent);
}

bool browse_instance_of(const domainname& target, const domainname& qname, domainlabel& instance, bool& udp) {
  udp = is_type_list(qname) && label_count(target) > 1 && label_equals(skip_labels(target, 1), "_udp");
  domainname parent{};
  return browse_parent(qname, udp, parent) && split_first_label(target, parent, instance);
}

int browse_answer_find(CoreState& core, const DNSQuestion* browse, const domainlabel& instance, uint32_t hash,
                       mDNSInterfaceID interface_id) {
  for (int i = index_from(bucket_of(core, hash)); i >= 0; i = index_from(core.answers[i].bucket_next)) {
    if (core.answers[i].hash == hash && matches(core.answers[i], browse, instance, interface_id)) {
      return i;
    }
  }
  return -1;
}

Admission browse_answer_admit(CoreState& core, SenderSlot sender, int& evicted) {
  if (core.answer_free != 0) {
    return Admission::kAdmitted;
  }
  const SenderSlot top = top_sender(core);
  if (top == sender) {
    core.counters.answers_refused++;
    return Admission::kRefused;
  }
  evicted = -1;
  for (int i = 0; i < mDNS_MaxBrowseAnswers; ++i) {
    const BrowseAnswer& a = core.answers[i];
    if (a.in_use && a.sender == top &&
        (evicted < 0 || time_diff(a.expiry, core.answers[evicted].expiry) < 0)) {
      evicted = i;
    }
  }
  return evicted >= 0 ? Admission::kMustEvict : Admission::kRefused;
}

int browse_answer_remember(CoreState& core, DNSQuestion* browse, const domainlabel& instance, uint32_t hash,
                           mDNSInterfaceID interface_id, SenderSlot sender, uint32_t ttl, int32_t now) {
  const int i = index_from(core.answer_free);
  if (i < 0) {
    return -1;
  }
  BrowseAnswer& a = core.answers[i];
  core.answer_free = a.bucket_next;
  std::memset(&a, 0, sizeof a);
  a.in_use = 1;
  a.browse = browse;
  a.interface_slot = interface_number(interface_id);
  a.hash = hash;
  a.sender = sender;
  std::memcpy(a.label.c, instance.c, 1 + instance.c[0]);
  set_times(core, a, ttl, now);
  uint16_t& head = bucket_of(core, hash);
  a.bucket_next = head;
  head = link_to(i);
  // The browse's own chain, for its known answers and for forgetting it.
  QuestionState& s = state_of(browse);
  a.browse_next = s.first_answer;
  if (s.first_answer != 0) {
    core.answers[index_from(s.first_answer)].browse_prev = link_to(i);
  }
  s.first_answer = link_to(i);
  core.answers_used++;
  core.senders[sender].answers++;
  return i;
}

void browse_answer_renew(CoreState& core, int index, uint32_t ttl, int32_t now) {
  set_times(core, core.answers[index], ttl, now);
}

void browse_answer_expire_soon(CoreState& core, int index, int32_t now) {
  BrowseAnswer& a = core.answers[index];
  a.expiry = time_add(now, kGoodbyeDelayMs);
  a.refresh_at = a.expiry;
  note_time(core, a.expiry);
}

void browse_answer_forget(CoreState& core, int index) {
  BrowseAnswer& a = core.answers[index];
  if (!a.in_use) {
    return;
  }
  for (uint16_t* link = &bucket_of(core, a.hash); *link != 0;
       link = &core.answers[index_from(*link)].bucket_next) {
    if (index_from(*link) == index) {
      *link = a.bucket_next;
      break;
    }
  }
  QuestionState& s = state_of(a.browse);
  if (a.browse_prev != 0) {
    core.answers[index_from(a.browse_prev)].browse_next = a.browse_next;
  } else {
    s.first_answer = a.browse_next;
  }
  if (a.browse_next != 0) {
    core.answers[index_from(a.browse_next)].browse_prev = a.browse_prev;
  }
  const SenderSlot sender = a.sender;
  std::memset(&a, 0, sizeof a);
  a.bucket_next = core.answer_free;
  core.answer_free = link_to(index);
  core.answers_used--;
  core.senders[sender].answers--;
  sender_release_if_unused(core, sender);
}

int browse_answers_first(const CoreState& core, const DNSQuestion* browse) {
  (void)core;
  return index_from(state_of(browse).first_answer);
}

int browse_answers_next(const CoreState& core, int index) {
  return index_from(core.answers[index].browse_next);
}

void browse_answers_forget_all(CoreState& core, const DNSQuestion* browse) {
  for (int i = browse_answers_first(core, browse); i >= 0;) {
    const int next = browse_answers_next(core, i);
    browse_answer_forget(core, i);
    i = next;
  }
}

bool browse_answers_next_time(const CoreState& core, int32_t& when) {
  if (!core.answers_expiry_known) {
    return false;
  }
  when = core.answers_next_expiry;
  return true;
}

void browse_answers_recompute_next(CoreState& core) {
  core.answers_expiry_known = false;
  for (const BrowseAnswer& a : core.answers) {
    if (a.in_use) {
      note_time(core, a.refresh_at);
    }
  }
}

bool remembered_answer_next(mDNS* m, const DNSQuestion* browse, int& cursor, RememberedAnswer& out) {
  CoreState& core = core_of(m);
  // The cursor is the next answer's index + 1, so that 0 means "from the first".
  for (int i = cursor == 0 ? browse_answers_first(core, browse) : cursor - 1; i >= 0;
       i = browse_answers_next(core, i)) {
    const BrowseAnswer& a = core.answers[i];
    if (!browse_answer_name(core, i, out.name)) {
      continue;
    }
    out.remaining_ms = time_diff(a.expiry, core.now);
    out.ttl = a.ttl;
    out.interface_id = interface_from_number(a.interface_slot);
    out.one_shot = a.one_shot != 0;
    const int next = browse_answers_next(core, i);
    cursor = next >= 0 ? next + 1 : -1;
    return true;
  }
  return false;
}

}  // namespace mdns
