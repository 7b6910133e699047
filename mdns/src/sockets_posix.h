// The two UDP sockets on the mDNS port: opening, group membership, sending to
// the group out of one interface, and reading one datagram with the interface
// it arrived on.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Family is mDNSAddrType_IPv4 or mDNSAddrType_IPv6.  Returns -1 on failure.
int open_mdns_socket(int family);
void close_socket(int& fd);

bool join_group(int fd, int family, uint32_t ifindex);
void leave_group(int fd, int family, uint32_t ifindex);

bool send_to_group(int fd, int family, uint32_t ifindex, const uint8_t* message, size_t length);

struct Datagram {
  size_t length = 0;
  mDNSAddr source{};
  mDNSIPPort source_port{};
  uint32_t ifindex = 0; /* 0 when the arrival interface is unknown */
  bool truncated = false;
};

enum class ReadStatus { kGot, kEmpty };

// Reads one datagram into `buffer` without blocking.  kEmpty when nothing is
// waiting (or on an error that reading again would not cure).
ReadStatus receive_datagram(int fd, uint8_t* buffer, size_t capacity, Datagram& out);

}  // namespace mdns
