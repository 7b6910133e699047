// The core's receive path: a typical announcement (PTR answer with SRV, TXT, A and
// AAAA additionals) through parse, cache update and browse callback, in test
// mode with the fake clock.  Also counts heap allocations on that path.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "mdns/mdns.h"
#include "platform/interfaces_posix.h"
#include "platform/test_platform.h"

extern "C" const char ProgramName[] = "receive_bench";

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void __libc_free(void*);

namespace {
std::atomic<long> g_allocations{0};
}

// Every heap allocation of the process is counted.
extern "C" void* malloc(size_t n) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(n, size);
}
extern "C" void* realloc(void* p, size_t n) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, n);
}
extern "C" void free(void* p) {
  __libc_free(p);
}
void* operator new(size_t n) {
  void* p = malloc(n == 0 ? 1 : n);
  if (p == nullptr) {
    throw std::bad_alloc();
  }
  return p;
}
void operator delete(void* p) noexcept {
  free(p);
}
void operator delete(void* p, size_t) noexcept {
  free(p);
}

namespace {

constexpr mDNSu32 kCacheEntries = 500;
constexpr uint32_t kIfIndex = 2;

mDNS g_core;
mDNS_PlatformSupport g_platform;
CacheEntity g_cache[kCacheEntries];
DNSQuestion g_browse;
long g_events = 0;

void push16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

void push_name(std::vector<uint8_t>& out, const std::string& dotted) {
  size_t start = 0;
  while (start < dotted.size()) {
    const size_t dot = dotted.find('.', start);
    const std::string label = dotted.substr(start, dot - start);
    out.push_back(static_cast<uint8_t>(label.size()));
    out.insert(out.end(), label.begin(), label.end());
    start = dot + 1;
  }
  out.push_back(0);
}

void push_record(std::vector<uint8_t>& out, const std::string& name, uint16_t type, uint16_t cls,
                 uint32_t ttl, const std::vector<uint8_t>& data) {
  push_name(out, name);
  push16(out, type);
  push16(out, cls);
  push16(out, static_cast<uint16_t>(ttl >> 16));
  push16(out, static_cast<uint16_t>(ttl));
  push16(out, static_cast<uint16_t>(data.size()));
  out.insert(out.end(), data.begin(), data.end());
}

// What a printer typically sends: a PTR answer and four additional records.
std::vector<uint8_t> announcement(int n) {
  const std::string instance = "Office Printer " + std::to_string(n) + "._ipp._tcp.local.";
  const std::string host = "printer-" + std::to_string(n) + ".local.";
  std::vector<uint8_t> out = {0, 0, 0x84, 0, 0, 0, 0, 1, 0, 0, 0, 4};
  std::vector<uint8_t> ptr;
  push_name(ptr, instance);
  push_record(out, "_ipp._tcp.local.", kDNSType_PTR, 1, 4500, ptr);
  std::vector<uint8_t> srv = {0, 0, 0, 0, 0x02, 0x77};
  push_name(srv, host);
  push_record(out, instance, kDNSType_SRV, 0x8001, 120, srv);
  const std::string txt = "\x09txtvers=1\x0fty=Office Laser\x0cpdl=image/pwg";
  push_record(out, instance, kDNSType_TXT, 0x8001, 4500, std::vector<uint8_t>(txt.begin(), txt.end()));
  push_record(out, host, kDNSType_A, 0x8001, 120, {192, 168, 1, static_cast<uint8_t>(20 + n % 200)});
  std::vector<uint8_t> v6 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(n)};
  push_record(out, host, kDNSType_AAAA, 0x8001, 120, v6);
  return out;
}

void count_event(mDNS* const, DNSQuestion*, const ResourceRecord* const, QC_result) {
  ++g_events;
}

int32_t g_now = 1000000;
mdns::InterfaceSnapshot g_interfaces;
std::vector<DNSQuestion> g_questions;

mdns::Arrival multicast_from(const char* source) {
  mdns::Arrival arrival{};
  arrival.source = mdns::address_from_text(source);
  arrival.source_port.b[0] = 0x14;
  arrival.source_port.b[1] = 0xe9;
  arrival.interface_id = mdns::platform_interface_id_of(&g_core, "eth0");
  arrival.transport = mdns::Transport::kMulticast;
  return arrival;
}

