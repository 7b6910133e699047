#include "reverse_lookup/answer_decoder.h"

#include "reverse_lookup/name_decoder.h"

namespace sorvalen {
namespace {

constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kQuestionFixedSize = 4;  // QTYPE, QCLASS
constexpr std::size_t kRecordFixedSize = 10;   // TYPE, CLASS, TTL, RDLENGTH
constexpr std::size_t kSrvPortEnd = 6;         // priority, weight, port
constexpr uint16_t kTypePtr = 12;
constexpr uint16_t kTypeSrv = 33;

uint16_t read_u16(const unsigned char* at) {
  return static_cast<uint16_t>((at[0] << 8) | at[1]);
}

// What the walk over the answer records has found so far.
struct Findings {
  bool ptr_seen = false;
  bool srv_seen = false;
  uint16_t port = 0;
  std::string name;
};

// Steps over one answer record at *place, noting a PTR target or SRV port.
// False when the record breaks a bound.
bool walk_record(const unsigned char* message, std::size_t length, std::size_t* place, Findings* findings) {
  const DecodedName owner = decode_name(message, length, *place);
  if (!owner.ok)
    return false;
  const std::size_t fixed = *place + static_cast<std::size_t>(owner.count);
  if (fixed + kRecordFixedSize > length)
    return false;
  const uint16_t type = read_u16(message + fixed);
  const std::size_t rdlength = read_u16(message + fixed + 8);
  const std::size_t rdata = fixed + kRecordFixedSize;

  if (type == kTypePtr) {
    const DecodedName target = decode_name(message, length, rdata);
    if (!target.ok)
      return false;
    findings->name = target.text;
    findings->ptr_seen = true;
    *place = rdata + static_cast<std::size_t>(target.count);
    return true;
  }
  if (rdata + rdlength > length)
    return false;
  if (type == kTypeSrv) {
    if (rdlength < kSrvPortEnd)
      return false;
    findings->port = read_u16(message + rdata + 4);
    findings->srv_seen = true;
  }
  *place = rdata + rdlength;
  return true;
}

}  // namespace

AnswerOutcome decode_answer(const unsigned char* message, std::size_t length,
                            std::size_t question_name_length, unsigned short fallback_id) {
  AnswerOutcome outcome;
  outcome.id = length >= 2 ? read_u16(message) : fallback_id;
  if (length < kHeaderSize)
    return outcome;
  const unsigned answer_count = read_u16(message + 6);

  Findings findings;
  std::size_t place = kHeaderSize + question_name_length + kQuestionFixedSize;
  for (unsigned i = 0; i < answer_count; ++i) {
    if (!walk_record(message, length, &place, &findings))
      return outcome;
  }
  if (findings.ptr_seen && findings.srv_seen) {
    outcome.ok = true;
    outcome.port = findings.port;
    outcome.name = findings.name;
  }
  return outcome;
}

}  // namespace sorvalen
