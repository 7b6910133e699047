// The resolve handler: turns each resolved address into a device record.
#include <cstring>

#include "search/service_name_texts.h"
#include "sorvalen/mdns_search_posix.h"

namespace sorvalen {

namespace {

uint16_t host_order_port(const mDNSIPPort& port) {
  return static_cast<uint16_t>(port.b[0] * 256 + port.b[1]);
}

void record_ipv4(const ServiceInfo& info, ServiceNameTexts texts) {
  IPAddressV4 record;
  // Stays in network order: the bytes are copied as they came.
  std::memcpy(&record.address, info.ip.ip.v4.b, sizeof record.address);
  record.port = host_order_port(info.port);
  record.name = std::move(texts.instance);
  record.type = std::move(texts.type);
  record.domain = std::move(texts.domain);
  MDNSSearch::AddToAddressList(std::move(record));
}

void record_ipv6(const ServiceInfo& info, ServiceNameTexts texts) {
  IPAddressV6 record;
  for (int group = 0; group < 8; ++group) {
    record.address[group] =
        static_cast<uint16_t>(info.ip.ip.v6.b[2 * group] * 256 + info.ip.ip.v6.b[2 * group + 1]);
  }
  record.port = host_order_port(info.port);
  record.name = std::move(texts.instance);
  record.type = std::move(texts.type);
  record.domain = std::move(texts.domain);
  MDNSSearch::AddToAddressV6List(std::move(record));
}

// Every result is recorded, also when an equal record is listed already.
void handle_resolve_result(const ServiceInfo& info) {
  if (info.ip.type != mDNSAddrType_IPv4 && info.ip.type != mDNSAddrType_IPv6)
    return;
  ServiceNameTexts texts;
  if (!split_service_name(info.name, &texts))
    return;
  if (info.ip.type == mDNSAddrType_IPv4) {
    record_ipv4(info, std::move(texts));
  } else {
    record_ipv6(info, std::move(texts));
  }
}

}  // namespace

void MDNSSearchPosix::ResolveCallback(mDNS* const /*m*/, ServiceInfoQuery* query) {
  if (query == nullptr || query->info == nullptr)
    return;
  // Called by the core as a plain C function: a failure drops this result.
  try {
    handle_resolve_result(*query->info);
  } catch (...) {
  }
}

}  // namespace sorvalen
