// The name servers of a resolver configuration file (resolv.conf(5)).
#pragma once

#include <cstddef>

namespace mdns {

struct NameServer;

// Lines longer than this (without their newline) are ignored whole.
constexpr size_t kMaxResolvConfLine = 511;

// Reads the "nameserver ADDRESS" lines of the file at `path`, in order, up to
// `capacity` of them (a link-local IPv6 address may name its interface after
// '%'); returns how many were read, 0 when the file cannot be opened.
int read_resolv_conf(const char* path, NameServer* servers, int capacity);

}  // namespace mdns
