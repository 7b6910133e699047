#include "ask/one_shot.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "ask/groups.h"
#include "ask/question_lists.h"
#include "ask/send_governor.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "wire/identity.h"
#include "wire/message_reader.h"
#include "wire/message_writer.h"

namespace mdns {
namespace {

// So that a pass that starts thousands of questions stays bounded.
constexpr int kMaxPacketsPerInterface = 2;
// The questions of the outstanding one-shot or probe that a reply answers.
struct Outstanding {
  const uint32_t* questions = nullptr;
  int count = 0;
};

Outstanding find(const AskState& core, uint16_t id, const OneShotReply& arrival) {
  for (const OneShot& o : core.one_shots) {
    if (o.question_count > 0 && o.id == id && o.interface_id == arrival.interface_id &&
        o.family == arrival.source.type && time_diff(core.now, o.sent) <= kOneShotLifetimeMs) {
      return {o.questions, o.question_count};
    }
  }
  // A probe went to one device: nobody else may answer it.
  for (const Probe& p : core.probes) {
    if (p.question_count > 0 && p.id == id && p.interface_id == arrival.interface_id &&
        addresses_equal(p.target, arrival.source) && time_diff(core.now, p.sent) <= kOneShotLifetimeMs) {
      return {p.questions, p.question_count};
    }
  }
  return {};
}

// Packets of the wanted questions for one interface and family.
void send_on(mDNS* m, DNSQuestion* wanted, mDNSInterfaceID interface_id, int family) {
  AskState& core = ask_of(m);
  DNSQuestion* q = wanted;
  for (int packet = 0; packet < kMaxPacketsPerInterface && q != nullptr && governor_take_one_shot(core) &&
                       governor_take_packet(core, interface_id, SendPriority::kNewQuestion);
       ++packet) {
    OneShot& record = core.one_shots[core.one_shot_next++ % kMaxOneShots];
    record = OneShot{};
    record.id = platform_random_id();
    QueryWriter writer(core.txbuf, kMaxQueryPayload, record.id);
    for (; q != nullptr && record.question_count < kOneShotQuestions; q = list_next(q)) {
      if (!for_interface(*q, interface_id)) {
        continue;
      }
      if (!writer.add_question(q->qname, q->qtype, q->qclass)) {
        break;
      }
      record.questions[record.question_count++] = question_key(q->qname, q->qtype, q->qclass);
    }
    if (record.question_count == 0) {
      return;
    }
    record.family = static_cast<uint8_t>(family);
    record.interface_id = interface_id;
    record.sent = core.now;
    core.counters.one_shots_sent++;
    governor_send(m, Transport::kOneShot, interface_id, family, core.txbuf, writer.finish());
  }
}

}  // namespace

void one_shots_reset(AskState& core) {
  std::memset(core.one_shots, 0, sizeof core.one_shots);
  core.one_shot_next = 0;
  std::memset(core.probes, 0, sizeof core.probes);
  core.probe_next = 0;
}

bool send_probe(mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& device, const ProbeQuestion* questions,
                int count) {
  AskState& core = ask_of(m);
  if (!governor_take_packet(core, interface_id, SendPriority::kRoutine)) {
    return false;
  }
  Probe& record = core.probes[core.probe_next++ % kMaxProbes];
  record = Probe{};
  record.id = platform_random_id();
  QueryWriter writer(core.txbuf, kMaxQueryPayload, record.id);
  for (int i = 0; i < count && record.question_count < kProbeQuestions; ++i) {
    if (!writer.add_question(*questions[i].name, questions[i].type, kDNSClass_IN)) {
      break;
    }
    record.questions[record.question_count++] =
        question_key(*questions[i].name, questions[i].type, kDNSClass_IN);
  }
  if (record.question_count == 0) {
    return false;
  }
  record.interface_id = interface_id;
  record.target = device;
  record.sent = core.now;
  core.counters.probes_sent++;
  return governor_send_to_host(m, interface_id, device, core.txbuf, writer.finish());
}

void send_one_shots(mDNS* m) {
  AskState& core = ask_of(m);
  DNSQuestion* wanted = list_first(core, ListId::kOneShot);
  if (wanted == nullptr) {
    return;
  }
  // One family per interface: a responder gives a one-shot the same records
  // (A and AAAA alike) whichever family asked, and the multicast queries,
  // which go out on both, find those that listen on one only.
  for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
    for (int family : {mDNSAddrType_IPv4, mDNSAddrType_IPv6}) {
      if (platform_interface_usable(m, i->InterfaceID, family)) {
        send_on(m, wanted, i->InterfaceID, family);
        break;
      }
    }
  }
  while (list_pop(core, ListId::kOneShot) != nullptr) {
  }
}

bool one_shot_expected(mDNS* m, const MessageHeader& header, const OneShotReply& arrival) {
  return header.qdcount > 0 && find(ask_of(m), header.id, arrival).count > 0;
}

bool one_shot_asked(mDNS* m, const MessageHeader& header, const OneShotReply& arrival,
                    uint32_t question_key) {
  const Outstanding o = find(ask_of(m), header.id, arrival);
  return std::find(o.questions, o.questions + o.count, question_key) != o.questions + o.count;
}

}  // namespace mdns
