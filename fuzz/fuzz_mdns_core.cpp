// Whole received messages into a live core: a browse whose callback starts and
// stops resolves, a fake clock that moves on, and scheduled work between inputs.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "engine.h"
#include "mdns/mdns.h"
#include "platform.h"

extern "C" const char ProgramName[] = "fuzz_mdns_core";

namespace {

constexpr mDNSu32 kCacheEntries = 64;  // small, so that eviction runs often
constexpr int kResolves = 6;
constexpr uint32_t kIfIndex = 2;

mDNS g_core;
mDNS_PlatformSupport g_platform;
CacheEntity g_cache[kCacheEntries];
DNSQuestion g_browse;
DNSQuestion g_address;
ServiceInfoQuery g_queries[kResolves];
ServiceInfo g_infos[kResolves];
int g_next_slot = 0;
int32_t g_now = 1000;

void on_resolved(mDNS* const m, ServiceInfoQuery* query) {
  // Touch what a caller reads, and sometimes stop inside the callback.
  volatile mDNSu8 sink = query->info->ip.ip.v4.b[0] ^ query->info->port.b[1];
  (void)sink;
  if (query->info->TXTlen > mDNS_MaxTXTInfo) {
    __builtin_trap();
  }
  if (query->info->port.b[0] == 0xFF) {
    mDNS_StopResolveService(m, query);
  }
}

void on_browse(mDNS* const m, DNSQuestion*, const ResourceRecord* const answer, QC_result kind) {
  if (kind != QC_add) {
    return;
  }
  const int slot = g_next_slot;
  g_next_slot = (g_next_slot + 1) % kResolves;
  mDNS_StopResolveService(m, &g_queries[slot]);
  g_infos[slot].name = answer->rdata->u.name;
  g_infos[slot].InterfaceID = answer->InterfaceID;
  mDNS_StartResolveService(m, &g_queries[slot], &g_infos[slot], on_resolved, nullptr);
}

void on_answer(mDNS* const, DNSQuestion*, const ResourceRecord* const answer, QC_result) {
  volatile mDNSu16 sink = answer->rdata->length;
  (void)sink;
}

void discard_send(void*, mDNSInterfaceID, int, const uint8_t*, size_t) {}

void start_core() {
  g_platform.test_mode = 1;
  mdns::platform_test_add_interface(&g_platform, "eth0", kIfIndex, "192.168.1.10", "255.255.255.0");
  mdns::platform_test_add_address(&g_platform, kIfIndex, "fe80::10", 64);
  mDNS_Init(&g_core, &g_platform, g_cache, kCacheEntries, mDNSfalse, nullptr, nullptr);
  mdns::platform_set_send_hook(&g_platform, discard_send, nullptr);
  mdns::engine_set_fake_clock(&g_core, g_now);
  domainname type{};
  domainname domain{};
  MakeDomainNameFromDNSNameString(&type, "_http._tcp");
  MakeDomainNameFromDNSNameString(&domain, "local.");
  mDNS_StartBrowse(&g_core, &g_browse, &type, &domain, mDNSInterface_Any, mDNSfalse, on_browse, nullptr);
  MakeDomainNameFromDNSNameString(&g_address.qname, "host.local.");
  g_address.qtype = kDNSType_ANY;
  g_address.qclass = kDNSClass_IN;
  g_address.QuestionCallback = on_answer;
  mDNS_StartQuery(&g_core, &g_address);
}

// The clock wraps, as the real one does after about 24 days.
int32_t later(int32_t t, int32_t ms) {
  return static_cast<int32_t>(static_cast<uint32_t>(t) + static_cast<uint32_t>(ms));
}
int32_t diff(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

}  // namespace

// Input: one control byte (clock step and sender), then the datagram.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool started = false;
  if (!started) {
    start_core();
    started = true;
  }
  if (size < 1) {
    return 0;
  }
  const uint8_t control = data[0];
  mDNSAddr source{};
  if (control & 0x80) {
    source.type = mDNSAddrType_IPv6;
    source.ip.v6.b[0] = 0xfe;
    source.ip.v6.b[1] = 0x80;
    source.ip.v6.b[15] = 0x20;
  } else {
    source.type = mDNSAddrType_IPv4;
    const uint8_t v4[4] = {192, 168, 1, 20};
    std::memcpy(source.ip.v4.b, v4, 4);
  }
  mDNSIPPort port{};
  port.b[0] = 0x14;
  port.b[1] = 0xe9;
  mdns::engine_receive(&g_core, data + 1, size - 1, source, port, mdns::platform_interface_id(kIfIndex),
                       g_now);

  // Let time pass: up to about two minutes per input, with the passes in between.
  const int32_t step = (control & 0x7F) * 1000;
  const int32_t target = later(g_now, step);
  for (int pass = 0; pass < 64; ++pass) {
    mdns::engine_run_scheduled(&g_core, g_now);
    const int32_t wait = mdns::engine_time_to_next_event(&g_core, g_now);
    if (wait < 0) {
      __builtin_trap();
    }
    if (diff(later(g_now, wait > 0 ? wait : 1), target) > 0) {
      break;
    }
    g_now = later(g_now, wait > 0 ? wait : 1);
    mdns::engine_set_fake_clock(&g_core, g_now);
  }
  g_now = target;
  mdns::engine_set_fake_clock(&g_core, g_now);
  mdns::engine_run_scheduled(&g_core, g_now);
  if (g_core.CacheUsed > kCacheEntries) {
    __builtin_trap();
  }
  return 0;
}
