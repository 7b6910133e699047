#include "platform/interfaces_posix.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>
#include <initializer_list>

namespace mdns {

namespace {

constexpr int kFamilyV4 = mDNSAddrType_IPv4;
constexpr int kFamilyV6 = mDNSAddrType_IPv6;

const uint8_t* address_bytes(const mDNSAddr& address) {
  return address.type == mDNSAddrType_IPv4 ? address.ip.v4.b : address.ip.v6.b;
}

int address_bits(const mDNSAddr& address) {
  return address.type == mDNSAddrType_IPv4 ? 32 : 128;
}

bool same_address(const mDNSAddr& a, const mDNSAddr& b) {
  return a.type == b.type && address_in_prefix(a, b, address_bits(a));
}

void copy_ifname(char (&dest)[mDNS_IfNameSize], const char* name) {
  std::memset(dest, 0, sizeof dest);
  std::strncpy(dest, name, sizeof dest - 1);
}

mDNSAddr sockaddr_to_addr(const sockaddr* sa) {
  mDNSAddr out{};
  if (sa->sa_family == AF_INET) {
    out.type = mDNSAddrType_IPv4;
    std::memcpy(out.ip.v4.b, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, 4);
  } else if (sa->sa_family == AF_INET6) {
    out.type = mDNSAddrType_IPv6;
    std::memcpy(out.ip.v6.b, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, 16);
  }
  return out;
}

int sockaddr_prefix_length(const sockaddr* mask, int family) {
  if (mask == nullptr) {
    return family == AF_INET ? 32 : 128;
  }
  if (family == AF_INET) {
    const auto* m = reinterpret_cast<const sockaddr_in*>(mask);
    return prefix_length_from_mask(reinterpret_cast<const uint8_t*>(&m->sin_addr), 4);
  }
  const auto* m = reinterpret_cast<const sockaddr_in6*>(mask);
  return prefix_length_from_mask(reinterpret_cast<const uint8_t*>(&m->sin6_addr), 16);
}

// IPv4 address labels ("eth0:1") name the interface before the colon.
void base_interface_name(const char* label, char (&out)[IF_NAMESIZE + 1]) {
  std::memset(out, 0, sizeof out);
  std::strncpy(out, label, IF_NAMESIZE);
  char* colon = std::strchr(out, ':');
  if (colon != nullptr) {
    *colon = '\0';
  }
}

void leave_joined(InterfaceRecord& slot, Membership& membership) {
  if (slot.v4joined) {
    membership.leave(slot.ifindex, kFamilyV4);
  }
  if (slot.v6joined) {
    membership.leave(slot.ifindex, kFamilyV6);
  }
  slot.v4joined = false;
  slot.v6joined = false;
}

InterfaceRecord* find_slot_by_name(InterfaceRecord (&table)[mDNS_MaxInterfaces], const char* name) {
  for (auto& slot : table) {
    if (slot.info.ifname[0] != '\0' && std::strncmp(slot.info.ifname, name, mDNS_IfNameSize) == 0) {
      return &slot;
    }
  }
  return nullptr;
}

// A slot never used, else one whose interface is gone (its name is forgotten).
InterfaceRecord* free_slot(InterfaceRecord (&table)[mDNS_MaxInterfaces]) {
  for (auto& slot : table) {
    if (slot.info.ifname[0] == '\0') {
      return &slot;
    }
  }
  for (auto& slot : table) {
    if (slot.ifindex == 0) {
      return &slot;
    }
  }
  return nullptr;
}

// The interface went away: its slot keeps the name (and so the ID) for a
// later interface of that name.
void release_slot(InterfaceRecord& slot, Membership& membership, InterfaceChanges& changes) {
  leave_joined(slot, membership);
  // One that was never usable (its joins failed) was never announced either.
  if (slot.present && changes.removed_count < mDNS_MaxInterfaces) {
    changes.removed[changes.removed_count++] = slot.info.InterfaceID;
  }
  const NetworkInterfaceInfo info = slot.info;
  slot = InterfaceRecord{};
  slot.info.InterfaceID = info.InterfaceID;
  std::memcpy(slot.info.ifname, info.ifname, sizeof slot.info.ifname);
}

// Joins or leaves one family so that membership follows `wanted`; returns
// whether the family ends up usable.
bool follow_membership(uint32_t ifindex, int family, bool wanted, bool& joined, Membership& membership) {
  if (wanted && !joined) {
    joined = membership.join(ifindex, family);
  } else if (!wanted && joined) {
    membership.leave(ifindex, family);
    joined = false;
  }
  return joined;
}

void take_entry(InterfaceRecord& slot, const InterfaceRecord& entry, Membership& membership) {
  const bool v4joined = slot.v4joined;
  const bool v6joined = slot.v6joined;
  const NetworkInterfaceInfo info = slot.info;
  slot = entry;
  slot.info.next = info.next;
  slot.info.InterfaceID = info.InterfaceID;
  slot.v4joined = v4joined;
  slot.v6joined = v6joined;
  slot.v4usable = follow_membership(slot.ifindex, kFamilyV4, entry.v4usable, slot.v4joined, membership);
  slot.v6usable = follow_membership(slot.ifindex, kFamilyV6, entry.v6usable, slot.v6joined, membership);
  slot.present = slot.v4usable || slot.v6usable;
}

void relink(InterfaceRecord (&table)[mDNS_MaxInterfaces], NetworkInterfaceInfo** head) {
  NetworkInterfaceInfo** link = head;
  for (auto& slot : table) {
    if (slot.present) {
      *link = &slot.info;
      link = &slot.info.next;
    }
  }
  *link = nullptr;
}

// One family of one interface, before the loopback rule.  The loopback
// interface usually lacks the multicast flag, yet carries IPv4 multicast to
// local listeners; IPv6 has no multicast route there.
mDNSInterfaceUse family_use(const InterfaceRecord& entry, const InterfaceFlags& flags, int family) {
  if (!flags.up) {
    return mDNSInterfaceUse_Down;
  }
  if (!flags.multicast && (family == kFamilyV6 || !flags.loopback)) {
    return mDNSInterfaceUse_NoMulticast;
  }
  return interface_has_family(entry, family) ? mDNSInterfaceUse_Used : mDNSInterfaceUse_NoAddress;
}

// One entry of getifaddrs: its interface, and its address if it has one.
void add_to_snapshot(InterfaceSnapshot& snapshot, const ifaddrs& ifa) {
  char name[IF_NAMESIZE + 1];
  base_interface_name(ifa.ifa_name, name);
  const unsigned ifindex = if_nametoindex(name);
  if (ifindex == 0) {
    return;
  }
  InterfaceFlags flags;
  flags.up = (ifa.ifa_flags & IFF_UP) != 0;
  flags.multicast = (ifa.ifa_flags & IFF_MULTICAST) != 0;
  flags.loopback = (ifa.ifa_flags & IFF_LOOPBACK) != 0;
  InterfaceRecord* entry = snapshot_entry(snapshot, name, ifindex, flags);
  const int family = ifa.ifa_addr != nullptr ? ifa.ifa_addr->sa_family : AF_UNSPEC;
  if (entry == nullptr || (family != AF_INET && family != AF_INET6)) {
    return;
  }
  const int prefix = sockaddr_prefix_length(ifa.ifa_netmask, family);
  if (prefix >= 0) {
    interface_add_address(*entry, sockaddr_to_addr(ifa.ifa_addr), prefix);
  }
}

}  // namespace

bool address_in_prefix(const mDNSAddr& address, const mDNSAddr& network, int prefix_length) {
  if (address.type != network.type ||
      (address.type != mDNSAddrType_IPv4 && address.type != mDNSAddrType_IPv6)) {
    return false;
  }
  const int bits = address_bits(address);
  if (prefix_length < 0 || prefix_length > bits) {
    return false;
  }
  const uint8_t* a = address_bytes(address);
  const uint8_t* n = address_bytes(network);
  const int whole = prefix_length / 8;
  if (std::memcmp(a, n, static_cast<size_t>(whole)) != 0) {
    return false;
  }
  const int rest = prefix_length % 8;
  if (rest == 0) {
    return true;
  }
  const auto mask = static_cast<uint8_t>(0xFF << (8 - rest));
  return (a[whole] & mask) == (n[whole] & mask);
}

bool is_link_local(const mDNSAddr& address) {
  if (address.type == mDNSAddrType_IPv4) {
    return address.ip.v4.b[0] == 169 && address.ip.v4.b[1] == 254;
  }
  return address.type == mDNSAddrType_IPv6 && address.ip.v6.b[0] == 0xFE &&
         (address.ip.v6.b[1] & 0xC0) == 0x80;
}

int prefix_length_from_mask(const uint8_t* mask, size_t bytes) {
  int length = 0;
  bool ended = false;
  for (size_t i = 0; i < bytes; ++i) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool one = ((mask[i] >> bit) & 1) != 0;
      if (one && ended) {
        return -1;
      }
      if (one) {
        ++length;
      } else {
        ended = true;
      }
    }
  }
  return length;
}

