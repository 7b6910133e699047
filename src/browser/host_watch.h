// A host name's addresses: its A and AAAA questions, the current list told on
// each change (paced like an instance's updates).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "browser/update_pacer.h"
#include "browser/watch.h"
#include "sorvalen/service_browser.h"

namespace sorvalen::browser {

class HostWatch : public Watch {
 public:
  HostWatch(WatchContext* context, const domainname& host, ServiceBrowser::HostCallback callback);
  ~HostWatch() override;

  bool Begin() override;
  void End() override;
  void OnAnswer(int role, const ResourceRecord& answer, bool added) override;
  void Collect(uint64_t id, int64_t now, std::vector<Delivery>* out) override;
  int64_t NextDue() const override;

 private:
  domainname host_;
  std::string host_text_;
  std::shared_ptr<ServiceBrowser::HostCallback> callback_;
  CoreQuestion a_question_, aaaa_question_;
  std::vector<ServiceAddress> addresses_;
  std::vector<ServiceAddress> told_;
  bool ever_told_ = false;
  UpdatePacer pacer_;
};

}  // namespace sorvalen::browser
