// Whole received messages into a live core: a browse whose callback starts and
// stops resolves, a fake clock that moves on, and scheduled work between inputs.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "engine/engine.h"
#include "mdns/mdns.h"
#include "platform/interfaces_posix.h"
#include "platform/test_platform.h"

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

mdns::InterfaceSnapshot g_interfaces;
DNSQuestion g_unicast;

void discard_send(void*, const mdns::SentMessage&) {}

void start_core() {
  mdns::InterfaceRecord& eth0 = g_interfaces.entries[g_interfaces.count++];
  mdns::interface_reset(eth0, "eth0", kIfIndex);
  mdns::interface_add_address(eth0, mdns::address_from_text("192.168.1.10"), 24);
  mdns::interface_add_address(eth0, mdns::address_from_text("fe80::10"), 64);
  eth0.v4usable = eth0.v6usable = true;
  mdns::platform_use_test_mode(&g_platform, &g_interfaces);
  const mDNSAddr server = mdns::address_from_text("192.0.2.53");
  const uint16_t port = 53;
  mdns::platform_test_set_name_servers(&g_platform, &server, &port, 1);
  mdns::platform_set_send_hook(&g_platform, discard_send, nullptr);
  mdns::engine_set_fake_clock(&g_core, g_now);
  mDNS_Init(&g_core, &g_platform, g_cache, kCacheEntries, mDNSfalse, nullptr, nullptr);
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
  MakeDomainNameFromDNSNameString(&domain, "example.test.");
  mDNS_StartBrowse(&g_core, &g_unicast, &type, &domain, mDNSInterface_Any, mDNSfalse, on_browse, nullptr);
}

// The unicast query the core has outstanding (the latest socket it opened).
int latest_dns_socket() {
  for (const mdns::UnicastQuery& u : mdns::core_of(&g_core).unicast) {
    if (u.stage != mdns::UnicastStage::kFree) {
      return u.fd;
    }
  }
  return -1;
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
  // The control byte: bit 7 the sender's family, bits 6-5 the socket it
  // arrives on (mDNS, one-shot, unicast DNS), bits 4-0 the time that passes.
  const uint8_t control = data[0];
  mdns::Arrival arrival{};
  if (control & 0x80) {
    arrival.source = mdns::address_from_text("fe80::20");
  } else {
    arrival.source = mdns::address_from_text("192.168.1.20");
  }
  arrival.source_port.b[0] = 0x14;
  arrival.source_port.b[1] = 0xe9;
  arrival.interface_id = mdns::platform_interface_id_of(&g_core, "eth0");
  const int path = (control >> 5) & 3;
  arrival.transport = path == 1 ? mdns::Transport::kOneShot : mdns::Transport::kMulticast;
  if (path == 2) {
    // Read from the query's socket as the event loop reads it, in a pass of its own.
    mdns::platform_test_deliver_dns(&g_core, latest_dns_socket(), mdns::address_from_text("192.0.2.53"), 53,
                                    data + 1, size - 1);
    mDNSPosixProcessFDSet(&g_core, nullptr);
  } else {
    mdns::engine_begin_pass(&g_core);
    mdns::engine_receive(&g_core, data + 1, size - 1, arrival);
    mdns::engine_run_scheduled(&g_core);
  }

  // Let time pass: up to about two minutes per input, with the passes in between.
  const int32_t step = (control & 0x1F) * 4000;
  const int32_t target = later(g_now, step);
  for (int pass = 0; pass < 64; ++pass) {
    mdns::engine_begin_pass(&g_core);
    mdns::engine_run_scheduled(&g_core);
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
  mdns::engine_begin_pass(&g_core);
  mdns::engine_run_scheduled(&g_core);
  if (mdns::core_of(&g_core).cache_used > kCacheEntries) {
    __builtin_trap();
  }
  return 0;
}
