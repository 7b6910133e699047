#include "browser/request_check.h"

#include <net/if.h>
#include <strings.h>

#include "browser/names.h"

namespace sorvalen::browser {

namespace {

std::string without_dot(std::string text) {
  if (!text.empty() && text.back() == '.')
    text.pop_back();
  return text;
}

bool is_protocol(const std::string& label) {
  return strcasecmp(label.c_str(), "_tcp") == 0 || strcasecmp(label.c_str(), "_udp") == 0;
}

// "_app._tcp" or "_app._udp".
bool is_service_type(const std::string& type) {
  const size_t dot = type.find('.');
  return dot != std::string::npos && dot >= 2 && type[0] == '_' &&
         type.find('.', dot + 1) == std::string::npos && is_protocol(type.substr(dot + 1));
}

}  // namespace

std::string domain_problem(const std::string& domain, domainname* name) {
  if (!name_from_text(domain, name) || labels_in(*name) == 0)
    return "'" + domain + "' is not a domain name";
  return "";
}

std::string interface_problem(const std::string& interface_name) {
  if (!interface_name.empty() && if_nametoindex(interface_name.c_str()) == 0)
    return "there is no network interface '" + interface_name + "'";
  return "";
}

std::string browse_problem(const BrowseRequest& request, BrowseScope* scope) {
  const std::string type = without_dot(request.type);
  if (!is_service_type(type))
    return "'" + request.type + "' is not a service type such as _http._tcp";
  const std::string subtype = without_dot(request.subtype);
  if (subtype.find('.') != std::string::npos)
    return "the subtype '" + request.subtype + "' is more than one label";
  const std::string full = subtype.empty() ? type : subtype + "._sub." + type;
  if (!name_from_text(full, &scope->type))
    return "the subtype '" + request.subtype + "' is too long";
  if (std::string problem = domain_problem(request.domain, &scope->domain); !problem.empty())
    return problem;
  scope->interface_name = request.interface_name;
  return interface_problem(request.interface_name);
}

std::string host_problem(const std::string& host, domainname* name) {
  if (!name_from_text(host, name) || labels_in(*name) < 2)
    return "'" + host + "' is not a host name such as printer.local";
  return "";
}

}  // namespace sorvalen::browser
