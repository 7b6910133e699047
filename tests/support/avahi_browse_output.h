#pragma once

#include <cctype>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace sorvalen::test {

// A resolved line ("=;IFACE;PROTOCOL;NAME;TYPE;DOMAIN;HOST;ADDRESS;PORT;TXT") of `avahi-browse -rpt`.
struct ResolvedService {
  std::string name;  // instance name, unescaped
  int port = 0;
};

// The resolved lines of parsable avahi-browse output; other lines are skipped.
inline std::vector<ResolvedService> parse_resolved_services(const std::string& output) {
  std::vector<ResolvedService> services;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> f;
    std::istringstream fields(line);
    for (std::string field; std::getline(fields, field, ';');)
      f.push_back(field);
    if (f.size() < 9 || f[0] != "=")
      continue;
    // avahi-browse writes a label's '.' and '\\' as \. and \\, other bytes as \DDD.
    const std::string& text = f[3];
    std::string name;
    for (size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\\' && i + 3 < text.size() && isdigit(static_cast<unsigned char>(text[i + 1]))) {
        name.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 3))));
        i += 3;
      } else {
        name.push_back(text[i] == '\\' && i + 1 < text.size() ? text[++i] : text[i]);
      }
    }
    services.push_back({name, std::atoi(f[8].c_str())});
  }
  return services;
}

}  // namespace sorvalen::test
