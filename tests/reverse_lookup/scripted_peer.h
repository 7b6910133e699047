// A device stand-in on loopback for the reverse lookup: receives its query on
// port 5353 and answers with the bytes a test scripts, most often answer()'s.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "dns_builder.h"

namespace sorvalen::test {

// One record with raw owner-name and RDATA bytes, class IN, TTL 120.
inline Bytes rr(Bytes owner, uint16_t type, const Bytes& rdata) {
  for (unsigned field : {unsigned{type}, 1u, 0u, 120u, static_cast<unsigned>(rdata.size())})
    append_u16(owner, field);
  owner.insert(owner.end(), rdata.begin(), rdata.end());
  return owner;
}
inline Bytes ptr(const std::string& target) {
  return rr(wire_name("x"), 12, wire_name(target));
}
inline Bytes srv(unsigned port) {
  return rr(wire_name("x"), 33, record_data(33, {"0", "0", std::to_string(port), "host.local"}));
}

// An answer as a device sends it: the header with `id`, the question for
// `name` repeated, and `records` as its answers.
inline Bytes answer(uint16_t id, const std::string& name, const std::vector<Bytes>& records) {
  Bytes out = DnsMessage(id).question(name, 12).bytes();
  out[7] = static_cast<uint8_t>(records.size());  // ANCOUNT
  for (const Bytes& record : records)
    out.insert(out.end(), record.begin(), record.end());
  return out;
}

struct ReceivedQuery {
  Bytes bytes;
  sockaddr_in sender{};
};

class ScriptedPeer {
 public:
  ScriptedPeer() {
    const sockaddr_in local{AF_INET, htons(5353), {htonl(INADDR_LOOPBACK)}, {}};
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)
      throw std::runtime_error("the scripted device cannot bind 127.0.0.1:5353");
  }
  ~ScriptedPeer() { close(socket_); }

  // The next datagram, waiting at most `wait`; false when none came.
  bool await_query(ReceivedQuery* query, std::chrono::milliseconds wait = std::chrono::seconds(20)) {
    pollfd readable{socket_, POLLIN, 0};
    uint8_t buffer[2048];
    socklen_t length = sizeof query->sender;
    const ssize_t received = poll(&readable, 1, static_cast<int>(wait.count())) != 1
                                 ? -1
                                 : recvfrom(socket_, buffer, sizeof buffer, 0,
                                            reinterpret_cast<sockaddr*>(&query->sender), &length);
    query->bytes.assign(buffer, buffer + (received > 0 ? received : 0));
    return received >= 0;
  }
  void reply(const ReceivedQuery& to, const Bytes& message) {
    sendto(socket_, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to.sender),
           sizeof to.sender);
  }

 private:
  int socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
};

}  // namespace sorvalen::test
