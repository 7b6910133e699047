// What the engine asks of the host: sockets, interfaces, time and randomness.
// The POSIX implementation keeps all of its state in mDNS_PlatformSupport.
// Tests swap the host for the test platform (platform/test_platform.h).
#pragma once

#include <sys/select.h>

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

struct InterfaceChanges;

constexpr int kMaxNameServers = 3;

// A name server of the resolver configuration.
struct NameServer {
  mDNSAddr address;
  uint16_t port;   // host order
  uint32_t scope;  // the interface index of a link-local IPv6 server, else 0
};

// How a message leaves or arrives.
enum class Transport : uint8_t {
  kMulticast,   // the port 5353 sockets: continuous querying
  kOneShot,     // the ephemeral-port sockets: one-shot queries and their direct answers
  kUnicastDns,  // a unicast DNS query's own socket (UDP)
  kUnicastTcp,  // ... over TCP, after a truncated answer
};

// ---- Lifetime ----

// Opens the sockets and reads the interfaces, joining the groups on every
// usable one.
mStatus platform_init(mDNS* m);
void platform_close(mDNS* m);

// Re-reads the interfaces: joins new ones and leaves vanished ones; `changes`
// lists them (and the re-created ones, in both lists).
mStatus platform_refresh_interfaces(mDNS* m, InterfaceChanges& changes);

// ---- Interfaces ----

// The usable interface of an ID, or null.
const NetworkInterfaceInfo* platform_interface(const mDNS* m, mDNSInterfaceID interface_id);
bool platform_interface_usable(const mDNS* m, mDNSInterfaceID interface_id, int family);
// True when `source` lies on the link of the interface (see interface_source_on_link);
// `ttl` is the IP TTL or hop limit the datagram arrived with, 0 when unknown.
bool platform_source_on_link(const mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& source,
                             uint8_t ttl);

// ---- Sending ----

// Sends one message to the mDNS group of the given family (4 or 6) out of one
// interface, from port 5353 (kMulticast) or from the ephemeral port (kOneShot).
bool platform_send_multicast(mDNS* m, Transport transport, mDNSInterfaceID interface_id, int family,
                             const uint8_t* message, size_t length);
// Sends one message from the one-shot socket to port 5353 of one host on the
// link of the interface (a direct question to that host).
bool platform_send_to_host(mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& to, const uint8_t* message,
                           size_t length);

// ---- Unicast DNS sockets (non-blocking; -1 on failure) ----

// A UDP socket on a fresh random port, connected to the server.
int platform_open_dns_udp(mDNS* m, const NameServer& server);
// A TCP socket connecting to the server (the connect completes later).
int platform_open_dns_tcp(mDNS* m, const NameServer& server);
void platform_close_dns(mDNS* m, int fd);
// Sends on such a socket; the count, 0 when it would block, -1 on error.
long platform_dns_send(mDNS* m, int fd, const uint8_t* data, size_t length);

// What one read of such a socket gave.
struct DnsReceived {
  long length;      // bytes read; 0 when nothing waits, -1 on an error or a stream the server closed
  mDNSAddr source;  // UDP: the sender (type None when unknown)
  uint16_t port;    // UDP: the sender's port
  bool truncated;   // UDP: the datagram was longer than the buffer; the rest is lost
};
// One datagram (UDP), or what the stream holds up to `capacity` (TCP).
DnsReceived platform_dns_receive(mDNS* m, int fd, uint8_t* buffer, size_t capacity);
// Whether a read of the socket would find something: for a real socket, that
// the caller's select marked it in `readfds` (which may be null).
bool platform_dns_readable(mDNS* m, int fd, const fd_set* readfds);
// Whether a TCP connect has finished (1), is still going (0) or failed (-1).
int platform_dns_connected(mDNS* m, int fd);

// ---- Host ----

// Monotonic clock in milliseconds (wraps; compare with differences).
int32_t platform_now_ms();
uint32_t platform_random_seed();
// Unpredictable 16 bits, for message IDs.
uint16_t platform_random_id();

// Name servers of the resolver configuration; returns how many were read.
int platform_read_name_servers(mDNS* m, NameServer* servers, int capacity);

// The ID of the interface with this name, or null.
mDNSInterfaceID platform_interface_id_of(const mDNS* m, const char* ifname);

}  // namespace mdns
