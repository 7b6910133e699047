// The host's network interfaces as the mDNS querier judges them: which it can
// search on, and why the others are left out.
#pragma once

#include <string>
#include <vector>

struct InterfaceVerdict {
  std::string name;
  std::string unusable_because;  // empty when the querier uses the interface
};

// Every interface of this network namespace.  An interface is usable when it
// is up, has the multicast flag and an IPv4 or IPv6 address; the loopback
// interface only when no other interface is usable (and then for IPv4).
std::vector<InterfaceVerdict> judge_interfaces();

std::vector<std::string> usable_interfaces(const std::vector<InterfaceVerdict>& verdicts);

// "eth0, wlan0", or "none" without any.
std::string joined(const std::vector<std::string>& names);
