// The service types of a domain: a browse of _services._dns-sd._udp, each type
// told once however many interfaces and devices announce it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "browser/watch.h"
#include "sorvalen/service_browser.h"

namespace sorvalen::browser {

class TypesWatch : public Watch {
 public:
  TypesWatch(WatchContext* context, const domainname& domain, std::string interface_name,
             ServiceBrowser::TypeCallback callback);
  ~TypesWatch() override;

  bool Begin() override;
  void End() override;
  void OnAnswer(int role, const ResourceRecord& answer, bool added) override;
  void Collect(uint64_t id, int64_t now, std::vector<Delivery>* out) override;
  int64_t NextDue() const override;

 private:
  struct Type {
    std::string type, domain;  // as first seen
    int answers = 0;           // PTR answers naming it, one per interface
  };

  domainname domain_;
  std::string interface_name_;
  std::shared_ptr<ServiceBrowser::TypeCallback> callback_;
  CoreQuestion browse_;
  std::map<std::string, Type> types_;
  std::vector<std::pair<ServiceEvent, Type>> events_;
};

}  // namespace sorvalen::browser
