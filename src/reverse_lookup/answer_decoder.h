// Decoding of the answer to a reverse-lookup query.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace sorvalen {

struct AnswerOutcome {
  unsigned short id = 0;  // the answer's ID, host order
  bool ok = false;        // a PTR and an SRV answer record were found
  uint16_t port = 0;      // port of the latest SRV record (when ok)
  std::string name;       // target of the latest PTR record (when ok)
};

// Decodes the `length` received bytes at `message` as the answer to a query
// whose encoded name took `question_name_length` bytes: the question is skipped
// as the query's own, then ANCOUNT answer records are walked.  Header fields
// other than ID and ANCOUNT are not looked at.  Anything that breaks a bound
// (a read past `length`, an unusable name, an SRV shorter than 6 bytes) gives
// ok false.  A message too short to hold an ID reports `fallback_id`.
AnswerOutcome decode_answer(const unsigned char* message, std::size_t length,
                            std::size_t question_name_length, unsigned short fallback_id);

}  // namespace sorvalen
