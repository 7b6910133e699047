#include "search_input.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "command_line.h"
#include "interfaces.h"
#include "text_output.h"

namespace {

bool is_service_name(const std::string& text) {
  if (text.empty() || text.size() > 62 || text.front() == '-' || text.back() == '-')
    return false;
  for (const char c : text) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-')
      return false;
  }
  return true;
}

bool is_protocol(const std::string& label) {
  return strcasecmp(label.c_str(), "_tcp") == 0 || strcasecmp(label.c_str(), "_udp") == 0;
}

std::vector<std::string> labels_of(std::string name) {
  if (!name.empty() && name.back() == '.')
    name.pop_back();
  std::vector<std::string> labels;
  size_t start = 0;
  for (size_t dot; (dot = name.find('.', start)) != std::string::npos; start = dot + 1)
    labels.push_back(name.substr(start, dot - start));
  labels.push_back(name.substr(start));
  return labels;
}

}  // namespace

std::string type_problem(const std::string& type) {
  const std::vector<std::string> labels = labels_of(type);
  const bool service = labels[0].size() > 1 && labels[0][0] == '_' && is_service_name(labels[0].substr(1));
  if (service && labels.size() > 2 && is_protocol(labels[1])) {
    const std::string domain = type.substr(labels[0].size() + labels[1].size() + 2);
    return "'" + escape_text(type) + "' includes the domain; give the type alone, " + labels[0] + "." +
           labels[1] + ", and the domain with --domain " + escape_text(domain);
  }
  if (service && labels.size() == 2 && is_protocol(labels[1]))
    return "";
  const std::string example = is_service_name(type) ? "_" + type + "._tcp" : "_http._tcp";
  return "'" + escape_text(type) + "' is not a service type; write it as _name._tcp or _name._udp, e.g. " +
         example;
}

std::string domain_problem(const std::string& domain) {
  if (domain.empty())
    return "the domain is empty; leave --domain out to search in local.";
  const std::vector<std::string> labels = labels_of(domain);
  if (labels[0].size() > 1 && labels[0][0] == '_')
    return "'" + escape_text(domain) + "' is a service type, not a domain; give a domain such as local.";
  for (const std::string& label : labels) {
    if (label.empty() || label.size() > 63 || domain.size() > 254)
      return "'" + escape_text(domain) + "' is not a domain name; give one such as local.";
  }
  return "";
}

std::vector<std::string> filter_words(const std::string& text) {
  std::vector<std::string> words;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = std::min(text.find(',', start), text.size());
    const std::string word = text.substr(start, comma - start);
    const size_t first = word.find_first_not_of(" \t");
    if (first != std::string::npos)
      words.push_back(word.substr(first, word.find_last_not_of(" \t") - first + 1));
    start = comma + 1;
  }
  return words;
}

std::string subtype_problem(const std::string& subtype) {
  std::string label = subtype;
  if (!label.empty() && label.back() == '.')
    label.pop_back();
  if (label.empty() || label.size() > 63 || label.find('.') != std::string::npos)
    return "'" + escape_text(subtype) + "' is not a subtype; give one label, e.g. _printer";
  return "";
}

std::string host_problem(const std::string& host) {
  const std::vector<std::string> labels = labels_of(host);
  if (host.size() > 254 || labels.size() < 2)
    return "'" + escape_text(host) +
           "' is not a host name; give one such as printer.local or www.example.com";
  for (const std::string& label : labels) {
    if (label.empty() || label.size() > 63)
      return "'" + escape_text(host) +
             "' is not a host name; give one such as printer.local or www.example.com";
  }
  return "";
}

int choose_interface(const char* command, const std::string& interface_name, std::string* zone) {
  const std::vector<InterfaceVerdict> verdicts = judge_interfaces();
  const std::vector<std::string> usable = usable_interfaces(verdicts);
  if (!interface_name.empty()) {
    for (const InterfaceVerdict& verdict : verdicts) {
      if (verdict.name != interface_name)
        continue;
      if (!verdict.unusable_because.empty()) {
        std::fprintf(stderr, "sorvalen-mdns %s: mDNS cannot use interface '%s': %s; usable: %s\n", command,
                     verdict.name.c_str(), verdict.unusable_because.c_str(), joined(usable).c_str());
        return 2;
      }
      *zone = verdict.name;
      return 0;
    }
    return usage_error(command, "there is no network interface '" + escape_text(interface_name) +
                                    "'; usable: " + joined(usable));
  }
  if (usable.empty()) {
    std::string why;
    for (const InterfaceVerdict& verdict : verdicts)
      why += (why.empty() ? "" : ", ") + verdict.name + ": " + verdict.unusable_because;
    std::fprintf(stderr,
                 "sorvalen-mdns %s: mDNS is unavailable: no usable network interface (%s); one must be up, "
                 "with multicast and an IPv4 or IPv6 address\n",
                 command, why.empty() ? "none at all" : why.c_str());
    return 2;
  }
  if (usable.size() == 1)
    *zone = usable[0];
  return 0;
}

int read_watch_timeout(const char* command, const char* value, int* seconds) {
  long parsed = 0;
  if (!parse_bounded_number(value, 10, 86400, &parsed)) {
    return usage_error(command, "--timeout takes whole seconds from 0 (no limit) to 86400, not '" +
                                    escape_text(value) + "'");
  }
  *seconds = static_cast<int>(parsed);
  return 0;
}

int read_interface_name(const char* command, const char* value, std::string* name) {
  if (*value == '\0')
    return usage_error(command, "--interface needs the name of an interface, e.g. eth0");
  *name = value;
  return 0;
}
