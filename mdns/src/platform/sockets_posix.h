// The two UDP sockets on the mDNS port: opening, group membership, sending to
// the group out of one interface, and reading one datagram with the interface
// it arrived on.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Family is mDNSAddrType_IPv4 or mDNSAddrType_IPv6.  Returns -1 on failure.
// The port 5353 socket, shared with other mDNS software on the host.
int open_mdns_socket(int family);
// A socket on an ephemeral port for one-shot queries: sends to the group with
// hop limit 255 and reads the direct answers with their arrival interface.
int open_one_shot_socket(int family);
// A non-blocking socket to a unicast DNS server: UDP from a fresh ephemeral
// port, connected (the kernel then drops datagrams from anyone else), or TCP
// with its connect under way.
int open_dns_socket(const mDNSAddr& server, uint16_t port, uint32_t scope, bool tcp);
// 1 when a TCP connect has completed, 0 while it goes on, -1 when it failed.
int connect_result(int fd);
// Watches the kernel's interface and address changes; -1 when unavailable.
int open_netlink_socket();
// Empties the netlink socket; true when anything arrived.
bool drain_netlink(int fd);
void close_socket(int& fd);

bool join_group(int fd, int family, uint32_t ifindex);
void leave_group(int fd, int family, uint32_t ifindex);

// To the mDNS group and port, out of one interface.
bool send_to_group(int fd, int family, uint32_t ifindex, const uint8_t* message, size_t length);
// To one host's mDNS port, out of one interface.
bool send_to_host(int fd, uint32_t ifindex, const mDNSAddr& to, const uint8_t* message, size_t length);

struct Datagram {
  size_t length = 0;
  mDNSAddr source{};
  mDNSIPPort source_port{};
  uint32_t ifindex = 0;    // 0 when the arrival interface is unknown
  uint8_t ttl = 0;         // the IPv4 TTL or IPv6 hop limit; 0 when unknown
  bool truncated = false;  // longer than the buffer: the rest is lost
};

enum class ReadStatus { kGot, kEmpty, kFailed };

// Reads one datagram into `buffer` without blocking, from one of the mDNS or
// one-shot sockets.  kEmpty when nothing is waiting (or on an error that
// reading again would not cure).
ReadStatus receive_datagram(int fd, uint8_t* buffer, size_t capacity, Datagram& out);
// The same from a unicast DNS socket (over TCP: what the stream holds, up to
// `capacity`); kFailed on an error other than nothing waiting.
ReadStatus receive_on_dns_socket(int fd, uint8_t* buffer, size_t capacity, Datagram& out);

}  // namespace mdns
