// Builds core names in wire form for hand-made events, without going through
// the core's text parser (labels may hold dots).
#pragma once

#include <cstring>
#include <initializer_list>
#include <string>

#include "mdns/mdns.h"

namespace sorvalen::test {

inline domainname wire_name(std::initializer_list<std::string> labels) {
  domainname name{};
  size_t at = 0;
  for (const std::string& label : labels) {
    name.c[at++] = static_cast<mDNSu8>(label.size());
    std::memcpy(&name.c[at], label.data(), label.size());
    at += label.size();
  }
  name.c[at] = 0;
  return name;
}

inline domainname service_name(const std::string& instance, const std::string& app = "_x",
                               const std::string& transport = "_tcp", const std::string& domain = "local") {
  return wire_name({instance, app, transport, domain});
}

}  // namespace sorvalen::test
