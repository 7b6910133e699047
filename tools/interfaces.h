// The host's network interfaces as the mDNS querier judges them: which it can
// search on, and why the others are left out.
#pragma once

#include <string>
#include <vector>

struct InterfaceVerdict {
  std::string name;
  std::string unusable_because;  // empty when the querier uses the interface
};

// The interfaces of this network namespace as the core judges them
// (mDNS_JudgeInterfaces): usable when the core uses it for either family.
std::vector<InterfaceVerdict> judge_interfaces();

std::vector<std::string> usable_interfaces(const std::vector<InterfaceVerdict>& verdicts);

// "eth0, wlan0", or "none" without any.
std::string joined(const std::vector<std::string>& names);
