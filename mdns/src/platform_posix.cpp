// The POSIX platform: sockets, interfaces, clock and randomness for the engine.
#include <sys/random.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "engine.h"
#include "interfaces_posix.h"
#include "platform.h"
#include "sockets_posix.h"

namespace mdns {

namespace {

class SocketMembership : public Membership {
 public:
  explicit SocketMembership(mDNS_PlatformSupport* p) : p_(p) {}
  bool join(uint32_t ifindex, int family) override { return join_group(socket_for(family), family, ifindex); }
  void leave(uint32_t ifindex, int family) override { leave_group(socket_for(family), family, ifindex); }

 private:
  int socket_for(int family) const { return family == mDNSAddrType_IPv4 ? p_->sock_v4 : p_->sock_v6; }
  mDNS_PlatformSupport* p_;
};

class SyntheticMembership : public Membership {
 public:
  bool join(uint32_t, int) override { return true; }
  void leave(uint32_t, int) override {}
};

void read_synthetic_interfaces(const mDNS_PlatformSupport* p, InterfaceSnapshot& snapshot) {
  for (const auto& entry : p->test_interfaces) {
    if (entry.ifindex == 0 || snapshot.count >= mDNS_MaxInterfaces) {
      continue;
    }
    snapshot.entries[snapshot.count] = entry;
    snapshot.entries[snapshot.count].v4usable = interface_has_family(entry, mDNSAddrType_IPv4) ? 1 : 0;
    snapshot.entries[snapshot.count].v6usable = interface_has_family(entry, mDNSAddrType_IPv6) ? 1 : 0;
    ++snapshot.count;
  }
}

// Reads the interfaces and brings the live table in line.  The engine hears of
// each vanished interface after the table no longer lists it.
mStatus update_interfaces(mDNS* m, bool tell_engine) {
  mDNS_PlatformSupport* p = m->p;
  InterfaceSnapshot snapshot;
  RemovedInterfaces removed;
  if (p->test_mode) {
    read_synthetic_interfaces(p, snapshot);
    SyntheticMembership membership;
    reconcile_interfaces(p->interfaces, snapshot, membership, &m->HostInterfaces, removed);
  } else {
    if (!read_host_interfaces(snapshot)) {
      return mStatus_UnknownErr;
    }
    mark_usable(snapshot);
    SocketMembership membership(p);
    reconcile_interfaces(p->interfaces, snapshot, membership, &m->HostInterfaces, removed);
  }
  if (tell_engine) {
    const int32_t now = engine_now(m);
    for (size_t i = 0; i < removed.count; ++i) {
      engine_interface_removed(m, removed.ids[i], now);
    }
  }
  return mStatus_NoError;
}

NetworkInterfaceInfo* synthetic_interface(mDNS_PlatformSupport* p, uint32_t ifindex) {
  for (auto& entry : p->test_interfaces) {
    if (entry.ifindex == ifindex) {
      return &entry;
    }
  }
  return nullptr;
}

NetworkInterfaceInfo* free_synthetic_interface(mDNS_PlatformSupport* p) {
  return synthetic_interface(p, 0);
}

}  // namespace

mDNSInterfaceID platform_interface_id(uint32_t ifindex) {
  return reinterpret_cast<mDNSInterfaceID>(static_cast<uintptr_t>(ifindex));
}

mStatus platform_init(mDNS* m) {
  if (m == nullptr || m->p == nullptr) {
    return mStatus_BadParamErr;
  }
  mDNS_PlatformSupport* p = m->p;
  p->sock_v4 = -1;
  p->sock_v6 = -1;
  for (auto& slot : p->interfaces) {
    slot = NetworkInterfaceInfo{};
  }
  m->HostInterfaces = nullptr;
  if (!p->test_mode) {
    p->sock_v4 = open_mdns_socket(mDNSAddrType_IPv4);
    p->sock_v6 = open_mdns_socket(mDNSAddrType_IPv6);
    // A host without IPv6 (or without IPv4) still works on the other family.
    if (p->sock_v4 < 0 && p->sock_v6 < 0) {
      return mStatus_UnknownErr;
    }
  }
  const mStatus status = update_interfaces(m, false);
  if (status != mStatus_NoError) {
    close_socket(p->sock_v4);
    close_socket(p->sock_v6);
    return status;
  }
  p->open = 1;
  return mStatus_NoError;
}

void platform_close(mDNS* m) {
  if (m == nullptr || m->p == nullptr) {
    return;
  }
  mDNS_PlatformSupport* p = m->p;
  if (p->test_mode) {
    SyntheticMembership membership;
    clear_interfaces(p->interfaces, membership, &m->HostInterfaces);
  } else {
    SocketMembership membership(p);
    clear_interfaces(p->interfaces, membership, &m->HostInterfaces);
    close_socket(p->sock_v4);
    close_socket(p->sock_v6);
  }
  p->open = 0;
}

mStatus platform_refresh_interfaces(mDNS* m) {
  if (m == nullptr || m->p == nullptr || !m->p->open) {
    return mStatus_NotInitializedErr;
  }
  return update_interfaces(m, true);
}

bool platform_send(mDNS* m, mDNSInterfaceID interface_id, int family, const uint8_t* message, size_t length) {
  if (m == nullptr || m->p == nullptr || message == nullptr) {
    return false;
  }
  const NetworkInterfaceInfo* info = find_interface(m->HostInterfaces, interface_id);
  if (info == nullptr) {
    return false;
  }
  const bool usable =
      family == mDNSAddrType_IPv4 ? info->v4usable : family == mDNSAddrType_IPv6 && info->v6usable;
  if (!usable) {
    return false;
  }
  mDNS_PlatformSupport* p = m->p;
  bool sent;
  if (p->test_mode) {
    if (p->send_hook != nullptr) {
      p->send_hook(p->send_context, interface_id, family, message, length);
    }
    sent = true;
  } else {
    const int fd = family == mDNSAddrType_IPv4 ? p->sock_v4 : p->sock_v6;
    sent = send_to_group(fd, family, info->ifindex, message, length);
  }
  if (sent) {
    ++m->counters.packets_sent;
    m->counters.bytes_sent += static_cast<mDNSu32>(length);
  }
  return sent;
}

bool platform_source_on_link(const mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& source) {
  const NetworkInterfaceInfo* info = platform_interface(m, interface_id);
  return info != nullptr && interface_source_on_link(*info, source);
}

const NetworkInterfaceInfo* platform_interface(const mDNS* m, mDNSInterfaceID interface_id) {
  return m == nullptr ? nullptr : find_interface(m->HostInterfaces, interface_id);
}

int32_t platform_now_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  // Wraps: callers compare differences only.
  return static_cast<int32_t>(static_cast<uint32_t>(ms));
}

