// The mDNS core running with real sockets inside one host of a virtual LAN,
// driven by the descriptor-set calls as an application's loop drives it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mdns/mdns.h"

namespace mdns::vlan_test {

struct BrowseEvent {
  std::string instance;
  mDNSInterfaceID interface_id;
  bool add;
};

struct ResolveResult {
  mDNSAddr ip;
  int port;
};

// One browse; its events are kept in arrival order.
struct Browse {
  DNSQuestion question{};
  std::vector<BrowseEvent> events;

  const BrowseEvent* first_add(const std::string& instance) const;
  int adds_of(const std::string& instance) const { return count(instance, true); }
  int removes_of(const std::string& instance) const { return count(instance, false); }
  int count(const std::string& instance, bool add) const;
};

// One resolve; each callback's address and port are kept.
struct Resolve {
  ServiceInfoQuery query{};
  ServiceInfo info{};
  std::vector<ResolveResult> results;
  mDNSu32 queries_sent_at_first_result = 0;

  const ResolveResult* first_of(int family) const;
};

class CoreOnLan {
 public:
  // Starts the core inside the named network namespace: its sockets live there.
  explicit CoreOnLan(std::string netns);
  ~CoreOnLan();

  mStatus status() const { return status_; }
  mDNS& core() { return *m_; }

  // The interface ID of an interface name of the namespace (null when unknown).
  mDNSInterfaceID interface_id(const std::string& ifname) const;

  mStatus browse(Browse& browse, const std::string& type, mDNSInterfaceID interface_id = mDNSInterface_Any);
  // The instance must be plain text (no dots or backslashes).
  mStatus resolve(Resolve& resolve, const std::string& instance, const std::string& type,
                  mDNSInterfaceID interface_id = mDNSInterface_Any);

  // Runs the event loop until `done` holds or `timeout_ms` passes; returns `done()`.
  bool run_until(const std::function<bool()>& done, int timeout_ms);

 private:
  std::string netns_;
  std::unique_ptr<mDNS> m_ = std::make_unique<mDNS>();
  std::unique_ptr<mDNS_PlatformSupport> p_ = std::make_unique<mDNS_PlatformSupport>();
  std::vector<CacheEntity> cache_ = std::vector<CacheEntity>(500);
  mStatus status_ = mStatus_UnknownErr;
};

std::string address_text(const mDNSAddr& address);

}  // namespace mdns::vlan_test
