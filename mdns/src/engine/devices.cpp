#include "engine/devices.h"

#include <algorithm>

#include "ask/one_shot.h"
#include "ask/send_governor.h"
#include "cache/cache.h"
#include "engine/cache_policy.h"
#include "engine/events.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "wire/identity.h"

namespace mdns {
namespace {

// Which devices hold records that questions ask for is looked at again this often.
constexpr int32_t kSurveyIntervalMs = 1000;

bool link_record(const CacheRecord& rr) {
  return rr.source != Source::kUnicastDns && rr.sender != 0;
}

// What a probe asks a device for: the smallest answer first.
int probe_rank(uint16_t type) {
  switch (type) {
    case kDNSType_A:
    case kDNSType_AAAA:
      return 0;
    case kDNSType_SRV:
      return 1;
    case kDNSType_PTR:
      return 3;  // a service type's PTR: every instance of the device
    default:
      return 2;
  }
}

// The address an A or AAAA record gives; none for other types.
mDNSAddr address_of(const CacheRecord& rr) {
  mDNSAddr a{};
  if (rr.resrec.rrtype == kDNSType_A) {
    a.type = mDNSAddrType_IPv4;
    a.ip.v4 = rr.resrec.rdata->u.ipv4;
  } else if (rr.resrec.rrtype == kDNSType_AAAA) {
    a.type = mDNSAddrType_IPv6;
    a.ip.v6 = rr.resrec.rdata->u.ipv6;
  }
  return a;
}

// A host that answers from an IPv4 and an IPv6 address is two senders; its
// address records tie them, so that one answered probe speaks for both.
void note_twins(CoreState& core, const CacheRecord& rr) {
  const mDNSAddr mine = address_of(rr);
  const SenderSlot a = mine.type == mDNSAddrType_None ? 0 : sender_find(core, mine);
  if (a == 0) {
    return;
  }
  for (CacheRecord* other = cache_first(core, rr.resrec.namehash); other != nullptr;
       other = cache_next(core, other)) {
    const mDNSAddr theirs = address_of(*other);
    if (theirs.type == mDNSAddrType_None || theirs.type == mine.type || !link_record(*other) ||
        other->resrec.InterfaceID != rr.resrec.InterfaceID ||
        !names_equal(*other->resrec.name, *rr.resrec.name)) {
      continue;
    }
    const SenderSlot b = sender_find(core, theirs);
    if (b != 0) {
      core.senders[a].twin = b;
      core.senders[b].twin = a;
    }
  }
}

// When the device was last heard, from either of its addresses.
int32_t last_heard(const CoreState& core, const Sender& s) {
  if (s.twin == 0) {
    return s.heard;
  }
  const int32_t twin = core.senders[s.twin].heard;
  return time_diff(twin, s.heard) > 0 ? twin : s.heard;
}

int32_t probe_interval(const CoreState& core) {
  return std::max<int32_t>(kMinProbeIntervalMs, core.devices_watched * 1000 / kDevicesPerSecond);
}

// Marks the devices whose records questions ask for, and the record each is
// probed for: any of its records (a completed resolve's SRV and address only
// listen, yet the device holds them), the smallest answer first, then the
// longest-lived.
void survey(mDNS* m) {
  CoreState& core = core_of(m);
  if (core.devices_surveyed_once && time_diff(core.now, core.devices_surveyed) < kSurveyIntervalMs) {
    return;
  }
  core.devices_surveyed = core.now;
  core.devices_surveyed_once = true;
  int rank[kMaxSenders];
  for (int s = 0; s < senders_end(core); ++s) {
    core.senders[s].watched = 0;
    core.senders[s].probe_record = 0;
    core.senders[s].twin = 0;
    rank[s] = 99;
  }
  for (uint32_t i = 0; i < core.cache_size; ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr == nullptr || !link_record(*rr) || rr->expiring || core.senders[rr->sender].interface_slot == 0) {
      continue;
    }
    note_twins(core, *rr);
    Sender& s = core.senders[rr->sender];
    if (importance_of(m, rr) != kIdle) {
      s.watched = 1;
    }
    const int r = probe_rank(rr->resrec.rrtype);
    if (r < rank[rr->sender] ||
        (r == rank[rr->sender] && time_diff(rr->expiry, record_at(core, s.probe_record).expiry) > 0)) {
      rank[rr->sender] = r;
      s.probe_record = i + 1;
    }
  }
  core.devices_watched = 0;
  for (int s = 1; s < senders_end(core); ++s) {
    core.devices_watched += core.senders[s].watched;
  }
}

bool probe(mDNS* m, SenderSlot sender, mDNSInterfaceID interface_id, const ProbeQuestion* questions,
           int count) {
  const Sender& s = core_of(m).senders[sender];
  return send_probe(m, interface_id, s.address, questions, count);
}

enum class Probed { kSent, kNoBudget, kNothingToAsk };

// The probe asking a device for its chosen record.
Probed send_liveness_probe(mDNS* m, SenderSlot sender) {
  CoreState& core = core_of(m);
  Sender& s = core.senders[sender];
  CacheRecord* rr = s.probe_record != 0 ? &record_at(core, s.probe_record) : nullptr;
  if (rr == nullptr || !rr->in_use || rr->sender != sender || rr->expiring) {
    return Probed::kNothingToAsk;
  }
  if (!governor_take_probe(core, ProbeKind::kLiveness)) {
    return Probed::kNoBudget;
  }
  const ProbeQuestion question{rr->resrec.name, rr->resrec.rrtype};
  if (!probe(m, sender, rr->resrec.InterfaceID, &question, 1)) {
    return Probed::kNoBudget;  // the interface's: an unsent probe cannot go unanswered
  }
  s.probe_sent = core.now;
  s.probes_unanswered++;
  return Probed::kSent;
}

// ---- Goodbye checks ----

bool already_asked(const ProbeQuestion* questions, int count, const CacheRecord& rr) {
  return std::any_of(questions, questions + count, [&](const ProbeQuestion& q) {
    return q.type == rr.resrec.rrtype && names_equal(*q.name, *rr.resrec.name);
  });
}

// One probe for the records of the sender that wait for a check.
void send_goodbye_check(mDNS* m, SenderSlot sender) {
  CoreState& core = core_of(m);
  ProbeQuestion questions[kProbeQuestions];
  int count = 0;
  mDNSInterfaceID interface_id = nullptr;
  bool more = false;
  for (uint32_t i = 0; i < core.cache_size; ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr == nullptr || rr->sender != sender || rr->goodbye_check != kCheckWanted) {
      continue;
    }
    if (interface_id == nullptr) {
      interface_id = rr->resrec.InterfaceID;
    }
    if (rr->resrec.InterfaceID != interface_id || count == kProbeQuestions) {
      more = true;
      continue;
    }
    if (!already_asked(questions, count, *rr)) {
      questions[count++] = ProbeQuestion{rr->resrec.name, rr->resrec.rrtype};
    }
  }
  core.senders[sender].check_wanted = more ? 1 : 0;
  if (count == 0 || !governor_take_probe(core, ProbeKind::kGoodbyeCheck)) {
    core.senders[sender].check_wanted = count > 0 ? 1 : 0;
    return;
  }
  if (!probe(m, sender, interface_id, questions, count)) {
    core.senders[sender].check_wanted = 1;
    return;
  }
  for (uint32_t i = 0; i < core.cache_size; ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr != nullptr && rr->sender == sender && rr->goodbye_check == kCheckWanted &&
        rr->resrec.InterfaceID == interface_id && already_asked(questions, count, *rr)) {
      rr->goodbye_check = kCheckAsked;
    }
  }
}

