// What the engine asks of the host: sockets, interfaces, time and randomness.
// The POSIX implementation keeps all of its state in mDNS_PlatformSupport.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Opens the IPv4 and IPv6 sockets on port 5353 (address and port reuse), reads
// the interfaces and joins the groups on every usable one.  In test mode
// (p->test_mode) no socket is opened: messages are injected and sends captured.
mStatus platform_init(mDNS* m);
void platform_close(mDNS* m);

// Re-reads the interfaces: joins new ones, leaves vanished ones and tells the
// engine about each vanished one (engine_interface_removed) so that its cached
// records go with the usual remove events.  Interface IDs stay stable.
mStatus platform_refresh_interfaces(mDNS* m);

// Sends one message to the mDNS group of the given family (4 or 6) out of one
// interface; returns false if it could not be sent.
bool platform_send(mDNS* m, mDNSInterfaceID interface_id, int family, const uint8_t* message, size_t length);

// True when `source` lies on the link of the interface: in one of its IPv4
// subnets, or an IPv6 link-local address, or one of its IPv6 prefixes.
bool platform_source_on_link(const mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& source);

// The interface record for an ID, or null.
const NetworkInterfaceInfo* platform_interface(const mDNS* m, mDNSInterfaceID interface_id);

// Monotonic clock in milliseconds (wraps; compare with differences).
int32_t platform_now_ms();
uint32_t platform_random_seed();

// Test mode hooks: a captured send is handed to this function instead of a socket.
using SendHook = void (*)(void* context, mDNSInterfaceID interface_id, int family, const uint8_t* message,
                          size_t length);
void platform_set_send_hook(mDNS_PlatformSupport* p, SendHook hook, void* context);

}  // namespace mdns
