#include "endpoint_view.h"

#include <algorithm>

namespace {

std::string key_of(const sorvalen::ServiceInstance& instance) {
  return instance.name + '\0' + instance.type + '\0' + instance.domain + '\0' + instance.interface_name;
}

std::vector<Endpoint> endpoints_of(const sorvalen::ServiceInstance& instance) {
  std::vector<Endpoint> endpoints;
  for (const sorvalen::ServiceAddress& address : instance.addresses) {
    Endpoint endpoint;
    endpoint.family = address.ipv6 ? 6 : 4;
    endpoint.address = address.text.substr(0, address.text.find('%'));
    endpoint.shown_address = address.text;
    endpoint.interface_name = address.interface_name;
    endpoint.port = instance.port;
    endpoints.push_back(endpoint);
  }
  return endpoints;
}

const Endpoint* same_address(const std::vector<Endpoint>& list, const Endpoint& wanted) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const Endpoint& e) {
    return e.shown_address == wanted.shown_address && e.interface_name == wanted.interface_name;
  });
  return found == list.end() ? nullptr : &*found;
}

bool same_txt(const std::vector<sorvalen::TxtAttribute>& a, const std::vector<sorvalen::TxtAttribute>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
    return x.key == y.key && x.has_value == y.has_value && x.value == y.value;
  });
}

}  // namespace

std::vector<EndpointEvent> EndpointView::Follow(sorvalen::ServiceEvent event,
                                                const sorvalen::ServiceInstance& instance) {
  const std::string key = key_of(instance);
  Shown& before = shown_[key];
  Shown now;
  if (event != sorvalen::ServiceEvent::kRemoved)
    now = {endpoints_of(instance), instance.txt};
  const bool txt_changed = !same_txt(before.txt, now.txt);
  std::vector<EndpointEvent> events;
  for (const Endpoint& old : before.endpoints) {
    const Endpoint* kept = same_address(now.endpoints, old);
    if (kept == nullptr) {
      events.push_back({EventKind::kRemove, old, 0});
    } else if (kept->port != old.port || txt_changed) {
      events.push_back({EventKind::kUpdate, *kept, old.port});
    }
  }
  for (const Endpoint& endpoint : now.endpoints) {
    if (same_address(before.endpoints, endpoint) == nullptr) {
      events.push_back({EventKind::kAdd, endpoint, 0});
      ever_found_ = true;
    }
  }
  if (now.endpoints.empty()) {
    shown_.erase(key);
  } else {
    before = std::move(now);
  }
  return events;
}

size_t EndpointView::shown() const {
  size_t count = 0;
  for (const auto& [key, shown] : shown_)
    count += shown.endpoints.size();
  return count;
}
