#include "scripted_peer.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace sorvalen::test {

void enter_private_loopback() {
  if (unshare(CLONE_NEWNET) != 0)
    return;
  const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (control < 0)
    throw std::runtime_error("no socket to configure loopback");
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  bool up = ioctl(control, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  up = up && ioctl(control, SIOCSIFFLAGS, &request) == 0;
  close(control);
  if (!up)
    throw std::runtime_error("cannot bring loopback up");
}

ScriptedPeer::ScriptedPeer() {
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (socket_ < 0)
    throw std::runtime_error("peer socket: " + std::string(std::strerror(errno)));
  const int on = 1;
  setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
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
  if (poll(&readable, 1, static_cast<int>(wait.count())) != 1)
    return false;
  uint8_t buffer[2048];
  socklen_t sender_length = sizeof query->sender;
  const ssize_t received = recvfrom(socket_, buffer, sizeof buffer, 0,
                                    reinterpret_cast<sockaddr*>(&query->sender), &sender_length);
  if (received < 0)
    return false;
  query->bytes.assign(buffer, buffer + received);
  return true;
}

void ScriptedPeer::reply(const ReceivedQuery& to, const std::vector<uint8_t>& message) {
  sendto(socket_, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to.sender),
         sizeof to.sender);
}

}  // namespace sorvalen::test
