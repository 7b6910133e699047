// The receive path: acceptance checks, cache update, then answer events.
#include "engine/receive.h"
#include "ask/asker.h"
#include "ask/dns_asker.h"
#include "ask/one_shot.h"
#include "cache/cache.h"
#include "engine/cache_policy.h"
#include "engine/devices.h"
#include "engine/engine.h"
#include "engine/events.h"
#include "engine/questions.h"
#include "platform/clock.h"
#include "platform/platform.h"
#include "wire/identity.h"
#include "wire/message_reader.h"
#include "wire/names.h"

namespace mdns {
namespace {

bool acceptable_header(const MessageHeader& h) {
  const unsigned opcode = (h.flags >> 11) & 0xFu;
  const unsigned rcode = h.flags & 0xFu;
  return (h.flags & kFlagResponse) != 0 && opcode == 0 && rcode == 0;
}

uint16_t port_of(mDNSIPPort port) {
  return static_cast<uint16_t>((port.b[0] << 8) | port.b[1]);
}

void deliver_packet_records(mDNS* m) {
  CoreState& core = core_of(m);
  // A callback may end the core (its storage is then reset) or stop
  // questions; it cannot store records, so the chain only shrinks here.
  while (core.initialized && core.packet_head != 0) {
    CacheRecord* rr = &record_at(core, core.packet_head);
    core.packet_head = rr->packet_next;
    rr->packet_next = 0;
    rr->in_packet = 0;
    if (!rr->in_use) {
      continue;
    }
    if (rr->add_pending) {
      rr->add_pending = 0;
      record_added(m, rr);
    } else {
      record_renewed(m, rr);
    }
    if (rr->in_use) {
      note_victim_candidate(m, rr);
    }
  }
  core.packet_tail = 0;
}

// Until the packet is delivered its records are pinned (see cache_policy.h),
// so no entry of the chain is given up for space while it grows.
void note_packet_record(mDNS* m, CacheRecord* rr) {
  CoreState& core = core_of(m);
  if (rr->in_packet) {
    return;  // the same record twice in one packet
  }
  rr->in_packet = 1;
  rr->packet_next = 0;
  const uint32_t self = index_of(core, rr);
  if (core.packet_tail != 0) {
    record_at(core, core.packet_tail).packet_next = self;
  } else {
    core.packet_head = self;
  }
  core.packet_tail = self;
}

// A cache-flush record: the other records of its name, type and class on this
// interface that are older than a second and not from this packet go away in
// one second.
void flush_older_records(mDNS* m, const CacheRecord& fresh) {
  CoreState& core = core_of(m);
  const ResourceRecord& f = fresh.resrec;
  for (CacheRecord* rr = cache_first(core, f.namehash); rr != nullptr; rr = cache_next(core, rr)) {
    const ResourceRecord& r = rr->resrec;
    if (rr == &fresh || rr->expiring || rr->packet_seq == core.packet_seq || r.rrtype != f.rrtype ||
        r.rrclass != f.rrclass || r.InterfaceID != f.InterfaceID || r.namehash != f.namehash ||
        time_diff(core.now, rr->received) <= kFlushGraceMs || !names_equal(*r.name, *f.name)) {
      continue;
    }
    cache_expire_soon(core, rr, core.now);
    note_victim_candidate(m, rr);
  }
}

void handle_goodbye(mDNS* m, const ParsedRecord& rec, CacheRecord* rr, uint32_t hash,
                    mDNSInterfaceID interface_id) {
  CoreState& core = core_of(m);
  if (rr != nullptr) {
    if (!rr->expiring) {
      // Anybody may send a goodbye: the record's own sender is asked first,
      // when a question that asks needs the record.
      if (rr->source != Source::kUnicastDns && rr->sender != 0 && importance_of(m, rr) != kIdle) {
        cache_goodbye(core, rr, core.now);
        device_goodbye(m, *rr);
      } else {
        cache_expire_soon(core, rr, core.now);
      }
      note_victim_candidate(m, rr);
    }
    return;
  }
  if (rec.rrtype == kDNSType_PTR) {
    ResourceRecord view{};
    RData rdata = rec.rdata;
    view.rrtype = rec.rrtype;
    view.rrclass = rec.rrclass;
    view.InterfaceID = interface_id;
    view.name = &rec.name;
    view.namehash = hash;
    view.rdata = &rdata;
    goodbye_for_uncached(m, view);
  }
}

// A free entry, giving one up if the cache is full; null when none can go.
bool make_room(mDNS* m) {
  CoreState& core = core_of(m);
  if (!cache_full(core)) {
    return true;
  }
  CacheRecord* victim = choose_victim(m);
  if (victim == nullptr) {
    core.counters.records_refused++;
    return false;
  }
  record_departs(m, victim, Departure::kEvicted);
  return true;
}

// A response from port 5353 and from the link (RFC 6762 sections 6 and 11);
// on the one-shot socket, also an answer to an outstanding one-shot that
// repeats its questions.  Leaves the parser at the records.
bool accepted(mDNS* m, MessageParser& parser, const Arrival& arrival) {
  MessageHeader header;
  if (port_of(arrival.source_port) != kMdnsPort || !parser.read_header(header) ||
      !acceptable_header(header) ||
      !platform_source_on_link(m, arrival.interface_id, arrival.source, arrival.ttl)) {
    return false;
  }
  const bool one_shot = arrival.transport == Transport::kOneShot;
  const OneShotReply reply{arrival.interface_id, arrival.source};
  if (one_shot && !one_shot_expected(m, header, reply)) {
    return false;
  }
  // Any other question than the one-shot's is not ours.
  ParsedQuestion question;
  for (uint32_t i = 0; i < header.qdcount; ++i) {
    if (parser.next_question(question) != MessageParser::Result::kOk ||
        (one_shot &&
         !one_shot_asked(m, header, reply, question_key(question.name, question.qtype, question.qclass)))) {
      return false;
    }
  }
  return true;
}

// The groups asking for shared records (a browse's PTRs) that this one-shot
// answer answers: they have somebody to ask by multicast at once.
void note_one_shot_answered(mDNS* m) {
  CoreState& core = core_of(m);
  for (uint32_t i = core.packet_head; i != 0; i = record_at(core, i).packet_next) {
    const CacheRecord& rr = record_at(core, i);
    if (rr.resrec.rrtype != kDNSType_PTR || !rr.in_use) {
      continue;
    }
    for (DNSQuestion* q = core.question_buckets[rr.resrec.namehash % kQuestionBuckets]; q != nullptr;
         q = state_of(q).bucket_next) {
      if (state_of(q).delivered && question_answered_by(*q, rr.resrec)) {
        asker_one_shot_answered(m, leader_of(q));
      }
    }
  }
}

// Every record of the packet is cached before any event goes out, so that a
// callback starting a resolve already finds the additional records.
void store_link_records(mDNS* m, MessageParser& parser, const Arrival& arrival) {
  CoreState& core = core_of(m);
  core.packet_seq++;
  RecordOrigin origin;
  origin.interface_id = arrival.interface_id;
  origin.source = arrival.transport == Transport::kOneShot ? Source::kOneShot : Source::kMulticast;
  origin.sender = sender_slot(core, arrival.source);
  core.packet_sender = origin.sender;
  device_heard(m, origin.sender, arrival.interface_id);
  static_assert(sizeof(ParsedRecord) < 2048, "parsed record lives on the stack");
  ParsedRecord rec;
  for (;;) {
    const MessageParser::Result result = parser.next_record(rec);
    if (result == MessageParser::Result::kSkipped) {
      continue;
    }
    if (result != MessageParser::Result::kOk) {
      break;  // end, or malformed: the rest cannot be trusted
    }
    store_record(m, rec, origin);
  }
  core.packet_sender = 0;
  sender_release_if_unused(core, origin.sender);
}

}  // namespace

void store_record(mDNS* m, const ParsedRecord& rec, const RecordOrigin& origin) {
  CoreState& core = core_of(m);
  const uint32_t hash = name_hash(rec.name);
  const uint32_t data_hash = rdata_hash(rec.rrtype, rec.rdata);
  CacheRecord* rr = cache_find(core, rec, hash, data_hash, origin.interface_id);
  // The link speaks only for its own names (RFC 6762 sections 3 and 22):
  // anything else a host multicasts could stand in for unicast DNS answers.
  // (A record found in the cache was looked at when it came.)
  if (rr == nullptr && origin.source != Source::kUnicastDns &&
      !name_is_link_local(rec.name, rec.name_last_label)) {
    return;
  }
  if (rec.ttl == 0) {
    handle_goodbye(m, rec, rr, hash, origin.interface_id);
    return;
  }
  if (rr != nullptr) {
    // A direct answer to a one-shot carries a short TTL (at most 10 s): it
    // never shortens what a multicast answer gave.  From the record's own
    // sender after a goodbye, it shows the goodbye was not the sender's.
    const bool shorter = time_diff(time_add(core.now, static_cast<int64_t>(rec.ttl) * 1000), rr->expiry) < 0;
    if (origin.source == Source::kOneShot && rr->goodbye_check != kNoCheck && origin.sender == rr->sender) {
      cache_keep_after_goodbye(core, rr);
      note_victim_candidate(m, rr);
    } else if (origin.source != Source::kOneShot || !shorter || rr->expiring) {
      cache_refresh(core, rr, rec.ttl, core.now);
      rr->source = origin.source;  // whose TTL it now has
    }
    note_packet_record(m, rr);
  } else {
    if (!make_room(m)) {
      return;
    }
    rr =
        cache_insert(core, rec, hash, data_hash, origin.interface_id, origin.source, origin.sender, core.now);
    if (rr == nullptr) {
      return;
    }
    rr->add_pending = 1;
    note_packet_record(m, rr);
  }
  if (rec.cache_flush) {
    flush_older_records(m, *rr);
  }
}

void finish_packet(mDNS* m) {
  deliver_packet_records(m);
}

void engine_receive(mDNS* m, const uint8_t* message, size_t length, const Arrival& arrival) {
  CoreState& core = core_of(m);
  if (!core.initialized) {
    return;
  }
  core.counters.packets_received++;
  MessageParser parser(message, length);
  if (!accepted(m, parser, arrival)) {
    core.counters.packets_dropped++;
    return;
  }
  core.counters.packets_accepted++;
  store_link_records(m, parser, arrival);
  if (arrival.transport == Transport::kOneShot) {
    note_one_shot_answered(m);
  }
  finish_packet(m);
  engine_deliver_waiting(m);
}

namespace {

// Records of the question's set that this answer no longer holds have gone:
// they leave, with their events, in this pass.
void expire_missing(mDNS* m, const DNSQuestion& q) {
  CoreState& core = core_of(m);
  const uint32_t hash = name_hash(q.qname);
  for (CacheRecord* rr = cache_first(core, hash); rr != nullptr; rr = cache_next(core, rr)) {
    if (rr->source == Source::kUnicastDns && rr->packet_seq != core.packet_seq && !rr->expiring &&
        rr->resrec.rrtype == q.qtype && names_equal(*rr->resrec.name, q.qname)) {
      cache_expire_now(core, rr, core.now);
    }
  }
}

}  // namespace

void engine_take_dns_answer(mDNS* m, DNSQuestion* leader, const MessageParser& answer,
                            const NameServer& server) {
  CoreState& core = core_of(m);
  const uint32_t seq = ++core.packet_seq;
  RecordOrigin origin{mDNSInterface_Any, Source::kUnicastDns, sender_slot(core, server.address)};
  core.packet_sender = origin.sender;
  // A browse's PTR answers are its list, kept by the browses (see
  // unicast_browse_answer); the rest (SRV, TXT and addresses a server adds)
  // is cached, before any event, for the resolves the events start.
  const bool browses = state_of(leader).kind == QuestionKind::kBrowse;
  MessageParser parser = answer;
  ParsedRecord rec;
  for (MessageParser::Result r; (r = parser.next_record(rec)) != MessageParser::Result::kEnd;) {
    if (r == MessageParser::Result::kMalformed) {
      break;
    }
    if (r == MessageParser::Result::kOk && rec.ttl > 0 && dns_answer_in_bailiwick(rec, *leader) &&
        !(browses && rec.section == Section::kAnswer)) {
      store_record(m, rec, origin);
    }
  }
  if (!browses) {
    expire_missing(m, *leader);
  }
  finish_packet(m);
  if (browses && core.initialized && question_active(m, leader)) {
    unicast_browse_answer(m, leader, answer, origin.sender, seq);
  }
  core.packet_sender = 0;
  if (core.initialized) {
    sender_release_if_unused(core, origin.sender);
  }
}

}  // namespace mdns
