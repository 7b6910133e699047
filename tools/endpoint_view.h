// The browser's instance events told as endpoint events, one per address and
// port: an endpoint appeared, went away, or changed (another port, or its
// instance's TXT).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "sorvalen/service_browser.h"

struct Endpoint {
  int family = 4;             // 4 or 6
  std::string address;        // without a zone
  std::string shown_address;  // with the zone of a link-local address ("fe80::1%eth0")
  std::string interface_name;
  unsigned port = 0;
};

enum class EventKind { kAdd, kRemove, kUpdate };

struct EndpointEvent {
  EventKind kind;
  Endpoint endpoint;
  unsigned old_port = 0;  // kUpdate: the port the endpoint had before
};

class EndpointView {
 public:
  // The endpoint events that `event` of `instance` makes.
  std::vector<EndpointEvent> Follow(sorvalen::ServiceEvent event, const sorvalen::ServiceInstance& instance);

  size_t shown() const;
  bool ever_found() const { return ever_found_; }

 private:
  struct Shown {
    std::vector<Endpoint> endpoints;
    std::vector<sorvalen::TxtAttribute> txt;
  };
  std::map<std::string, Shown> shown_;  // by instance name, type, domain and interface
  bool ever_found_ = false;
};
