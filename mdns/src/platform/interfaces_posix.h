// The table of interfaces the core uses: reading the host's interfaces, the
// usability rules, and bringing the live table in line with a fresh read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// ---- Addresses and prefixes ----

bool address_in_prefix(const mDNSAddr& address, const mDNSAddr& network, int prefix_length);
bool is_link_local(const mDNSAddr& address);
// Number of leading one bits of a netmask; -1 when the ones are not contiguous.
int prefix_length_from_mask(const uint8_t* mask, size_t bytes);
mDNSAddr ipv4_mask_from_prefix(int prefix_length);
// Dotted IPv4 or colon IPv6 text; type None when it is neither.
mDNSAddr address_from_text(const char* text);

// ---- One interface's record ----

// Addresses kept per interface: the on-link check looks at all of them.
constexpr int kMaxInterfaceAddresses = 8;

struct InterfaceAddress {
  mDNSAddr addr;
  uint8_t prefix_length;  // bits of the network part
};

// The core's record of one interface; `info` is what callers see of it (the
// list mDNS.HostInterfaces links these).
struct InterfaceRecord {
  NetworkInterfaceInfo info;
  uint32_t ifindex;  // 0: slot never used
  bool present;      // usable at the latest read
  bool loopback;
  bool v4usable;
  bool v6usable;
  bool v4joined;  // group membership held on the IPv4 / IPv6 socket
  bool v6joined;
  uint8_t naddrs;
  InterfaceAddress addrs[kMaxInterfaceAddresses];
};

// Clears the record and names it.  False when the name does not fit.
bool interface_reset(InterfaceRecord& info, const char* name, uint32_t ifindex);
// Adds an address (ignored past kMaxInterfaceAddresses or when already there).
void interface_add_address(InterfaceRecord& info, const mDNSAddr& address, int prefix_length);
bool interface_has_family(const InterfaceRecord& info, int family);
// The TTL (hop limit) an mDNS sender puts on its packets; a router that
// forwards a packet lowers it.
constexpr uint8_t kLinkTtl = 255;

// True when `source` is in one of the interface's subnets, or link-local and
// from this link: IPv6 fe80::/10 always; IPv4 169.254/16 when the packet came
// with TTL 255 (`ttl`: 0 when unknown) or the interface has a 169.254 address.
bool interface_source_on_link(const InterfaceRecord& info, const mDNSAddr& source, uint8_t ttl);

// ---- A read of the host's interfaces ----

struct InterfaceFlags {
  bool up = false;
  bool multicast = false;
  bool loopback = false;
};

struct InterfaceSnapshot {
  InterfaceRecord entries[mDNS_MaxInterfaces];
  InterfaceFlags flags[mDNS_MaxInterfaces];
  size_t count = 0;
};

// The entry for an interface name, created when new; null when the table is full.
InterfaceRecord* snapshot_entry(InterfaceSnapshot& snapshot, const char* name, uint32_t ifindex,
                                const InterfaceFlags& flags);
// Reads the host's interfaces with getifaddrs, those without an IPv4 or IPv6
// address only while the table has room.  False when they cannot be read.
bool read_host_interfaces(InterfaceSnapshot& snapshot);
// Per entry of the snapshot, the use the core makes of it for IPv4 and IPv6:
// up, multicast (IPv4 on loopback does without), with an address of the
// family; loopback only when no other interface is usable.
struct InterfaceUses {
  mDNSInterfaceUse ipv4[mDNS_MaxInterfaces];
  mDNSInterfaceUse ipv6[mDNS_MaxInterfaces];
};
void judge_interfaces(const InterfaceSnapshot& snapshot, InterfaceUses& uses);
// Sets v4usable / v6usable as judge_interfaces judges.
void mark_usable(InterfaceSnapshot& snapshot);

// ---- Bringing the live table in line ----

// Group membership of one interface and family; the test platform's always succeeds.
class Membership {
 public:
  virtual ~Membership() = default;
  virtual bool join(uint32_t ifindex, int family) = 0;
  virtual void leave(uint32_t ifindex, int family) = 0;
};

// What a read changed: interfaces that went away (or were re-created: they
// appear in both lists) and interfaces that came.
struct InterfaceChanges {
  mDNSInterfaceID removed[mDNS_MaxInterfaces];
  size_t removed_count = 0;
  mDNSInterfaceID added[mDNS_MaxInterfaces];
  size_t added_count = 0;
};

// Updates `table` (one slot per interface name) from the usable entries of the
// snapshot: joins the groups of new interfaces and families, leaves those that
// are gone, marks vanished (or re-created) interfaces absent, lists what went
// and came in `changes`, and relinks `*head` through `next` in table order.  A slot keeps
// its name while absent, so an interface that comes back under the same name
// keeps its ID; new names take slots never used before, then absent ones.  A
// family whose join fails is not usable.
void reconcile_interfaces(InterfaceRecord (&table)[mDNS_MaxInterfaces], const InterfaceSnapshot& snapshot,
                          Membership& membership, NetworkInterfaceInfo** head, InterfaceChanges& changes);

// Leaves every group and empties the table.
void clear_interfaces(InterfaceRecord (&table)[mDNS_MaxInterfaces], Membership& membership,
                      NetworkInterfaceInfo** head);

// The present interface of an ID, or null.
const InterfaceRecord* find_interface(const InterfaceRecord (&table)[mDNS_MaxInterfaces], mDNSInterfaceID id);
// The ID of table slot `slot`.
mDNSInterfaceID interface_id_of_slot(size_t slot);

}  // namespace mdns