mDNSAddr ipv4_mask_from_prefix(int prefix_length) {
  mDNSAddr mask{};
  mask.type = mDNSAddrType_IPv4;
  for (int i = 0; i < 4; ++i) {
    const int bits = prefix_length - 8 * i;
    const int byte = bits >= 8 ? 0xFF : bits <= 0 ? 0 : (0xFF << (8 - bits)) & 0xFF;
    mask.ip.v4.b[i] = static_cast<uint8_t>(byte);
  }
  return mask;
}

mDNSAddr address_from_text(const char* text) {
  mDNSAddr out{};
  if (text == nullptr) {
    return out;
  }
  if (inet_pton(AF_INET, text, out.ip.v4.b) == 1) {
    out.type = mDNSAddrType_IPv4;
  } else if (inet_pton(AF_INET6, text, out.ip.v6.b) == 1) {
    out.type = mDNSAddrType_IPv6;
  }
  return out;
}

bool interface_reset(InterfaceRecord& info, const char* name, uint32_t ifindex) {
  if (name == nullptr || ifindex == 0 || std::strlen(name) >= mDNS_IfNameSize) {
    return false;
  }
  info = InterfaceRecord{};
  copy_ifname(info.info.ifname, name);
  info.ifindex = ifindex;
  return true;
}

