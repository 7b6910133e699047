// The table of interfaces the core uses: reading the host's interfaces, the
// usability rules, and bringing the live table in line with a fresh read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// ---- Addresses and prefixes ----

bool address_in_prefix(const mDNSAddr& address, const mDNSAddr& network, int prefix_length);
bool is_ipv6_link_local(const mDNSAddr& address);
// Number of leading one bits of a netmask; -1 when the ones are not contiguous.
int prefix_length_from_mask(const uint8_t* mask, size_t bytes);
mDNSAddr ipv4_mask_from_prefix(int prefix_length);
// Dotted IPv4 or colon IPv6 text; type None when it is neither.
mDNSAddr address_from_text(const char* text);

// ---- One interface's record ----

// Clears the record and names it.  False when the name does not fit.
bool interface_reset(NetworkInterfaceInfo& info, const char* name, uint32_t ifindex);
// Adds an address (ignored past mDNS_MaxInterfaceAddrs or when already there)
// and keeps v4addr/v4mask (first IPv4) and v6addr (first link-local) in step.
void interface_add_address(NetworkInterfaceInfo& info, const mDNSAddr& address, int prefix_length);
bool interface_has_family(const NetworkInterfaceInfo& info, int family);
// True when `source` is in one of the interface's IPv4 subnets, is IPv6
// link-local, or is in one of the interface's IPv6 prefixes.
bool interface_source_on_link(const NetworkInterfaceInfo& info, const mDNSAddr& source);

// ---- A read of the host's interfaces ----

struct InterfaceFlags {
  bool up = false;
  bool multicast = false;
  bool loopback = false;
};

struct InterfaceSnapshot {
  NetworkInterfaceInfo entries[mDNS_MaxInterfaces];
  InterfaceFlags flags[mDNS_MaxInterfaces];
  size_t count = 0;
};

// The entry for an interface name, created when new; null when the table is full.
NetworkInterfaceInfo* snapshot_entry(InterfaceSnapshot& snapshot, const char* name, uint32_t ifindex,
                                     const InterfaceFlags& flags);
// Reads the host's interfaces with getifaddrs.  False when they cannot be read.
bool read_host_interfaces(InterfaceSnapshot& snapshot);
// Sets v4usable / v6usable: up, multicast, with an address of that family;
// loopback only when no other interface is usable.
void mark_usable(InterfaceSnapshot& snapshot);

// ---- Bringing the live table in line ----

// Group membership of one interface and family; the test mode's always succeeds.
class Membership {
 public:
  virtual ~Membership() = default;
  virtual bool join(uint32_t ifindex, int family) = 0;
  virtual void leave(uint32_t ifindex, int family) = 0;
};

struct RemovedInterfaces {
  mDNSInterfaceID ids[mDNS_MaxInterfaces];
  size_t count = 0;
};

// Updates `table` (one slot per interface name) from the usable entries of the
// snapshot: joins the groups of new interfaces and families, leaves those that
// are gone, frees the slots of vanished interfaces (listed in `removed`) and
// relinks `*head` through `next` in table order.  A family whose join fails is
// not usable.
void reconcile_interfaces(NetworkInterfaceInfo (&table)[mDNS_MaxInterfaces],
                          const InterfaceSnapshot& snapshot, Membership& membership,
                          NetworkInterfaceInfo** head, RemovedInterfaces& removed);

// Leaves every group and empties the table.
void clear_interfaces(NetworkInterfaceInfo (&table)[mDNS_MaxInterfaces], Membership& membership,
                      NetworkInterfaceInfo** head);

const NetworkInterfaceInfo* find_interface(const NetworkInterfaceInfo* head, mDNSInterfaceID id);

}  // namespace mdns