void run_goodbye_checks(mDNS* m) {
  CoreState& core = core_of(m);
  for (int s = 1; s < senders_end(core); ++s) {
    if (core.senders[s].check_wanted &&
        time_reached(governor_next_probe(core, ProbeKind::kGoodbyeCheck), core.now)) {
      send_goodbye_check(m, static_cast<SenderSlot>(s));
    }
  }
}

// ---- Liveness ----

// Second probes for unanswered first ones, and removal after two.  False
// when a removal ended the core.
bool settle_unanswered(mDNS* m) {
  CoreState& core = core_of(m);
  for (int i = 1; i < senders_end(core); ++i) {
    Sender& s = core.senders[i];
    if (s.probes_unanswered == 0 || !time_reached(time_add(s.probe_sent, kProbeWaitMs), core.now)) {
      continue;
    }
    if (!s.watched || time_diff(last_heard(core, s), s.probe_sent) > 0) {
      s.probes_unanswered = 0;  // nothing of it is asked for any more, or its twin answered
      s.heard = last_heard(core, s);
    } else if (s.probes_unanswered == 1) {
      if (send_liveness_probe(m, static_cast<SenderSlot>(i)) == Probed::kNothingToAsk) {
        s.probes_unanswered = 0;  // what it was asked for has gone meanwhile
      }
    } else {
      sender_gone(m, static_cast<SenderSlot>(i));
      if (!core.initialized) {
        return false;
      }
      // What the sender still holds (unicast DNS answers) stays.
      s.probes_unanswered = 0;
      s.watched = 0;
      s.heard = core.now;
    }
  }
  return true;
}

