#include "browser/host_watch.h"

#include "browser/core_session.h"
#include "browser/names.h"
#include "browser/service_address.h"

namespace sorvalen::browser {

HostWatch::HostWatch(WatchContext* context, const domainname& host, ServiceBrowser::HostCallback callback)
    : Watch(context),
      host_(host),
      host_text_(text_of(host)),
      callback_(std::make_shared<ServiceBrowser::HostCallback>(std::move(callback))) {}

HostWatch::~HostWatch() {
  End();
}

bool HostWatch::Begin() {
  return a_question_.Ask(context_->core, host_, kDNSType_A, mDNSInterface_Any, this, 0) &&
         aaaa_question_.Ask(context_->core, host_, kDNSType_AAAA, mDNSInterface_Any, this, 0);
}

void HostWatch::End() {
  a_question_.Stop(context_->core, context_->graveyard);
  aaaa_question_.Stop(context_->core, context_->graveyard);
}

void HostWatch::OnAnswer(int /*role*/, const ResourceRecord& answer, bool added) {
  if (answer.rrtype != kDNSType_A && answer.rrtype != kDNSType_AAAA)
    return;
  const ServiceAddress address = address_of(answer, interface_name_of(context_->core, answer.InterfaceID));
  if (!update_addresses(&addresses_, address, added))
    return;
  // The first addresses are told at once (after the round that brought them).
  if (ever_told_) {
    pacer_.Changed(monotonic_ms());
  } else if (!pacer_.pending()) {
    pacer_.Changed(monotonic_ms() - UpdatePacer::kSettleMs);
  }
}

void HostWatch::Collect(uint64_t id, int64_t now, std::vector<Delivery>* out) {
  if (!pacer_.pending() || now < pacer_.due())
    return;
  pacer_.Told(now);
  if (ever_told_ && same_addresses(addresses_, told_))
    return;
  ever_told_ = true;
  told_ = addresses_;
  auto callback = callback_;
  out->push_back({id, [callback, host = host_text_, addresses = told_] { (*callback)(host, addresses); }});
}

int64_t HostWatch::NextDue() const {
  return pacer_.due();
}

}  // namespace sorvalen::browser
