#include "browser/instance_tracker.h"

#include <algorithm>

#include "browser/core_session.h"
#include "browser/names.h"
#include "browser/service_address.h"
#include "browser/txt_record.h"

namespace sorvalen::browser {

namespace {

bool same_txt(const std::vector<TxtAttribute>& a, const std::vector<TxtAttribute>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const TxtAttribute& x, const TxtAttribute& y) {
    return x.key == y.key && x.has_value == y.has_value && x.value == y.value;
  });
}

bool same_instance(const ServiceInstance& a, const ServiceInstance& b) {
  return a.host == b.host && a.port == b.port && same_addresses(a.addresses, b.addresses) &&
         same_txt(a.txt, b.txt);
}

std::vector<uint8_t> rdata_bytes(const ResourceRecord& answer) {
  const uint8_t* data = answer.rdata->u.data;
  const size_t length = std::min<size_t>(answer.rdata->length, sizeof answer.rdata->u.data);
  return std::vector<uint8_t>(data, data + length);
}

}  // namespace

InstanceTracker::InstanceTracker(WatchContext* context, const domainname& name, mDNSInterfaceID interface_id,
                                 ServiceInstance identity, std::function<void()> on_change)
    : context_(context),
      name_(name),
      interface_id_(interface_id),
      identity_(std::move(identity)),
      on_change_(std::move(on_change)) {}

InstanceTracker::~InstanceTracker() {
  End();
}

bool InstanceTracker::Begin() {
  return srv_question_.Ask(context_->core, name_, kDNSType_SRV, interface_id_, this, kSrv) &&
         txt_question_.Ask(context_->core, name_, kDNSType_TXT, interface_id_, this, kTxt);
}

void InstanceTracker::End() {
  for (CoreQuestion* question : {&srv_question_, &txt_question_, &a_question_, &aaaa_question_})
    question->Stop(context_->core, context_->graveyard);
}

void InstanceTracker::OnAnswer(int role, const ResourceRecord& answer, bool added) {
  if (role == kSrv && answer.rrtype == kDNSType_SRV) {
    OnSrv(answer, added);
  } else if (role == kTxt && answer.rrtype == kDNSType_TXT) {
    OnTxt(answer, added);
  } else if (role == kAddress && (answer.rrtype == kDNSType_A || answer.rrtype == kDNSType_AAAA)) {
    if (update_addresses(&addresses_, address_of(answer, identity_.interface_name), added))
      Changed();
  }
}

void InstanceTracker::OnSrv(const ResourceRecord& answer, bool added) {
  const rdataSRV& srv = answer.rdata->u.srv;
  const uint16_t port = static_cast<uint16_t>(srv.port.b[0] << 8 | srv.port.b[1]);
  const auto found = std::find_if(srvs_.begin(), srvs_.end(), [&](const Srv& known) {
    return known.port == port && same_name(known.target, srv.target);
  });
  if (found != srvs_.end())
    srvs_.erase(found);
  if (added)
    srvs_.push_back({srv.target, port});
  FollowTarget();
  Changed();
}

void InstanceTracker::OnTxt(const ResourceRecord& answer, bool added) {
  const std::vector<uint8_t> bytes = rdata_bytes(answer);
  const auto found = std::find(txts_.begin(), txts_.end(), bytes);
  if (found != txts_.end())
    txts_.erase(found);
  if (added)
    txts_.push_back(bytes);
  Changed();
}

// The addresses asked for are those of the newest SRV's target.
void InstanceTracker::FollowTarget() {
  const bool has_target = !srvs_.empty();
  if (asking_target_ && has_target && same_name(asked_target_, srvs_.back().target))
    return;
  a_question_.Stop(context_->core, context_->graveyard);
  aaaa_question_.Stop(context_->core, context_->graveyard);
  addresses_.clear();
  asking_target_ = has_target;
  if (!has_target)
    return;
  asked_target_ = srvs_.back().target;
  a_question_.Ask(context_->core, asked_target_, kDNSType_A, interface_id_, this, kAddress);
  aaaa_question_.Ask(context_->core, asked_target_, kDNSType_AAAA, interface_id_, this, kAddress);
}

ServiceInstance InstanceTracker::Current() const {
  ServiceInstance instance = identity_;
  if (!srvs_.empty()) {
    instance.host = text_of(srvs_.back().target);
    instance.port = srvs_.back().port;
  }
  instance.addresses = addresses_;
  if (!txts_.empty())
    instance.txt = parse_txt(txts_.back().data(), txts_.back().size());
  return instance;
}

bool InstanceTracker::Complete() const {
  return !srvs_.empty() && !addresses_.empty();
}

void InstanceTracker::Changed() {
  if (reported_)
    pacer_.Changed(monotonic_ms());
  on_change_();
}

bool InstanceTracker::Collect(int64_t now, ServiceEvent* event, ServiceInstance* instance) {
  if (!reported_) {
    if (!Complete())
      return false;
    reported_ = true;
    told_ = Current();
    pacer_.Told(now);
    *event = ServiceEvent::kAdded;
    *instance = told_;
    return true;
  }
  if (!pacer_.pending() || now < pacer_.due())
    return false;
  ServiceInstance current = Current();
  pacer_.Told(now);
  if (same_instance(current, told_))
    return false;
  told_ = std::move(current);
  *event = ServiceEvent::kUpdated;
  *instance = told_;
  return true;
}

int64_t InstanceTracker::NextDue() const {
  if (!reported_)
    return Complete() ? 0 : -1;
  return pacer_.due();
}

}  // namespace sorvalen::browser
