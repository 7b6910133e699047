#include "scripted_peer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace sorvalen::test {

Bytes answer(uint16_t id, const std::string& name, const std::vector<Bytes>& records) {
  Bytes out = DnsMessage(id).question(name, 12).bytes();
  out[7] = static_cast<uint8_t>(records.size());  // ANCOUNT
  for (const Bytes& record : records)
    out.insert(out.end(), record.begin(), record.end());
  return out;
}

Bytes rr(Bytes owner, uint16_t type, const Bytes& rdata) {
  for (unsigned field : {unsigned{type}, 1u, 0u, 120u, static_cast<unsigned>(rdata.size())})
    append_u16(owner, field);
  owner.insert(owner.end(), rdata.begin(), rdata.end());
  return owner;
}

ScriptedPeer::ScriptedPeer() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP)) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(5353);
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    const std::string reason = std::strerror(errno);
    close(socket_);
    throw std::runtime_error("peer bind to 127.0.0.1:5353: " + reason);
  }
}

ScriptedPeer::~ScriptedPeer() {
  close(socket_);
}

bool ScriptedPeer::await_query(ReceivedQuery* query, std::chrono::milliseconds wait) {
  pollfd readable{socket_, POLLIN, 0};
  uint8_t buffer[2048];
  socklen_t sender_length = sizeof query->sender;
  const ssize_t received = poll(&readable, 1, static_cast<int>(wait.count())) != 1
                               ? -1
                               : recvfrom(socket_, buffer, sizeof buffer, 0,
                                          reinterpret_cast<sockaddr*>(&query->sender), &sender_length);
  query->bytes.assign(buffer, buffer + std::max<ssize_t>(received, 0));
  return received >= 0;
}

void ScriptedPeer::reply(const ReceivedQuery& to, const Bytes& message) {
  sendto(socket_, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to.sender),
         sizeof to.sender);
}

}  // namespace sorvalen::test
