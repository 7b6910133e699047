// What the engine asks of the host: sockets, interfaces, time and randomness.
// The POSIX implementation keeps all of its state in mDNS_PlatformSupport.
//
// Test mode (set p->test_mode = 1 on zeroed storage before mDNS_Init): no socket
// is opened; the interfaces are the synthetic ones added with
// platform_test_add_interface / platform_test_add_address (read at mDNS_Init
// and at every mDNSPlatformPosixRefreshInterfaceList, so removing one and
// refreshing gives engine_interface_removed); platform_send hands every message
// to the send hook; messages come in through engine_receive.  mDNSPosixGetFDSet
// then adds no descriptor (it still shortens the timeout) and
// mDNSPosixProcessFDSet only runs the scheduled work.  The synthetic list
// survives mDNS_FinalExit, so a test may call mDNS_Init again.
//
// Counters: platform_send counts packets_sent and bytes_sent of every message
// it sends (or hands to the hook); the engine counts queries_sent and everything
// about received packets.  Datagrams the platform drops before the engine sees
// them (truncated, unknown arrival interface) count as received and dropped.
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

// The interface ID of an interface index (what InterfaceID holds).
mDNSInterfaceID platform_interface_id(uint32_t ifindex);

// Test mode: adds (or replaces) a synthetic interface.  `v4` and `v4mask` are
// dotted texts, or null for an interface without IPv4.  It is IPv4-usable when
// it has an IPv4 address and IPv6-usable once an IPv6 address is added.
bool platform_test_add_interface(mDNS_PlatformSupport* p, const char* name, uint32_t ifindex, const char* v4,
                                 const char* v4mask);
// Test mode: adds an IPv4 or IPv6 address (text) with its prefix length.
bool platform_test_add_address(mDNS_PlatformSupport* p, uint32_t ifindex, const char* address,
                               int prefix_length);
// Test mode: the interface vanishes at the next interface read.
bool platform_test_remove_interface(mDNS_PlatformSupport* p, uint32_t ifindex);

}  // namespace mdns
