// The platform functions: the interface table kept here, the rest through the
// chosen host operations.
#include "platform/platform.h"

#include <cstring>

#include "platform/interfaces_posix.h"
#include "platform/platform_state.h"

namespace mdns {

namespace {

const PlatformOps& ops_of(const PlatformState& p) {
  return p.ops != nullptr ? *p.ops : kPosixPlatformOps;
}

const PlatformOps& ops_of(mDNS* m) {
  return ops_of(platform_of(m));
}

class OpsMembership : public Membership {
 public:
  explicit OpsMembership(mDNS* m) : m_(m) {}
  bool join(uint32_t ifindex, int family) override { return ops_of(m_).join(m_, ifindex, family); }
  void leave(uint32_t ifindex, int family) override { ops_of(m_).leave(m_, ifindex, family); }

 private:
  mDNS* m_;
};

// Reads the interfaces and brings the live table in line; `changes` says what
// went and came, for the engine to act on once the table is up to date.
mStatus update_interfaces(mDNS* m, InterfaceChanges& changes) {
  InterfaceSnapshot snapshot;
  if (!ops_of(m).read_interfaces(m, snapshot)) {
    return mStatus_UnknownErr;
  }
  OpsMembership membership(m);
  reconcile_interfaces(platform_of(m).interfaces, snapshot, membership, &m->HostInterfaces, changes);
  return mStatus_NoError;
}

const InterfaceRecord* record_of(const mDNS* m, mDNSInterfaceID interface_id) {
  return find_interface(platform_of(const_cast<mDNS*>(m)).interfaces, interface_id);
}

}  // namespace

PlatformState& platform_of(mDNS* m) {
  return platform_of(pass_of(m).platform);
}

PlatformState& platform_of(mDNS_PlatformSupport* p) {
  return *reinterpret_cast<PlatformState*>(p->Private.storage);
}

mStatus platform_init(mDNS* m) {
  PlatformState& p = platform_of(m);
  p.sock_v4 = p.sock_v6 = p.one_shot_v4 = p.one_shot_v6 = p.netlink = -1;
  for (auto& slot : p.interfaces) {
    slot = InterfaceRecord{};
  }
  m->HostInterfaces = nullptr;
  const PlatformOps& ops = ops_of(p);
  if (!ops.open(m)) {
    ops.close(m);
    return mStatus_UnknownErr;
  }
  InterfaceChanges changes;  // nothing to tell: no question runs yet
  const mStatus status = update_interfaces(m, changes);
  if (status != mStatus_NoError) {
    ops.close(m);
    return status;
  }
  p.open = true;
  return mStatus_NoError;
}

void platform_close(mDNS* m) {
  PlatformState& p = platform_of(m);
  OpsMembership membership(m);
  clear_interfaces(p.interfaces, membership, &m->HostInterfaces);
  ops_of(p).close(m);
  p.open = false;
}

mStatus platform_refresh_interfaces(mDNS* m, InterfaceChanges& changes) {
  if (!platform_of(m).open) {
    return mStatus_NotInitializedErr;
  }
  return update_interfaces(m, changes);
}

const NetworkInterfaceInfo* platform_interface(const mDNS* m, mDNSInterfaceID interface_id) {
  const InterfaceRecord* record = record_of(m, interface_id);
  return record != nullptr ? &record->info : nullptr;
}

bool platform_interface_usable(const mDNS* m, mDNSInterfaceID interface_id, int family) {
  const InterfaceRecord* record = record_of(m, interface_id);
  return record != nullptr && (family == mDNSAddrType_IPv4 ? record->v4usable : record->v6usable);
}

bool platform_source_on_link(const mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& source,
                             uint8_t ttl) {
  const InterfaceRecord* record = record_of(m, interface_id);
  return record != nullptr && interface_source_on_link(*record, source, ttl);
}

mDNSInterfaceID platform_interface_id_of(const mDNS* m, const char* ifname) {
  for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
    if (std::strncmp(i->ifname, ifname, sizeof i->ifname) == 0) {
      return i->InterfaceID;
    }
  }
  return mDNSInterface_Any;
}

mDNSInterfaceID platform_interface_of_index(mDNS* m, uint32_t ifindex) {
  for (const InterfaceRecord& record : platform_of(m).interfaces) {
    if (record.present && record.ifindex == ifindex) {
      return record.info.InterfaceID;
    }
  }
  return mDNSInterface_Any;
}

bool platform_send_multicast(mDNS* m, Transport transport, mDNSInterfaceID interface_id, int family,
                             const uint8_t* message, size_t length) {
  const InterfaceRecord* record = record_of(m, interface_id);
  if (record == nullptr || !(family == mDNSAddrType_IPv4 ? record->v4usable : record->v6usable)) {
    return false;
  }
  return ops_of(m).send_multicast(m, transport, *record, family, message, length);
}

bool platform_send_to_host(mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& to, const uint8_t* message,
                           size_t length) {
  const InterfaceRecord* record = record_of(m, interface_id);
  if (record == nullptr || !(to.type == mDNSAddrType_IPv4 ? record->v4usable : record->v6usable)) {
    return false;
  }
  return ops_of(m).send_to_host(m, *record, to, message, length);
}

int platform_open_dns_udp(mDNS* m, const NameServer& server) {
  return ops_of(m).open_dns(m, server, false);
}

int platform_open_dns_tcp(mDNS* m, const NameServer& server) {
  return ops_of(m).open_dns(m, server, true);
}

void platform_close_dns(mDNS* m, int fd) {
  ops_of(m).close_dns(m, fd);
}

long platform_dns_send(mDNS* m, int fd, const uint8_t* data, size_t length) {
  return ops_of(m).dns_send(m, fd, data, length);
}

DnsReceived platform_dns_receive(mDNS* m, int fd, uint8_t* buffer, size_t capacity) {
  return ops_of(m).dns_receive(m, fd, buffer, capacity);
}

bool platform_dns_readable(mDNS* m, int fd, const fd_set* readfds) {
  return ops_of(m).dns_readable(m, fd, readfds);
}

int platform_dns_connected(mDNS* m, int fd) {
  return ops_of(m).dns_connected(m, fd);
}

int platform_read_name_servers(mDNS* m, NameServer* servers, int capacity) {
  return ops_of(m).read_name_servers(m, servers, capacity);
}

}  // namespace mdns
