#include "ask/query_packets.h"

#include "ask/groups.h"
#include "ask/send_governor.h"
#include "cache/cache.h"
#include "platform/clock.h"
#include "wire/message_writer.h"
#include "wire/names.h"

namespace mdns {
namespace {

// Every packet takes its place in the interface's budget; a query whose first
// packet finds none does not go out on this interface.
class PacketBuilder {
 public:
  PacketBuilder(mDNS* m, mDNSInterfaceID interface_id, int family)
      : m_(m), core_(ask_of(m)), interface_id_(interface_id), family_(family), now_(core_.now) {}

  void send_all(DNSQuestion* chosen) {
    DNSQuestion* next = chosen;
    while (next != nullptr) {
      QueryWriter first(core_.txbuf, kMaxQueryPayload);
      DNSQuestion* begin = next;
      DNSQuestion* end = next;
      bool new_question = false;
      for (; end != nullptr; end = state_of(end).next_to_send) {
        if (!for_interface(*end, interface_id_)) {
          continue;
        }
        // A question's first query asks for unicast answers (RFC 6762 section
        // 5.4): a responder that has just announced its records (a device
        // that just started) does not multicast them again within the second,
        // and may not answer a multicast query before its announcements are
        // over, but answers this one directly.
        const bool first_query = state_of(end).link.phase == LinkPhase::kFirstQueryDue;
        if (!first.add_question(end->qname, end->qtype, end->qclass, first_query)) {
          break;
        }
        new_question = new_question || state_of(end).queries_sent == 0;
      }
      if (first.question_count() == 0 ||
          !governor_take_packet(core_, interface_id_,
                                new_question ? SendPriority::kNewQuestion : SendPriority::kRoutine)) {
        return;
      }
      core_.send_serial++;
      writer_ = &first;
      packets_ = 1;
      for (DNSQuestion* q = begin; q != end; q = state_of(q).next_to_send) {
        if (for_interface(*q, interface_id_)) {
          core_.counters.queries_sent++;
          state_of(q).link.sent_this_pass = true;
          write_known_answers(q);
        }
      }
      send(writer_->finish());
      next = end;
    }
  }

 private:
  void send(size_t length) {
    governor_send(m_, Transport::kMulticast, interface_id_, family_, core_.txbuf, length);
  }

  // Answers whose remaining TTL is above half the original go along, so that
  // responders holding the same need not answer.  Not those a one-shot brought
  // (write_known_answers): their TTLs are the few seconds of a direct answer,
  // and a responder that takes them as known would not send the answer that
  // brings the real TTLs, leaving them to refresh queries before they expire.  False once the query's
  // known answers reached their cap.
  bool add(DNSQuestion* q, const domainname& name, uint16_t rrtype, uint16_t rrclass, int64_t remaining_ms,
           uint32_t ttl, const RData& rdata) {
    if (remaining_ms * 2 <= static_cast<int64_t>(ttl) * 1000) {
      return true;
    }
    const uint32_t remaining = static_cast<uint32_t>(remaining_ms / 1000);
    if (writer_->add_known_answer(name, rrtype, rrclass, remaining, rdata)) {
      return true;
    }
    if (packets_ == kMaxKnownAnswerPackets ||
        !governor_take_packet(core_, interface_id_, SendPriority::kRoutine)) {
      return false;
    }
    state_of(q).link.spilled = true;
    writer_->set_truncated();
    send(writer_->finish());
    packets_++;
    spare_ = QueryWriter(core_.txbuf, kMaxQueryPayload);
    writer_ = &spare_;
    return writer_->add_known_answer(name, rrtype, rrclass, remaining, rdata);
  }

  void write_known_answers(DNSQuestion* q) {
    if (state_of(q).kind == QuestionKind::kBrowse) {
      write_remembered_answers(q);
      return;
    }
    for (CacheRecord* rr = cache_first(core_, state_of(q).name_hash); rr != nullptr;
         rr = cache_next(core_, rr)) {
      if (rr->expiring || rr->known_answer_mark == core_.send_serial || rr->source == Source::kOneShot ||
          rr->resrec.InterfaceID != interface_id_ || !question_answered_by(*q, rr->resrec)) {
        continue;
      }
      rr->known_answer_mark = core_.send_serial;
      if (!add(q, *rr->resrec.name, rr->resrec.rrtype, rr->resrec.rrclass, cache_remaining_ms(*rr, now_),
               rr->resrec.rroriginalttl, *rr->resrec.rdata)) {
        return;
      }
    }
  }

  // A browse knows every instance it reported, also those the cache had no
  // room for.  When they are more than the cap lets go, each query starts
  // where the last one stopped, so that all are named in turn (and the
  // answers a long list still draws are not always the same).
  void write_remembered_answers(DNSQuestion* q) {
    LinkSchedule& link = state_of(q).link;
    const int skip = link.known_answer_skip;
    int eligible = 0;
    int written = 0;
    bool full = false;
    for (int pass = 0; pass < 2 && !full; ++pass) {
      int n = 0;
      int cursor = 0;
      RememberedAnswer a;
      while (!full && remembered_answer_next(m_, q, cursor, a)) {
        if (!goes(a)) {
          continue;
        }
        const bool in_turn = pass == 0 ? n >= skip : n < skip;
        ++n;
        if (in_turn) {
          full = !add_remembered(q, a);
          written += full ? 0 : 1;
        }
      }
      eligible = pass == 0 ? n : eligible;
    }
    link.known_answer_skip = static_cast<uint16_t>(full && eligible > 0 ? (skip + written) % eligible : 0);
  }

  bool goes(const RememberedAnswer& a) const {
    return a.interface_id == interface_id_ && !a.one_shot &&
           a.remaining_ms * 2 > static_cast<int64_t>(a.ttl) * 1000;
  }

  bool add_remembered(DNSQuestion* q, const RememberedAnswer& a) {
    RData rdata{};
    rdata.u.name = a.name;
    rdata.length = static_cast<mDNSu16>(name_length(a.name));
    return add(q, q->qname, kDNSType_PTR, kDNSClass_IN, a.remaining_ms, a.ttl, rdata);
  }

  mDNS* m_;
  AskState& core_;
  mDNSInterfaceID interface_id_;
  int family_;
  int32_t now_;
  int packets_ = 0;
  QueryWriter* writer_ = nullptr;
  QueryWriter spare_{nullptr, 0};
};

}  // namespace

void send_query_packets(mDNS* m, DNSQuestion* chosen, mDNSInterfaceID interface_id, int family) {
  PacketBuilder(m, interface_id, family).send_all(chosen);
}

}  // namespace mdns
