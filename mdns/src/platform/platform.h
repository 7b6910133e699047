// What the engine asks of the host: sockets, interfaces, time and randomness.
// The POSIX implementation keeps all of its state in mDNS_PlatformSupport.
//
// Test mode (platform_use_test_mode on zeroed storage before mDNS_Init): no
// socket is opened; the interfaces are those of a snapshot the test owns (read
// at mDNS_Init and at every interface refresh), every message the core would
// send goes to the send hook, and received messages come in through
// engine_receive.  mDNSPosixGetFDSet then adds no descriptor (it still
// shortens the timeout) and mDNSPosixProcessFDSet only runs the scheduled work.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

struct CoreState;
struct InterfaceSnapshot;
struct NameServer;

// How a message leaves or arrives.
enum class Transport : uint8_t {
  kMulticast,   // the port 5353 sockets: continuous querying
  kOneShot,     // the ephemeral-port sockets: one-shot queries and their direct answers
  kUnicastDns,  // a unicast DNS query's own socket (UDP)
  kUnicastTcp,  // ... over TCP, after a truncated answer
};

// ---- Lifetime ----

// Opens the sockets and reads the interfaces, joining the groups on every
// usable one.  In test mode nothing is opened.
mStatus platform_init(mDNS* m);
void platform_close(mDNS* m);

// Re-reads the interfaces: joins new ones, leaves vanished ones and tells the
// engine about each vanished one (engine_interface_removed).
mStatus platform_refresh_interfaces(mDNS* m);

// ---- Interfaces ----

// The usable interface of an ID, or null.
const NetworkInterfaceInfo* platform_interface(const mDNS* m, mDNSInterfaceID interface_id);
bool platform_interface_usable(const mDNS* m, mDNSInterfaceID interface_id, int family);
// True when `source` lies on the link of the interface: in one of its subnets,
// or link-local (IPv4 169.254/16, IPv6 fe80::/10).
bool platform_source_on_link(const mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& source);

// ---- Sending ----

// Sends one message to the mDNS group of the given family (4 or 6) out of one
// interface, from port 5353 (kMulticast) or from the ephemeral port (kOneShot).
bool platform_send_multicast(mDNS* m, Transport transport, mDNSInterfaceID interface_id, int family,
                             const uint8_t* message, size_t length);

// ---- Unicast DNS sockets (non-blocking; -1 on failure) ----

// A UDP socket on a fresh random port, connected to the server.
int platform_open_dns_udp(mDNS* m, const NameServer& server);
// A TCP socket connecting to the server (the connect completes later).
int platform_open_dns_tcp(mDNS* m, const NameServer& server);
void platform_close_dns(mDNS* m, int fd);
// Sends / receives on such a socket; the count, 0 when it would block, -1 on error.
long platform_dns_send(mDNS* m, int fd, const uint8_t* data, size_t length);
long platform_dns_receive(mDNS* m, int fd, uint8_t* buffer, size_t capacity);
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

// ---- Test mode ----

// A message the core sends, as test mode hands it to the send hook.
struct SentMessage {
  Transport transport;
  mDNSInterfaceID interface_id;  // multicast and one-shot
  int family;                    // multicast and one-shot: 4 or 6
  mDNSAddr destination;          // unicast DNS: the server
  uint16_t port;                 // unicast DNS: the server's port
  int socket;                    // unicast DNS: the query's socket, for answers injected on it
  const uint8_t* data;
  size_t length;
};
using SendHook = void (*)(void* context, const SentMessage& message);

void platform_use_test_mode(mDNS_PlatformSupport* p, const InterfaceSnapshot* interfaces);
void platform_set_send_hook(mDNS_PlatformSupport* p, SendHook hook, void* context);
// Test mode: the name servers that the resolver configuration gives.
void platform_test_set_name_servers(mDNS_PlatformSupport* p, const mDNSAddr* servers, const uint16_t* ports,
                                    int count);
// Test mode: where a unicast DNS socket is connected.
bool platform_test_socket(mDNS* m, int socket, mDNSAddr& server, uint16_t& port, bool& tcp);
// The ID of the interface with this name, or null.
mDNSInterfaceID platform_interface_id_of(const mDNS* m, const char* ifname);

}  // namespace mdns
