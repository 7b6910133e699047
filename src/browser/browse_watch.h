// A browse: the PTR question of a service type (or subtype) in a domain, and
// one InstanceTracker per instance and interface it names.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "browser/instance_tracker.h"
#include "browser/watch.h"

namespace sorvalen::browser {

struct BrowseScope {
  domainname type{};  // with the subtype, if any
  domainname domain{};
  std::string interface_name;
};

class BrowseWatch : public Watch {
 public:
  BrowseWatch(WatchContext* context, BrowseScope scope, ServiceBrowser::InstanceCallback callback);
  ~BrowseWatch() override;

  bool Begin() override;
  void End() override;
  void OnAnswer(int role, const ResourceRecord& answer, bool added) override;
  void Collect(uint64_t id, int64_t now, std::vector<Delivery>* out) override;
  int64_t NextDue() const override;

 private:
  void InstanceAdded(const domainname& name, mDNSInterfaceID interface_id, const std::string& key);
  void InstanceRemoved(const std::string& key);
  Delivery Event(uint64_t id, ServiceEvent event, ServiceInstance instance) const;

  BrowseScope scope_;
  std::shared_ptr<ServiceBrowser::InstanceCallback> callback_;
  CoreQuestion browse_;
  std::map<std::string, std::unique_ptr<InstanceTracker>> instances_;
  std::set<std::string> changed_;  // instances with something to tell, now or later
  std::vector<ServiceInstance> removed_;
};

}  // namespace sorvalen::browser
