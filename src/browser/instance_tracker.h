// One service instance of a browse: its SRV, TXT and the addresses of its
// host, followed by the core's questions, and what of it the application has
// been told.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "browser/core_question.h"
#include "browser/update_pacer.h"
#include "browser/watch.h"
#include "sorvalen/service_browser.h"

namespace sorvalen::browser {

class InstanceTracker : public AnswerListener {
 public:
  // `identity` holds the instance's name, type, domain and interface.
  InstanceTracker(WatchContext* context, const domainname& name, mDNSInterfaceID interface_id,
                  ServiceInstance identity, std::function<void()> on_change);
  ~InstanceTracker() override;

  bool Begin();
  void End();
  void OnAnswer(int role, const ResourceRecord& answer, bool added) override;

  // The event due at `now`, if any: kAdded once it is complete, then kUpdated
  // for changes (paced).  False when there is nothing to tell.
  bool Collect(int64_t now, ServiceEvent* event, ServiceInstance* instance);
  int64_t NextDue() const;
  bool reported() const { return reported_; }
  const ServiceInstance& told() const { return told_; }

 private:
  enum Role { kSrv, kTxt, kAddress };
  struct Srv {
    domainname target;
    uint16_t port;
  };

  void OnSrv(const ResourceRecord& answer, bool added);
  void OnTxt(const ResourceRecord& answer, bool added);
  void FollowTarget();
  ServiceInstance Current() const;
  bool Complete() const;
  void Changed();

  WatchContext* context_;
  domainname name_;
  mDNSInterfaceID interface_id_;
  ServiceInstance identity_;
  std::function<void()> on_change_;
  CoreQuestion srv_question_, txt_question_, a_question_, aaaa_question_;
  std::vector<Srv> srvs_;                   // the newest last
  std::vector<std::vector<uint8_t>> txts_;  // the newest last
  bool asking_target_ = false;
  domainname asked_target_{};
  std::vector<ServiceAddress> addresses_;
  UpdatePacer pacer_;
  bool reported_ = false;
  ServiceInstance told_;
};

}  // namespace sorvalen::browser
