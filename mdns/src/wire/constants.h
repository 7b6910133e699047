// The protocol's numbers, each defined once.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mdns {

constexpr uint16_t kMdnsPort = 5353;
constexpr uint16_t kDnsPort = 53;
constexpr size_t kMaxNameLength = 255;  // wire form, root label included

// Header flags.
constexpr uint16_t kFlagResponse = 0x8000;
constexpr uint16_t kFlagTruncated = 0x0200;
constexpr uint16_t kFlagRecursionDesired = 0x0100;
constexpr unsigned kRcodeNameError = 3;  // NXDOMAIN

// The top bit of a question's class asks for a unicast reply; of a record's,
// tells caches to flush older records of its set.
constexpr uint16_t kClassTopBit = 0x8000;

// Continuous querying (RFC 6762 section 5.2).
constexpr int32_t kFirstQueryMinDelayMs = 20;
constexpr int32_t kFirstQueryMaxDelayMs = 120;
constexpr int32_t kSecondQueryIntervalMs = 1000;
constexpr int32_t kMaxQueryIntervalMs = 60 * 60 * 1000;
// Questions due within this window share a packet.  Schedules leave this much
// slack above their minimum interval, so joining early never breaks it.
constexpr int32_t kQueryGroupingWindowMs = 100;

// Records (RFC 6762 sections 10.1 and 10.2).
constexpr int32_t kGoodbyeDelayMs = 1000;
constexpr int32_t kFlushGraceMs = 1000;
// Records with a shorter TTL get no refresh queries and simply expire:
// refreshing them would mean a query every few hundred milliseconds for each.
constexpr uint32_t kRefreshTtlFloorSeconds = 4;
// Longest TTL kept, so that expiry times stay within the millisecond clock's range.
constexpr uint32_t kMaxCachedTtlSeconds = 7 * 24 * 3600;

// Largest query payload: fits an Ethernet MTU under IPv6 and UDP headers.
constexpr size_t kMaxQueryPayload = 1440;

}  // namespace mdns
