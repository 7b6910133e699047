#include "search/service_name_texts.h"

#include <cstring>

namespace sorvalen {

bool split_service_name(const domainname& full_name, ServiceNameTexts* texts) {
  domainlabel instance;
  domainname type;
  domainname domain;
  if (!DeconstructServiceName(&full_name, &instance, &type, &domain))
    return false;

  // Sized for the longest text the core can write, so no name overruns them.
  char instance_text[MAX_ESCAPED_DOMAIN_LABEL];
  char type_text[MAX_ESCAPED_DOMAIN_NAME];
  char domain_text[MAX_ESCAPED_DOMAIN_NAME];
  // The end pointers keep a label byte 0 from cutting a text short.
  char* instance_end = ConvertDomainLabelToCString_withescape(&instance, instance_text, 0);
  char* type_end = ConvertDomainNameToCString_withescape(&type, type_text, 0);
  char* domain_end = ConvertDomainNameToCString_withescape(&domain, domain_text, 0);

  // A byte 0 in a name would cut its text short where a C string carries it
  // (a removal names the instance so): such names are not listed at all.
  if (std::memchr(instance_text, 0, static_cast<size_t>(instance_end - instance_text)) != nullptr ||
      std::memchr(type_text, 0, static_cast<size_t>(type_end - type_text)) != nullptr ||
      std::memchr(domain_text, 0, static_cast<size_t>(domain_end - domain_text)) != nullptr)
    return false;
  texts->instance.assign(instance_text, instance_end);
  texts->type.assign(type_text, type_end);
  texts->domain.assign(domain_text, domain_end);
  return true;
}

}  // namespace sorvalen
