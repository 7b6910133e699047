#include "browser/names.h"

#include <cstring>

namespace sorvalen::browser {

namespace {

// Offset of the label after the first `count` labels, or -1.
int offset_after(const domainname& name, int count) {
  int at = 0;
  for (int i = 0; i < count; ++i) {
    if (at >= MAX_DOMAIN_NAME || name.c[at] == 0)
      return -1;
    at += 1 + name.c[at];
  }
  return at < MAX_DOMAIN_NAME ? at : -1;
}

void append_label_text(const domainname& name, int at, std::string* text) {
  for (int i = 1; i <= name.c[at]; ++i) {
    const char c = static_cast<char>(name.c[at + i]);
    if (c == '.' || c == '\\')
      *text += '\\';
    *text += c;
  }
  *text += '.';
}

// The labels from `begin` (an offset) up to `count` of them, or all (-1).
std::string labels_text(const domainname& name, int begin, int count) {
  std::string text;
  for (int at = begin; at >= 0 && at < MAX_DOMAIN_NAME && name.c[at] != 0 && count != 0; --count) {
    append_label_text(name, at, &text);
    at += 1 + name.c[at];
  }
  return text;
}

}  // namespace

bool name_from_text(const std::string& text, domainname* name) {
  if (text.empty() || text == "." || text.find('\0') != std::string::npos)
    return false;
  return MakeDomainNameFromDNSNameString(name, text.c_str()) != nullptr;
}

bool joined_name(const std::string& head, const std::string& tail, domainname* name) {
  std::string text = head;
  if (!text.empty() && text.back() != '.')
    text += '.';
  return !head.empty() && !tail.empty() && name_from_text(text + tail, name);
}

std::string text_of(const domainname& name) {
  return labels_text(name, 0, -1);
}

std::string first_label(const domainname& name) {
  return std::string(reinterpret_cast<const char*>(name.c + 1), name.c[0]);
}

std::string text_after(const domainname& name, int count) {
  const int at = offset_after(name, count);
  return at < 0 ? std::string() : labels_text(name, at, -1);
}

std::string text_before(const domainname& name, int count) {
  return labels_text(name, 0, count);
}

int labels_in(const domainname& name) {
  int count = 0;
  for (int at = 0; at < MAX_DOMAIN_NAME && name.c[at] != 0; at += 1 + name.c[at])
    ++count;
  return count;
}

bool same_name(const domainname& a, const domainname& b) {
  const int length = offset_after(a, labels_in(a));
  if (length < 0 || length != offset_after(b, labels_in(b)))
    return false;
  const auto lower = [](uint8_t c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
  for (int i = 0; i < length; ++i) {
    if (lower(a.c[i]) != lower(b.c[i]))
      return false;
  }
  return true;
}

std::string interface_name_of(const mDNS* m, mDNSInterfaceID id) {
  if (id == mDNSInterface_Any)
    return "";
  for (const NetworkInterfaceInfo* info = m->HostInterfaces; info != nullptr; info = info->next) {
    if (info->InterfaceID == id)
      return std::string(info->ifname, strnlen(info->ifname, sizeof info->ifname));
  }
  return "";
}

bool interface_id_of(const mDNS* m, const std::string& name, mDNSInterfaceID* id) {
  for (const NetworkInterfaceInfo* info = m->HostInterfaces; info != nullptr; info = info->next) {
    if (name == std::string(info->ifname, strnlen(info->ifname, sizeof info->ifname))) {
      *id = info->InterfaceID;
      return true;
    }
  }
  return false;
}

}  // namespace sorvalen::browser