void interface_add_address(InterfaceRecord& info, const mDNSAddr& address, int prefix_length) {
  if ((address.type != mDNSAddrType_IPv4 && address.type != mDNSAddrType_IPv6) || prefix_length < 0 ||
      prefix_length > address_bits(address) || info.naddrs >= kMaxInterfaceAddresses) {
    return;
  }
  for (size_t i = 0; i < info.naddrs; ++i) {
    if (same_address(info.addrs[i].addr, address)) {
      return;
    }
  }
  info.addrs[info.naddrs].addr = address;
  info.addrs[info.naddrs].prefix_length = static_cast<uint8_t>(prefix_length);
  ++info.naddrs;
}

bool interface_has_family(const InterfaceRecord& info, int family) {
  for (size_t i = 0; i < info.naddrs && i < kMaxInterfaceAddresses; ++i) {
    if (info.addrs[i].addr.type == family) {
      return true;
    }
  }
  return false;
}

bool interface_source_on_link(const InterfaceRecord& info, const mDNSAddr& source, uint8_t ttl) {
  bool ipv4_link_local_here = false;
  for (size_t i = 0; i < info.naddrs && i < kMaxInterfaceAddresses; ++i) {
    const mDNSAddr& own = info.addrs[i].addr;
    if (address_in_prefix(source, own, info.addrs[i].prefix_length)) {
      return true;
    }
    ipv4_link_local_here = ipv4_link_local_here || (own.type == mDNSAddrType_IPv4 && is_link_local(own));
  }
  if (!is_link_local(source)) {
    return false;
  }
  // Routers never forward IPv6 packets from link-local sources.  An IPv4
  // router forwards anything, spoofed 169.254/16 sources too, but what it
  // forwarded arrives with less than the TTL 255 that mDNS senders use.
  return source.type == mDNSAddrType_IPv6 || ttl == kLinkTtl || ipv4_link_local_here;
}

InterfaceRecord* snapshot_entry(InterfaceSnapshot& snapshot, const char* name, uint32_t ifindex,
                                const InterfaceFlags& flags) {
  for (size_t i = 0; i < snapshot.count; ++i) {
    if (std::strncmp(snapshot.entries[i].info.ifname, name, mDNS_IfNameSize) == 0) {
      return &snapshot.entries[i];
    }
  }
  if (snapshot.count >= mDNS_MaxInterfaces) {
    return nullptr;
  }
  InterfaceRecord& entry = snapshot.entries[snapshot.count];
  if (!interface_reset(entry, name, ifindex)) {
    return nullptr;
  }
  entry.loopback = flags.loopback;
  snapshot.flags[snapshot.count] = flags;
  ++snapshot.count;
  return &entry;
}

bool read_host_interfaces(InterfaceSnapshot& snapshot) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return false;
  }
  // Interfaces with addresses first; those without any only where room is
  // left, so that they never push out one the core could use.
  for (const bool with_address : {true, false}) {
    for (const ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
      const int family = ifa->ifa_addr != nullptr ? ifa->ifa_addr->sa_family : AF_UNSPEC;
      if ((family == AF_INET || family == AF_INET6) == with_address) {
        add_to_snapshot(snapshot, *ifa);
      }
    }
  }
  freeifaddrs(list);
  return true;
}

