#include "browser/browse_watch.h"

#include <algorithm>
#include <cctype>

#include "browser/names.h"

namespace sorvalen::browser {

namespace {

// Instances are told apart by name (ignoring case) and interface.
std::string instance_key(const domainname& name, mDNSInterfaceID interface_id) {
  std::string key = text_of(name);
  std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
  return key + "%" + std::to_string(reinterpret_cast<uintptr_t>(interface_id));
}

}  // namespace

BrowseWatch::BrowseWatch(WatchContext* context, BrowseScope scope, ServiceBrowser::InstanceCallback callback)
    : Watch(context),
      scope_(std::move(scope)),
      callback_(std::make_shared<ServiceBrowser::InstanceCallback>(std::move(callback))) {}

BrowseWatch::~BrowseWatch() {
  End();
}

bool BrowseWatch::Begin() {
  mDNSInterfaceID interface_id = mDNSInterface_Any;
  if (!scope_.interface_name.empty() &&
      !interface_id_of(context_->core, scope_.interface_name, &interface_id))
    return false;
  return browse_.Browse(context_->core, scope_.type, scope_.domain, interface_id, this, 0);
}

void BrowseWatch::End() {
  browse_.Stop(context_->core, context_->graveyard);
  instances_.clear();
  changed_.clear();
}

void BrowseWatch::OnAnswer(int /*role*/, const ResourceRecord& answer, bool added) {
  const domainname& name = answer.rdata->u.name;
  // <instance>.<_app>.<_tcp|_udp>.<domain>: at least four labels.
  if (answer.rrtype != kDNSType_PTR || labels_in(name) < 4)
    return;
  const std::string key = instance_key(name, answer.InterfaceID);
  if (added) {
    InstanceAdded(name, answer.InterfaceID, key);
  } else {
    InstanceRemoved(key);
  }
}

void BrowseWatch::InstanceAdded(const domainname& name, mDNSInterfaceID interface_id,
                                const std::string& key) {
  if (instances_.count(key) != 0)
    return;
  ServiceInstance identity;
  identity.name = first_label(name);
  identity.type = text_before(name, 3).substr(text_before(name, 1).size());
  identity.domain = text_after(name, 3);
  identity.interface_name = interface_name_of(context_->core, interface_id);
  auto tracker = std::make_unique<InstanceTracker>(context_, name, interface_id, std::move(identity),
                                                   [this, key] { changed_.insert(key); });
  if (tracker->Begin())
    instances_.emplace(key, std::move(tracker));
}

void BrowseWatch::InstanceRemoved(const std::string& key) {
  const auto found = instances_.find(key);
  if (found == instances_.end())
    return;
  if (found->second->reported())
    removed_.push_back(found->second->told());
  instances_.erase(found);
  changed_.erase(key);
}

Delivery BrowseWatch::Event(uint64_t id, ServiceEvent event, ServiceInstance instance) const {
  auto callback = callback_;
  return {id, [callback, event, instance = std::move(instance)] { (*callback)(event, instance); }};
}

void BrowseWatch::Collect(uint64_t id, int64_t now, std::vector<Delivery>* out) {
  for (ServiceInstance& instance : removed_)
    out->push_back(Event(id, ServiceEvent::kRemoved, std::move(instance)));
  removed_.clear();
  for (auto it = changed_.begin(); it != changed_.end();) {
    InstanceTracker& tracker = *instances_.at(*it);
    ServiceEvent event;
    ServiceInstance instance;
    if (tracker.Collect(now, &event, &instance))
      out->push_back(Event(id, event, std::move(instance)));
    it = tracker.NextDue() < 0 ? changed_.erase(it) : std::next(it);
  }
}

int64_t BrowseWatch::NextDue() const {
  if (!removed_.empty())
    return 0;
  int64_t due = -1;
  for (const std::string& key : changed_) {
    const int64_t next = instances_.at(key)->NextDue();
    if (next >= 0 && (due < 0 || next < due))
      due = next;
  }
  return due;
}

}  // namespace sorvalen::browser
