// A device stand-in on loopback for the reverse lookup: receives its query on
// port 5353 and answers with the bytes a test scripts, most often answer()'s.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <string>
#include <vector>

#include "dns_builder.h"

namespace sorvalen::test {

// An answer as a device sends it: the header with `id`, the question for
// `name` repeated, and `records` (made by rr()) as its answers.
Bytes answer(uint16_t id, const std::string& name, const std::vector<Bytes>& records);
// One record with raw owner-name and RDATA bytes, class IN, TTL 120.
Bytes rr(Bytes owner, uint16_t type, const Bytes& rdata);
inline Bytes ptr(const std::string& target) {
  return rr(wire_name("x"), 12, wire_name(target));
}
inline Bytes srv(unsigned port) {
  return rr(wire_name("x"), 33, record_data(33, {"0", "0", std::to_string(port), "host.local"}));
}

struct ReceivedQuery {
  Bytes bytes;
  sockaddr_in sender{};
};

class ScriptedPeer {
 public:
  ScriptedPeer();  // binds 127.0.0.1:5353; throws std::runtime_error
  ~ScriptedPeer();
  // The next datagram, waiting at most `wait`; false when none came.
  bool await_query(ReceivedQuery* query, std::chrono::milliseconds wait = std::chrono::seconds(20));
  void reply(const ReceivedQuery& to, const Bytes& message);

 private:
  int socket_ = -1;
};

}  // namespace sorvalen::test
