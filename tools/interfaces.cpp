#include "interfaces.h"

#include "mdns/mdns.h"

namespace {

const char* reason_text(mDNSInterfaceUse use) {
  switch (use) {
    case mDNSInterfaceUse_Used:
      return "";
    case mDNSInterfaceUse_Down:
      return "down";
    case mDNSInterfaceUse_LoopbackSpare:
      return "loopback, used only when no other interface is usable";
    case mDNSInterfaceUse_NoMulticast:
      return "no multicast";
    case mDNSInterfaceUse_NoAddress:
      return "no address";
  }
  return "not used";
}

// Empty when the core uses either family.
std::string unusable_because(const mDNSInterfaceVerdict& verdict) {
  if (verdict.ipv4 == mDNSInterfaceUse_Used || verdict.ipv6 == mDNSInterfaceUse_Used)
    return "";
  if (verdict.ipv4 == verdict.ipv6)
    return verdict.ipv4 == mDNSInterfaceUse_NoAddress ? "no IPv4 or IPv6 address" : reason_text(verdict.ipv4);
  return std::string("IPv4: ") + reason_text(verdict.ipv4) + "; IPv6: " + reason_text(verdict.ipv6);
}

}  // namespace

std::vector<InterfaceVerdict> judge_interfaces() {
  mDNSInterfaceVerdict verdicts[mDNS_MaxInterfaces];
  const int count = mDNS_JudgeInterfaces(verdicts, mDNS_MaxInterfaces);
  std::vector<InterfaceVerdict> judged;
  for (int i = 0; i < count && i < mDNS_MaxInterfaces; ++i)
    judged.push_back({verdicts[i].ifname, unusable_because(verdicts[i])});
  return judged;
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
