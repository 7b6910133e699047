#include "browser/types_watch.h"

#include <algorithm>
#include <cctype>

#include "browser/names.h"

namespace sorvalen::browser {

TypesWatch::TypesWatch(WatchContext* context, const domainname& domain, std::string interface_name,
                       ServiceBrowser::TypeCallback callback)
    : Watch(context),
      domain_(domain),
      interface_name_(std::move(interface_name)),
      callback_(std::make_shared<ServiceBrowser::TypeCallback>(std::move(callback))) {}

TypesWatch::~TypesWatch() {
  End();
}

bool TypesWatch::Begin() {
  mDNSInterfaceID interface_id = mDNSInterface_Any;
  if (!interface_name_.empty() && !interface_id_of(context_->core, interface_name_, &interface_id))
    return false;
  domainname list;
  return name_from_text("_services._dns-sd._udp", &list) &&
         browse_.Browse(context_->core, list, domain_, interface_id, this, 0);
}

void TypesWatch::End() {
  browse_.Stop(context_->core, context_->graveyard);
}

// Each answer names a type: <_app>.<_tcp|_udp>.<domain>.
void TypesWatch::OnAnswer(int /*role*/, const ResourceRecord& answer, bool added) {
  const domainname& name = answer.rdata->u.name;
  if (answer.rrtype != kDNSType_PTR || labels_in(name) < 3)
    return;
  std::string key = text_of(name);
  std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
  Type& type = types_[key];
  if (added && type.answers++ == 0) {
    type.type = text_before(name, 2);
    type.domain = text_after(name, 2);
    events_.emplace_back(ServiceEvent::kAdded, type);
  } else if (!added && type.answers > 0 && --type.answers == 0) {
    events_.emplace_back(ServiceEvent::kRemoved, type);
  }
  if (type.answers == 0)
    types_.erase(key);
}

void TypesWatch::Collect(uint64_t id, int64_t /*now*/, std::vector<Delivery>* out) {
  auto callback = callback_;
  for (const auto& [event, type] : events_) {
    out->push_back({id, [callback, event = event, type = type.type, domain = type.domain] {
                      (*callback)(event, type, domain);
                    }});
  }
  events_.clear();
}

int64_t TypesWatch::NextDue() const {
  return events_.empty() ? -1 : 0;
}

}  // namespace sorvalen::browser
