#include "avahi_browse_output.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace sorvalen::test {
namespace {

std::vector<std::string> fields_of(const std::string& line) {
  std::vector<std::string> fields;
  std::string field;
  std::istringstream in(line);
  while (std::getline(in, field, ';'))
    fields.push_back(field);
  return fields;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// avahi-browse writes '.', '\\' and non-printable bytes of a label as \DDD.
std::string unescaped(const std::string& text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && is_digit(text[i + 1]) && is_digit(text[i + 2]) &&
        is_digit(text[i + 3])) {
      plain.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 3))));
      i += 3;
    } else if (text[i] == '\\' && i + 1 < text.size()) {
      plain.push_back(text[++i]);
    } else {
      plain.push_back(text[i]);
    }
  }
  return plain;
}

}  // namespace

std::vector<ResolvedService> parse_resolved_services(const std::string& output) {
  std::vector<ResolvedService> services;
  std::istringstream in(output);
  std::string line;
  while (std::getline(in, line)) {
    const std::vector<std::string> f = fields_of(line);
    if (f.size() >= 5 && f[0] == "-") {
      // A removal event cancels what was resolved for that instance before.
      const std::string name = unescaped(f[3]);
      services.erase(std::remove_if(services.begin(), services.end(),
                                    [&](const ResolvedService& s) {
                                      return s.interface == f[1] && s.protocol == f[2] && s.name == name &&
                                             s.type == f[4];
                                    }),
                     services.end());
      continue;
    }
    if (f.size() < 9 || f[0] != "=")
      continue;
    ResolvedService s;
    s.interface = f[1];
    s.protocol = f[2];
    s.name = unescaped(f[3]);
    s.type = f[4];
    s.host = f[6];
    s.address = f[7];
    s.port = std::atoi(f[8].c_str());
    services.push_back(s);
  }
  return services;
}

}  // namespace sorvalen::test
