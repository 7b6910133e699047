#include "core_on_lan.h"

#include <arpa/inet.h>
#include <sys/select.h>

#include <algorithm>
#include <chrono>

#include "engine/engine.h"
#include "netns_scope.h"

namespace mdns::vlan_test {

namespace {

void on_browse(mDNS* const, DNSQuestion* question, const ResourceRecord* const answer, QC_result add) {
  domainlabel label{};
  domainname type_and_domain[2]{};
  char instance[MAX_ESCAPED_DOMAIN_LABEL] = "?";
  if (answer->rdata != nullptr &&
      DeconstructServiceName(&answer->rdata->u.name, &label, &type_and_domain[0], &type_and_domain[1])) {
    ConvertDomainLabelToCString_withescape(&label, instance, 0);
  }
  static_cast<Browse*>(question->QuestionContext)
      ->events.push_back({instance, answer->InterfaceID, add == QC_add});
}

void on_resolve(mDNS* const m, ServiceInfoQuery* query) {
  auto* resolve = static_cast<Resolve*>(query->ServiceInfoQueryContext);
  if (resolve->results.empty()) {
    resolve->queries_sent_at_first_result = engine_counters(m).queries_sent;
  }
  resolve->results.push_back({query->info->ip, (query->info->port.b[0] << 8) | query->info->port.b[1]});
}

}  // namespace

const BrowseEvent* Browse::first_add(const std::string& instance) const {
  const auto found =
      std::find_if(events.begin(), events.end(), [&](auto& e) { return e.add && e.instance == instance; });
  return found == events.end() ? nullptr : &*found;
}

int Browse::count(const std::string& instance, bool add) const {
  return static_cast<int>(std::count_if(events.begin(), events.end(),
                                        [&](auto& e) { return e.add == add && e.instance == instance; }));
}

const ResolveResult* Resolve::first_of(int family) const {
  const auto found =
      std::find_if(results.begin(), results.end(), [&](auto& r) { return r.ip.type == family; });
  return found == results.end() ? nullptr : &*found;
}

CoreOnLan::CoreOnLan(std::string netns) : netns_(std::move(netns)) {
  sorvalen::test::NetnsScope scope(netns_);
  status_ = mDNS_Init(m_.get(), p_.get(), cache_.data(), static_cast<mDNSu32>(cache_.size()), mDNSfalse,
                      nullptr, nullptr);
}

CoreOnLan::~CoreOnLan() {
  if (status_ == mStatus_NoError) {
    mDNS_FinalExit(m_.get());
  }
}

mDNSInterfaceID CoreOnLan::interface_id(const std::string& ifname) const {
  for (const NetworkInterfaceInfo* i = m_->HostInterfaces; i != nullptr; i = i->next) {
    if (ifname == i->ifname) {
      return i->InterfaceID;
    }
  }
  return mDNSInterface_Any;
}

mStatus CoreOnLan::browse(Browse& browse, const std::string& type, mDNSInterfaceID interface_id) {
  domainname service_type{};
  domainname domain{};
  MakeDomainNameFromDNSNameString(&service_type, type.c_str());
  MakeDomainNameFromDNSNameString(&domain, "local.");
  return mDNS_StartBrowse(m_.get(), &browse.question, &service_type, &domain, interface_id, mDNSfalse,
                          on_browse, &browse);
}

mStatus CoreOnLan::resolve(Resolve& resolve, const std::string& instance, const std::string& type,
                           mDNSInterfaceID interface_id) {
  MakeDomainNameFromDNSNameString(&resolve.info.name, (instance + "." + type + ".local.").c_str());
  resolve.info.InterfaceID = interface_id;
  return mDNS_StartResolveService(m_.get(), &resolve.query, &resolve.info, on_resolve, &resolve);
}

bool CoreOnLan::run_until(const std::function<bool()>& done, int timeout_ms) {
  // As an application's loop thread would be: in the namespace of the sockets,
  // where the core reads the interfaces when they change.
  sorvalen::test::NetnsScope scope(netns_);
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return false;
    }
    fd_set readfds;
    FD_ZERO(&readfds);
    int nfds = 0;
    timeval timeout{0, static_cast<suseconds_t>(std::min<decltype(left)>(left, 100000))};
    mDNSPosixGetFDSet(m_.get(), &nfds, &readfds, &timeout);
    if (select(nfds, &readfds, nullptr, nullptr, &timeout) < 0) {
      FD_ZERO(&readfds);  // interrupted: the core still runs its timers
    }
    mDNSPosixProcessFDSet(m_.get(), &readfds);
  }
  return true;
}

std::string address_text(const mDNSAddr& address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(address.type == mDNSAddrType_IPv4 ? AF_INET : AF_INET6, &address.ip, text, sizeof text);
  return text;
}

}  // namespace mdns::vlan_test