uint32_t platform_random_seed() {
  uint32_t seed = 0;
  if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof seed)) {
    return seed;
  }
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint32_t>(ts.tv_nsec) ^ (static_cast<uint32_t>(ts.tv_sec) << 11) ^
         (static_cast<uint32_t>(getpid()) << 16);
}

void platform_set_send_hook(mDNS_PlatformSupport* p, SendHook hook, void* context) {
  if (p == nullptr) {
    return;
  }
  p->send_hook = hook;
  p->send_context = context;
}

bool platform_test_add_interface(mDNS_PlatformSupport* p, const char* name, uint32_t ifindex, const char* v4,
                                 const char* v4mask) {
  if (p == nullptr) {
    return false;
  }
  NetworkInterfaceInfo* entry = synthetic_interface(p, ifindex);
  if (entry == nullptr) {
    entry = free_synthetic_interface(p);
  }
  if (entry == nullptr || !interface_reset(*entry, name, ifindex)) {
    return false;
  }
  if (v4 == nullptr) {
    return true;
  }
  const mDNSAddr address = address_from_text(v4);
  const mDNSAddr mask = address_from_text(v4mask != nullptr ? v4mask : "255.255.255.255");
  const int prefix = mask.type == mDNSAddrType_IPv4 ? prefix_length_from_mask(mask.ip.v4.b, 4) : -1;
  if (address.type != mDNSAddrType_IPv4 || prefix < 0) {
    *entry = NetworkInterfaceInfo{};
    return false;
  }
  interface_add_address(*entry, address, prefix);
  return true;
}

bool platform_test_add_address(mDNS_PlatformSupport* p, uint32_t ifindex, const char* address,
                               int prefix_length) {
  NetworkInterfaceInfo* entry = p == nullptr || ifindex == 0 ? nullptr : synthetic_interface(p, ifindex);
  const mDNSAddr parsed = address_from_text(address);
  if (entry == nullptr || parsed.type == mDNSAddrType_None) {
    return false;
  }
  const mDNSu8 before = entry->naddrs;
  interface_add_address(*entry, parsed, prefix_length);
  return entry->naddrs != before;
}

bool platform_test_remove_interface(mDNS_PlatformSupport* p, uint32_t ifindex) {
  NetworkInterfaceInfo* entry = p == nullptr || ifindex == 0 ? nullptr : synthetic_interface(p, ifindex);
  if (entry == nullptr) {
    return false;
  }
  *entry = NetworkInterfaceInfo{};
  return true;
}

}  // namespace mdns
