#include "core_on_lan.h"

#include <arpa/inet.h>
#include <sys/select.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "engine.h"
#include "netns_scope.h"

namespace mdns::vlan_test {

namespace {

constexpr mDNSu32 kCacheEntries = 500;

void on_browse(mDNS* const, DNSQuestion* question, const ResourceRecord* const answer, QC_result add) {
  auto* browse = static_cast<Browse*>(question->QuestionContext);
  domainlabel label{};
  domainname type{};
  domainname domain{};
  std::string instance = "?";
  if (answer->rdata != nullptr && DeconstructServiceName(&answer->rdata->u.name, &label, &type, &domain)) {
    char text[MAX_ESCAPED_DOMAIN_LABEL];
    ConvertDomainLabelToCString_withescape(&label, text, 0);
    instance = text;
  }
  browse->events.push_back({instance, answer->InterfaceID, add == QC_add});
}

void on_resolve(mDNS* const m, ServiceInfoQuery* query) {
  auto* resolve = static_cast<Resolve*>(query->ServiceInfoQueryContext);
  if (resolve->results.empty()) {
    resolve->queries_sent_at_first_result = engine_counters(m).queries_sent;
  }
  const ServiceInfo* info = query->info;
  resolve->results.push_back({info->ip, (info->port.b[0] << 8) | info->port.b[1]});
}

int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

const BrowseEvent* Browse::first_add(const std::string& instance) const {
  for (const auto& e : events) {
    if (e.add && e.instance == instance) {
      return &e;
    }
  }
  return nullptr;
}

int Browse::count(const std::string& instance, bool add) const {
  int n = 0;
  for (const auto& e : events) {
    n += (e.add == add && e.instance == instance) ? 1 : 0;
  }
  return n;
}

const ResolveResult* Resolve::first_of(int family) const {
  for (const auto& r : results) {
    if (r.ip.type == family) {
      return &r;
    }
  }
  return nullptr;
}

CoreOnLan::CoreOnLan(std::string netns)
    : netns_(std::move(netns)),
      m_(std::make_unique<mDNS>()),
      p_(std::make_unique<mDNS_PlatformSupport>()),
      cache_(kCacheEntries) {
  sorvalen::test::NetnsScope scope(netns_);
  status_ = mDNS_Init(m_.get(), p_.get(), cache_.data(), kCacheEntries, mDNSfalse, nullptr, nullptr);
}

CoreOnLan::~CoreOnLan() {
  if (started()) {
    mDNS_StartExit(m_.get());
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

std::vector<std::string> CoreOnLan::interface_names() const {
  std::vector<std::string> names;
  for (const NetworkInterfaceInfo* i = m_->HostInterfaces; i != nullptr; i = i->next) {
    names.emplace_back(i->ifname);
  }
  return names;
}

mStatus CoreOnLan::browse(Browse& browse, const std::string& type, mDNSInterfaceID interface_id) {
  domainname service_type{};
  domainname domain{};
  if (MakeDomainNameFromDNSNameString(&service_type, type.c_str()) == nullptr ||
      MakeDomainNameFromDNSNameString(&domain, "local.") == nullptr) {
    return mStatus_BadParamErr;
  }
  return mDNS_StartBrowse(m_.get(), &browse.question, &service_type, &domain, interface_id, mDNSfalse,
                          on_browse, &browse);
}

mStatus CoreOnLan::resolve(Resolve& resolve, const std::string& instance, const std::string& type,
                           mDNSInterfaceID interface_id) {
  const std::string name = instance + "." + type + ".local.";
  if (MakeDomainNameFromDNSNameString(&resolve.info.name, name.c_str()) == nullptr) {
    return mStatus_BadParamErr;
  }
  resolve.info.InterfaceID = interface_id;
  return mDNS_StartResolveService(m_.get(), &resolve.query, &resolve.info, on_resolve, &resolve);
}

bool CoreOnLan::run_until(const std::function<bool()>& done, int timeout_ms) {
  // As an application's loop thread would be: in the namespace of the sockets,
  // where the core reads the interfaces when they change.
  sorvalen::test::NetnsScope scope(netns_);
  const int64_t deadline = now_ms() + timeout_ms;
  while (!done()) {
    const int64_t left = deadline - now_ms();
    if (left <= 0) {
      return false;
    }
    fd_set readfds;
    FD_ZERO(&readfds);
    int nfds = 0;
    timeval timeout{0, static_cast<suseconds_t>(left < 100 ? left * 1000 : 100000)};
    mDNSPosixGetFDSet(m_.get(), &nfds, &readfds, &timeout);
    const int ready = select(nfds, &readfds, nullptr, nullptr, &timeout);
    if (ready < 0) {
      if (errno != EINTR) {
        throw std::runtime_error(std::string("select: ") + std::strerror(errno));
      }
      FD_ZERO(&readfds);
    }
    mDNSPosixProcessFDSet(m_.get(), &readfds);
  }
  return true;
}

std::string address_text(const mDNSAddr& address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.type == mDNSAddrType_IPv4) {
    inet_ntop(AF_INET, address.ip.v4.b, text, sizeof text);
  } else if (address.type == mDNSAddrType_IPv6) {
    inet_ntop(AF_INET6, address.ip.v6.b, text, sizeof text);
  }
  return text;
}

}  // namespace mdns::vlan_test
