#pragma once

#include <string>
#include <vector>

namespace sorvalen::test {

// One resolved line ("=;...") of `avahi-browse -rpt`.
struct ResolvedService {
  std::string interface;  // e.g. "eth0"
  std::string protocol;   // "IPv4" or "IPv6"
  std::string name;       // instance name, unescaped
  std::string type;       // as avahi prints it: a description for well-known types
  std::string host;       // e.g. "tv.local"
  std::string address;
  int port = 0;
};

// Reads the resolved services out of parsable avahi-browse output: "=" lines
// add, "-" lines remove what the same interface and protocol resolved for that
// instance; other lines are skipped.
std::vector<ResolvedService> parse_resolved_services(const std::string& output);

}  // namespace sorvalen::test
