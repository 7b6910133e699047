#include "platform/resolv_conf.h"

#include <net/if.h>

#include <cstdio>
#include <cstring>

#include "platform/interfaces_posix.h"
#include "platform/platform.h"
#include "wire/constants.h"

namespace mdns {

namespace {

// Reads one line, without its newline, into `line`; false at the end of the
// file.  A line longer than kMaxResolvConfLine is read to its end and comes
// back empty, so that its tail is never taken for a line of its own.
bool read_line(FILE* file, char (&line)[kMaxResolvConfLine + 1]) {
  size_t length = 0;
  bool too_long = false;
  int c = std::getc(file);
  if (c == EOF) {
    return false;
  }
  for (; c != EOF && c != '\n'; c = std::getc(file)) {
    if (length < kMaxResolvConfLine) {
      line[length++] = static_cast<char>(c);
    } else {
      too_long = true;
    }
  }
  line[too_long ? 0 : length] = '\0';
  return true;
}

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// The next blank-separated word of `*text` (moved past it); empty at the end.
char* next_word(char** text) {
  char* start = *text;
  while (is_blank(*start)) {
    ++start;
  }
  char* end = start;
  while (*end != '\0' && !is_blank(*end)) {
    ++end;
  }
  *text = *end != '\0' ? end + 1 : end;
  *end = '\0';
  return start;
}

// "nameserver ADDRESS[%INTERFACE] ..." (what follows the address is ignored).
bool parse_name_server(char* line, NameServer& out) {
  if (std::strcmp(next_word(&line), "nameserver") != 0) {
    return false;
  }
  char* address = next_word(&line);
  out = NameServer{};
  out.port = kDnsPort;
  char* zone = std::strchr(address, '%');  // a link-local IPv6 server names its interface
  if (zone != nullptr) {
    *zone = '\0';
    out.scope = if_nametoindex(zone + 1);
  }
  out.address = address_from_text(address);
  return out.address.type != mDNSAddrType_None;
}

}  // namespace

int read_resolv_conf(const char* path, NameServer* servers, int capacity) {
  FILE* file = std::fopen(path, "re");
  if (file == nullptr) {
    return 0;
  }
  int n = 0;
  char line[kMaxResolvConfLine + 1];
  while (n < capacity && read_line(file, line)) {
    n += parse_name_server(line, servers[n]) ? 1 : 0;
  }
  std::fclose(file);
  return n;
}

}  // namespace mdns
