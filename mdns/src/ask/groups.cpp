#include "ask/groups.h"

#include "wire/identity.h"

namespace mdns {

bool question_answered_by(const DNSQuestion& q, const ResourceRecord& rr) {
  if (q.qtype != rr.rrtype && q.qtype != kDNSType_ANY) {
    return false;
  }
  if (q.qclass != rr.rrclass && q.qclass != kDNSType_ANY) {
    return false;
  }
  if (q.InterfaceID != mDNSInterface_Any && q.InterfaceID != rr.InterfaceID) {
    return false;
  }
  // Records of unicast DNS carry no interface, those of the link always one:
  // a question is answered only over the transport it asks on.
  const QuestionState& s = state_of(&q);
  if (s.unicast != (rr.InterfaceID == mDNSInterface_Any)) {
    return false;
  }
  return s.name_hash == rr.namehash && names_equal(q.qname, *rr.name);
}

bool is_unique_type(uint16_t rrtype) {
  return rrtype == kDNSType_SRV || rrtype == kDNSType_TXT || rrtype == kDNSType_A || rrtype == kDNSType_AAAA;
}

uint32_t question_key(const domainname& name, uint16_t qtype, uint16_t qclass) {
  return name_hash(name) ^ (static_cast<uint32_t>(qtype) * 2654435761u) ^
         (static_cast<uint32_t>(qclass) << 7);
}

}  // namespace mdns