void judge_interfaces(const InterfaceSnapshot& snapshot, InterfaceUses& uses) {
  bool other_usable = false;
  for (size_t i = 0; i < snapshot.count; ++i) {
    uses.ipv4[i] = family_use(snapshot.entries[i], snapshot.flags[i], kFamilyV4);
    uses.ipv6[i] = family_use(snapshot.entries[i], snapshot.flags[i], kFamilyV6);
    other_usable = other_usable || (!snapshot.flags[i].loopback && (uses.ipv4[i] == mDNSInterfaceUse_Used ||
                                                                    uses.ipv6[i] == mDNSInterfaceUse_Used));
  }
  for (size_t i = 0; i < snapshot.count; ++i) {
    if (other_usable && snapshot.flags[i].loopback && snapshot.flags[i].up) {
      uses.ipv4[i] = uses.ipv6[i] = mDNSInterfaceUse_LoopbackSpare;
    }
  }
}

void mark_usable(InterfaceSnapshot& snapshot) {
  InterfaceUses uses;
  judge_interfaces(snapshot, uses);
  for (size_t i = 0; i < snapshot.count; ++i) {
    snapshot.entries[i].v4usable = uses.ipv4[i] == mDNSInterfaceUse_Used;
    snapshot.entries[i].v6usable = uses.ipv6[i] == mDNSInterfaceUse_Used;
  }
}

mDNSInterfaceID interface_id_of_slot(size_t slot) {
  return reinterpret_cast<mDNSInterfaceID>(static_cast<uintptr_t>(slot + 1));
}

void reconcile_interfaces(InterfaceRecord (&table)[mDNS_MaxInterfaces], const InterfaceSnapshot& snapshot,
                          Membership& membership, NetworkInterfaceInfo** head, InterfaceChanges& changes) {
  bool seen[mDNS_MaxInterfaces] = {};
  bool listed[mDNS_MaxInterfaces] = {};
  for (size_t i = 0; i < mDNS_MaxInterfaces; ++i) {
    listed[i] = table[i].present;
  }
  for (size_t i = 0; i < snapshot.count; ++i) {
    const InterfaceRecord& entry = snapshot.entries[i];
    if (!entry.v4usable && !entry.v6usable) {
      continue;
    }
    InterfaceRecord* slot = find_slot_by_name(table, entry.info.ifname);
    if (slot != nullptr && slot->ifindex != 0 && slot->ifindex != entry.ifindex) {
      // Same name, new index: the old interface went away and another came.
      release_slot(*slot, membership, changes);
    }
    if (slot == nullptr) {
      slot = free_slot(table);
      if (slot != nullptr) {
        *slot = InterfaceRecord{};
        slot->info.InterfaceID = interface_id_of_slot(static_cast<size_t>(slot - table));
      }
    }
    if (slot != nullptr) {
      const bool was_present = slot->present;
      take_entry(*slot, entry, membership);
      seen[slot - table] = slot->present;
      if (slot->present && !was_present && changes.added_count < mDNS_MaxInterfaces) {
        changes.added[changes.added_count++] = slot->info.InterfaceID;
      }
    }
  }
  for (size_t i = 0; i < mDNS_MaxInterfaces; ++i) {
    if (table[i].ifindex != 0 && !seen[i]) {
      table[i].present = listed[i];
      release_slot(table[i], membership, changes);
    }
  }
  relink(table, head);
}

void clear_interfaces(InterfaceRecord (&table)[mDNS_MaxInterfaces], Membership& membership,
                      NetworkInterfaceInfo** head) {
  for (auto& slot : table) {
    if (slot.ifindex != 0) {
      leave_joined(slot, membership);
    }
    slot = InterfaceRecord{};
  }
  *head = nullptr;
}

const InterfaceRecord* find_interface(const InterfaceRecord (&table)[mDNS_MaxInterfaces],
                                      mDNSInterfaceID id) {
  const uintptr_t slot = reinterpret_cast<uintptr_t>(id);
  if (slot == 0 || slot > mDNS_MaxInterfaces || !table[slot - 1].present) {
    return nullptr;
  }
  return &table[slot - 1];
}

}  // namespace mdns

using namespace mdns;

extern "C" {

MDNS_API int mDNS_JudgeInterfaces(mDNSInterfaceVerdict* verdicts, int capacity) {
  InterfaceSnapshot snapshot;
  if (!read_host_interfaces(snapshot)) {
    return -1;
  }
  InterfaceUses uses;
  judge_interfaces(snapshot, uses);
  for (size_t i = 0; i < snapshot.count && verdicts != nullptr && static_cast<int>(i) < capacity; ++i) {
    std::memcpy(verdicts[i].ifname, snapshot.entries[i].info.ifname, sizeof verdicts[i].ifname);
    verdicts[i].ipv4 = uses.ipv4[i];
    verdicts[i].ipv6 = uses.ipv6[i];
  }
  return static_cast<int>(snapshot.count);
}

}  // extern "C"
