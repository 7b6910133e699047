// Events of the services on the link: instances added, updated and removed,
// the service types present, and host names with their addresses.
//
// A ServiceBrowser has an mDNS core of its own, so it works whether or not an
// MDNSSearch runs in the same process.  Its callbacks run on the browser's own
// thread (Threading::kOwnThread), or inside ProcessReady() on the thread that
// calls it (Threading::kApplicationLoop: poll Descriptor() for readability in
// the application's loop - epoll, libuv, Qt - and call ProcessReady() when it
// is readable).  Every member may be called from any thread and from inside a
// callback; a callback may cancel its own watch or any other.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sorvalen/export.h"

namespace sorvalen {

// One TXT attribute (key/value pairs of RFC 6763 section 6), in the order the
// device sent them.  Keys compare case-insensitively and only the first of
// equal keys is kept; "key" alone (no value) and "key=" (empty value) differ.
struct TxtAttribute {
  std::string key;  // printable ASCII as received
  bool has_value = false;
  std::string value;  // any bytes, not necessarily UTF-8
};

// An address of a service or host, with the interface it was found on.  IPv6
// link-local addresses carry their scope: `text` is usable as is ("fe80::1%eth0").
struct ServiceAddress {
  bool ipv6 = false;
  uint8_t bytes[16] = {};  // network order; the first 4 for IPv4
  std::string text;        // "192.0.2.7", "2001:db8::7", "fe80::7%eth0"
  unsigned interface_index = 0;
  std::string interface_name;  // empty for answers of unicast DNS
};

struct ServiceInstance {
  std::string name;    // instance label, plain text
  std::string type;    // "_http._tcp." (the browsed type, without subtype)
  std::string domain;  // "local."
  std::string host;    // SRV target, "printer.local."
  uint16_t port = 0;   // host order
  std::vector<ServiceAddress> addresses;
  std::vector<TxtAttribute> txt;
  std::string interface_name;  // where the instance was found; empty for unicast DNS
};

enum class ServiceEvent { kAdded, kUpdated, kRemoved };

struct BrowseRequest {
  std::string type;              // "_http._tcp" (trailing dot optional)
  std::string subtype;           // "" or "_printer": only instances of that subtype
  std::string domain = "local";  // other domains are asked by unicast DNS
  std::string interface_name;    // empty: every interface
};

class SORVALEN_API ServiceBrowser {
 public:
  enum class Threading { kOwnThread, kApplicationLoop };

  // Identifies a watch started by Browse, BrowseTypes or ResolveHost; 0 is none.
  using WatchId = uint64_t;

  // kAdded once an instance has its host, port and a first address; kUpdated
  // when its port, host, addresses or TXT change (a burst of changes is one
  // update, and an instance that keeps changing is told at a falling rate, at
  // most about once a second); kRemoved when it leaves (goodbye, expiry, or a
  // device that stopped answering).  An instance found on two interfaces is
  // two instances, each with its interface_name.
  using InstanceCallback = std::function<void(ServiceEvent, const ServiceInstance&)>;
  // A service type ("_ipp._tcp.") in a domain ("local."), added or removed.
  using TypeCallback = std::function<void(ServiceEvent, const std::string& type, const std::string& domain)>;
  // The host's current addresses, each time they change; empty once it has none.
  using HostCallback =
      std::function<void(const std::string& host, const std::vector<ServiceAddress>& addresses)>;

  explicit ServiceBrowser(Threading threading = Threading::kOwnThread);
  ServiceBrowser(const ServiceBrowser&) = delete;
  ServiceBrowser& operator=(const ServiceBrowser&) = delete;
  // Cancels every watch and stops the thread; no callback runs after it returns.
  // It waits for a callback under way on another thread, so it must not be
  // called from inside one of this browser's callbacks (call Stop there).
  ~ServiceBrowser();

  // Opens the core (its sockets on the host's interfaces) and, for kOwnThread,
  // starts the thread.  False with `*error` set when it cannot.
  bool Start(std::string* error = nullptr);
  // Cancels every watch and closes the core; Start may be called again.  From
  // inside a callback it takes effect when the callback returns.
  void Stop();

  // Each returns 0 and sets `*error` for bad input or before Start.
  WatchId Browse(const BrowseRequest& request, InstanceCallback callback, std::string* error = nullptr);
  WatchId BrowseTypes(const std::string& domain, const std::string& interface_name, TypeCallback callback,
                      std::string* error = nullptr);
  // A ".local" host by multicast, any other name by unicast DNS.
  WatchId ResolveHost(const std::string& host, HostCallback callback, std::string* error = nullptr);
  // No callback of the watch runs once Cancel returns (unless Cancel is called
  // from that very callback, which then finishes).  Unknown ids are ignored.
  void Cancel(WatchId id);

  // kApplicationLoop only: the descriptor to poll for readability (-1 before
  // Start), and the call that does the work due and runs the callbacks.
  int Descriptor() const;
  void ProcessReady();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sorvalen
