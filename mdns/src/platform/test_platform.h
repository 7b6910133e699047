// The test platform: the host swapped for what a test controls.  Built into
// its own library for tests, fuzzers and benchmarks, never into libmdns.
//
// platform_use_test_mode on zeroed storage, before mDNS_Init, chooses it: no
// socket is opened; the interfaces are those of a snapshot the test owns (read
// at mDNS_Init and at every interface refresh); every message the core would
// send goes to the send hook; multicast and one-shot messages come in through
// engine_receive, unicast DNS answers through platform_test_deliver_dns and
// the next mDNSPosixProcessFDSet, which reads them as it reads real sockets.
// mDNSPosixGetFDSet then adds no descriptor (it still shortens the timeout).
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"
#include "platform/platform.h"

namespace mdns {

struct InterfaceSnapshot;

// A message the core sends, as the test platform hands it to the send hook.
struct SentMessage {
  Transport transport;
  mDNSInterfaceID interface_id;  // multicast and one-shot
  int family;                    // multicast and one-shot: 4 or 6
  mDNSAddr destination;          // unicast DNS: the server; a probe: its device
  uint16_t port;                 // unicast DNS: the server's port
  int socket;                    // unicast DNS: the query's socket, for answers delivered on it
  const uint8_t* data;
  size_t length;
};
using SendHook = void (*)(void* context, const SentMessage& message);

void platform_use_test_mode(mDNS_PlatformSupport* p, const InterfaceSnapshot* interfaces);
void platform_set_send_hook(mDNS_PlatformSupport* p, SendHook hook, void* context);
// The name servers that the resolver configuration gives.
void platform_test_set_name_servers(mDNS_PlatformSupport* p, const mDNSAddr* servers, const uint16_t* ports,
                                    int count);
// Where a unicast DNS socket is connected.
bool platform_test_socket(mDNS* m, int socket, mDNSAddr& server, uint16_t& port, bool& tcp);
// A message arriving on an open unicast DNS socket, from `source` and `port`:
// over UDP one datagram (cut to the reader's buffer, as the kernel cuts it),
// over TCP the message with its length prefix.  It replaces what the socket
// still held.  False when the socket is not open.
bool platform_test_deliver_dns(mDNS* m, int socket, const mDNSAddr& source, uint16_t port,
                               const uint8_t* message, size_t length);

}  // namespace mdns