// The watched device heard from longest ago, if its interval has passed.
int due_device(const CoreState& core) {
  const int32_t interval = probe_interval(core);
  int due = 0;
  for (int i = 1; i < senders_end(core); ++i) {
    const Sender& s = core.senders[i];
    if (s.watched && s.probes_unanswered == 0 &&
        time_reached(time_add(last_heard(core, s), interval), core.now) &&
        (due == 0 || time_diff(last_heard(core, s), last_heard(core, core.senders[due])) < 0)) {
      due = i;
    }
  }
  return due;
}

}  // namespace

void devices_reset(CoreState& core) {
  core.devices_watched = 0;
  core.devices_surveyed_once = false;
  core.devices_planned = false;
}

void device_heard(mDNS* m, SenderSlot sender, mDNSInterfaceID interface_id) {
  if (sender == 0) {
    return;  // the table is full: "everybody" is nobody to probe
  }
  CoreState& core = core_of(m);
  Sender& s = core.senders[sender];
  s.heard = core.now;
  s.probes_unanswered = 0;
  s.interface_slot = interface_number(interface_id);
}

void device_goodbye(mDNS* m, const CacheRecord& rr) {
  CoreState& core = core_of(m);
  core.senders[rr.sender].check_wanted = 1;
  core.devices_planned = false;
}

void devices_run(mDNS* m) {
  CoreState& core = core_of(m);
  if (core.devices_planned && !time_reached(core.devices_next, core.now)) {
    return;
  }
  survey(m);
  run_goodbye_checks(m);
  if (!settle_unanswered(m)) {
    return;
  }
  while (time_reached(governor_next_probe(core, ProbeKind::kLiveness), core.now)) {
    const int due = due_device(core);
    if (due == 0) {
      break;
    }
    const Probed probed = send_liveness_probe(m, static_cast<SenderSlot>(due));
    if (probed == Probed::kNoBudget) {
      break;
    }
    if (probed == Probed::kNothingToAsk) {
      core.senders[due].heard = core.now;  // its turn comes again after the next survey
    }
  }
  // When there is next anything to do.
  const int32_t interval = probe_interval(core);
  int32_t next = time_add(core.now, kSurveyIntervalMs * 10);
  for (int i = 1; i < senders_end(core); ++i) {
    const Sender& s = core.senders[i];
    int32_t when = next;
    if (s.check_wanted) {
      when = governor_next_probe(core, ProbeKind::kGoodbyeCheck);
    } else if (s.probes_unanswered > 0) {
      when = time_add(s.probe_sent, kProbeWaitMs);
    } else if (s.watched) {
      when = time_add(last_heard(core, s), interval);
    }
    next = time_min(next, when);
  }
  if (time_reached(next, core.now)) {
    next = time_add(core.now, 1);
    next = time_diff(governor_next_probe(core, ProbeKind::kLiveness), next) > 0
               ? governor_next_probe(core, ProbeKind::kLiveness)
               : next;
  }
  core.devices_next = next;
  core.devices_planned = true;
}

int32_t devices_next_time(const mDNS* m) {
  const CoreState& core = core_of(m);
  return core.devices_planned ? core.devices_next : core.now;
}

}  // namespace mdns