void start_core(int questions) {
  std::memset(&g_platform, 0, sizeof g_platform);
  g_interfaces = mdns::InterfaceSnapshot{};
  mdns::InterfaceRecord& eth0 = g_interfaces.entries[g_interfaces.count++];
  mdns::interface_reset(eth0, "eth0", kIfIndex);
  mdns::interface_add_address(eth0, mdns::address_from_text("192.168.1.10"), 24);
  eth0.v4usable = true;
  mdns::platform_use_test_mode(&g_platform, &g_interfaces);
  mdns::engine_set_fake_clock(&g_core, g_now);
  mDNS_Init(&g_core, &g_platform, g_cache, kCacheEntries, mDNSfalse, nullptr, nullptr);
  domainname type{};
  domainname domain{};
  MakeDomainNameFromDNSNameString(&type, "_ipp._tcp");
  MakeDomainNameFromDNSNameString(&domain, "local.");
  std::memset(&g_browse, 0, sizeof g_browse);
  mDNS_StartBrowse(&g_core, &g_browse, &type, &domain, mDNSInterface_Any, mDNSfalse, count_event, nullptr);
  // Questions for other hosts, answered and resting, as the address questions
  // of completed resolves are: a pass must not cost in proportion to them.
  g_questions.assign(static_cast<size_t>(questions), DNSQuestion{});
  for (int i = 0; i < questions; ++i) {
    DNSQuestion& q = g_questions[static_cast<size_t>(i)];
    const std::string host = "other-host-" + std::to_string(i) + ".local.";
    MakeDomainNameFromDNSNameString(&q.qname, host.c_str());
    q.qtype = kDNSType_A;
    q.qclass = kDNSClass_IN;
    q.QuestionCallback = count_event;
    mDNS_StartQuery(&g_core, &q);
    std::vector<uint8_t> answer = {0, 0, 0x84, 0, 0, 0, 0, 1, 0, 0, 0, 0};
    push_record(answer, host, kDNSType_A, 0x8001, 120,
                {10, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
    mdns::engine_begin_pass(&g_core);
    mdns::engine_receive(&g_core, answer.data(), answer.size(), multicast_from("192.168.1.30"));
    mdns::engine_run_scheduled(&g_core);
  }
  mdns::engine_begin_pass(&g_core);
  mdns::engine_run_scheduled(&g_core);
}

void stop_core() {
  mDNS_StartExit(&g_core);
  mDNS_FinalExit(&g_core);
}

void run_receive(benchmark::State& state, const std::vector<std::vector<uint8_t>>& messages, int questions,
                 bool with_passes) {
  start_core(questions);
  const mdns::Arrival arrival = multicast_from("192.168.1.20");
  size_t i = 0;
  const long allocations_before = g_allocations.load();
  for (auto _ : state) {
    const auto& msg = messages[i];
    i = i + 1 == messages.size() ? 0 : i + 1;
    mdns::engine_set_fake_clock(&g_core, ++g_now);
    mdns::engine_begin_pass(&g_core);
    mdns::engine_receive(&g_core, msg.data(), msg.size(), arrival);
    if (with_passes) {
      mdns::engine_run_scheduled(&g_core);  // as a busy loop runs one pass per response
    }
  }
  const long allocations = g_allocations.load() - allocations_before;
  state.counters["allocations"] = static_cast<double>(allocations);
  state.counters["responses/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["evicted"] = mdns::engine_counters(&g_core).records_evicted;
  stop_core();
}

std::vector<std::vector<uint8_t>> new_instances() {
  std::vector<std::vector<uint8_t>> messages;
  for (int n = 0; n < 1000; ++n) {
    messages.push_back(announcement(n));
  }
  return messages;
}

void BM_ReceiveNewInstances(benchmark::State& state) {
  run_receive(state, new_instances(), 0, false);
}
BENCHMARK(BM_ReceiveNewInstances);

void BM_ReceiveRefresh(benchmark::State& state) {
  run_receive(state, {announcement(7)}, 0, false);
}
BENCHMARK(BM_ReceiveRefresh);

// Responses with a pass after each, beside N other answered questions: the
// cost per response must not grow with N.
void BM_ReceiveAndPassBesideQuestions(benchmark::State& state) {
  run_receive(state, new_instances(), static_cast<int>(state.range(0)), true);
}
BENCHMARK(BM_ReceiveAndPassBesideQuestions)->Arg(20)->Arg(2000)->Arg(20000);

}  // namespace

int main(int argc, char** argv) {
  std::printf("sizeof(mDNS)                 %zu bytes\n", sizeof(mDNS));
  std::printf("sizeof(DNSQuestion)          %zu bytes\n", sizeof(DNSQuestion));
  std::printf("sizeof(ServiceInfoQuery)     %zu bytes\n", sizeof(ServiceInfoQuery));
  std::printf("sizeof(mDNS_PlatformSupport) %zu bytes\n", sizeof(mDNS_PlatformSupport));
  std::printf("sizeof(CacheEntity)          %zu bytes\n", sizeof(CacheEntity));
  std::printf("500 * sizeof(CacheEntity)    %zu bytes (%.1f KiB)\n", 500 * sizeof(CacheEntity),
              500.0 * sizeof(CacheEntity) / 1024.0);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
