#include "interfaces.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <map>

namespace {

struct Observed {
  unsigned flags = 0;
  bool ipv4 = false;
  bool ipv6 = false;
};

}  // namespace

std::vector<InterfaceVerdict> judge_interfaces() {
  std::map<std::string, Observed> seen;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0)
    return {};
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    std::string name = entry->ifa_name;
    name = name.substr(0, name.find(':'));  // an alias address belongs to its interface
    Observed& observed = seen[name];
    observed.flags |= entry->ifa_flags;
    if (entry->ifa_addr != nullptr) {
      observed.ipv4 = observed.ipv4 || entry->ifa_addr->sa_family == AF_INET;
      observed.ipv6 = observed.ipv6 || entry->ifa_addr->sa_family == AF_INET6;
    }
  }
  freeifaddrs(list);

  std::vector<InterfaceVerdict> verdicts;
  bool other_usable = false;
  for (const auto& [name, observed] : seen) {
    InterfaceVerdict verdict{name, ""};
    const bool loopback = (observed.flags & IFF_LOOPBACK) != 0;
    if ((observed.flags & IFF_UP) == 0) {
      verdict.unusable_because = "down";
    } else if (!loopback && (observed.flags & IFF_MULTICAST) == 0) {
      verdict.unusable_because = "no multicast";
    } else if (!observed.ipv4 && (loopback || !observed.ipv6)) {
      verdict.unusable_because = loopback ? "no IPv4 address" : "no IPv4 or IPv6 address";
    }
    other_usable = other_usable || (!loopback && verdict.unusable_because.empty());
    verdicts.push_back(verdict);
  }
  for (InterfaceVerdict& verdict : verdicts) {
    if (other_usable && verdict.unusable_because.empty() && (seen[verdict.name].flags & IFF_LOOPBACK) != 0)
      verdict.unusable_because = "loopback, used only when no other interface is usable";
  }
  return verdicts;
}

std::vector<std::string> usable_interfaces(const std::vector<InterfaceVerdict>& verdicts) {
  std::vector<std::string> names;
  for (const InterfaceVerdict& verdict : verdicts) {
    if (verdict.unusable_because.empty())
      names.push_back(verdict.name);
  }
  return names;
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names)
    text += (text.empty() ? "" : ", ") + name;
  return text.empty() ? "none" : text;
}
