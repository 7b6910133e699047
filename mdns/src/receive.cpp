// The receive path: acceptance checks, cache update, then answer events.
#include "cache.h"
#include "clock.h"
#include "engine.h"
#include "message_reader.h"
#include "names.h"
#include "platform.h"
#include "questions.h"

namespace mdns {
namespace {

constexpr uint16_t kMdnsPort = 5353;
constexpr uint16_t kFlagResponse = 0x8000;
constexpr int32_t kFlushGraceMs = 1000;

bool acceptable_header(const MessageHeader& h) {
  const unsigned opcode = (h.flags >> 11) & 0xFu;
  const unsigned rcode = h.flags & 0xFu;
  return (h.flags & kFlagResponse) != 0 && opcode == 0 && rcode == 0;
}

uint16_t port_of(mDNSIPPort port) {
  return static_cast<uint16_t>((port.b[0] << 8) | port.b[1]);
}

void deliver_new_records(mDNS* m, int32_t now) {
  const mDNSu32 count = m->NewRecordCount;
  m->NewRecordCount = 0;
  for (mDNSu32 i = 0; i < count; ++i) {
    CacheRecord* rr = &m->rrcache[m->NewRecords[i]].r;
    if (!rr->InUse || !rr->AddPending) {
      continue;  // evicted again, or listed twice because its entry was reused
    }
    rr->AddPending = 0;
    deliver_record_event(m, rr, QC_add, now);
  }
}

void remember_new_record(mDNS* m, CacheRecord* rr, int32_t now) {
  if (m->NewRecordCount == mDNS_MaxNewRecordsPerPacket) {
    deliver_new_records(m, now);
  }
  rr->AddPending = 1;
  m->NewRecords[m->NewRecordCount++] = static_cast<mDNSu32>(reinterpret_cast<CacheEntity*>(rr) - m->rrcache);
}

// A cache-flush record: the other records of its name, type and class on this
// interface that are older than a second and not from this packet go away in
// one second.
void flush_older_records(mDNS* m, const CacheRecord& fresh, int32_t now) {
  const ResourceRecord& f = fresh.resrec;
  for (CacheRecord* rr = cache_bucket_first(m, f.namehash); rr != nullptr; rr = cache_bucket_next(m, rr)) {
    const ResourceRecord& r = rr->resrec;
    if (rr == &fresh || !rr->InUse || rr->ExpiryPending || rr->ReceivedPacketSeq == m->PacketSeq) {
      continue;
    }
    if (r.rrtype != f.rrtype || r.rrclass != f.rrclass || r.InterfaceID != f.InterfaceID ||
        r.namehash != f.namehash || time_diff(now, rr->TimeRcvd) <= kFlushGraceMs ||
        !names_equal(*r.name, *f.name)) {
      continue;
    }
    cache_expire_soon(m, rr, now);
    m->NextScheduledEvent = time_min(m->NextScheduledEvent, rr->ExpiryTime);
  }
}

void cache_one_record(mDNS* m, const ParsedRecord& rec, mDNSInterfaceID interface_id, int32_t now) {
  const uint32_t hash = name_hash(rec.name);
  const uint32_t datahash = rdata_hash(rec.rrtype, rec.rdata);
  CacheRecord* rr = cache_find(m, rec, hash, datahash, interface_id);
  if (rec.ttl == 0) {
    if (rr != nullptr && !rr->ExpiryPending) {
      cache_expire_soon(m, rr, now);
      m->NextScheduledEvent = time_min(m->NextScheduledEvent, rr->ExpiryTime);
    }
    return;
  }
  if (rr != nullptr) {
    cache_refresh(m, rr, rec.ttl, now);
  } else {
    rr = cache_insert(m, rec, hash, datahash, interface_id, now);
    if (rr == nullptr) {
      return;
    }
    remember_new_record(m, rr, now);
  }
  if (rec.cache_flush) {
    flush_older_records(m, *rr, now);
  }
  m->NextScheduledEvent = time_min(m->NextScheduledEvent, cache_next_event(*rr));
}

}  // namespace

void engine_receive(mDNS* m, const uint8_t* message, size_t length, const mDNSAddr& source,
                    mDNSIPPort source_port, mDNSInterfaceID interface_id, int32_t now) {
  if (!m->Initialized) {
    return;
  }
  m->timenow = now;
  m->counters.packets_received++;
  MessageParser parser(message, length);
  MessageHeader header;
  if (port_of(source_port) != kMdnsPort || !parser.read_header(header) || !acceptable_header(header) ||
      !platform_source_on_link(m, interface_id, source)) {
    m->counters.packets_dropped++;
    return;
  }
  m->counters.packets_accepted++;
  m->PacketSeq++;

  ParsedQuestion question;
  for (uint32_t i = 0; i < header.qdcount; ++i) {
    if (parser.next_question(question) != MessageParser::Result::kOk) {
      return;
    }
  }
  // Every record of the packet is cached before any event goes out, so that a
  // callback starting a resolve already finds the additional records.
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
    cache_one_record(m, rec, interface_id, now);
  }
  deliver_new_records(m, now);
}

}  // namespace mdns
