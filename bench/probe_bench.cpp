// The probes that find devices gone (engine/devices.h), on the fake clock:
// N devices answer a browse; while all of them live and answer the probes,
// how many probes go out a second; then how long until one device that falls
// silent is listed as gone, and until all of them are when all fall silent.
// Prints a table; asserts nothing.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dns_builder.h"
#include "engine/engine.h"
#include "mdns/mdns.h"
#include "platform/interfaces_posix.h"
#include "platform/test_platform.h"
#include "wire/message_reader.h"

extern "C" const char ProgramName[] = "probe_bench";

namespace {

using sorvalen::test::Bytes;
using sorvalen::test::DnsMessage;

constexpr int32_t kStart = 1000000;
// Each phase lasts a few of the core's probe intervals, max(10 s, N / 8 s).
int32_t interval_ms(int count) {
  return std::max(10000, count * 125);
}

struct Device {
  mDNSAddr address{};
  std::string instance;
  bool live = true;
  int32_t removed = -1;
};

struct Bench {
  mDNS core{};
  mDNS_PlatformSupport platform{};
  std::vector<CacheEntity> cache;
  mdns::InterfaceSnapshot interfaces{};
  DNSQuestion browse{};
  std::vector<Device> devices;
  std::vector<int32_t> probe_times;
  std::vector<std::pair<size_t, Bytes>> answers;  // device, message to deliver
  int32_t now = kStart;
  bool answered_first = false;
};

std::string address_text(int i) {
  char text[64];
  std::snprintf(text, sizeof text, "fe80::1:0:%x", i + 1);
  return text;
}

Bytes announcement(const Device& d, uint16_t id, const std::vector<std::pair<std::string, uint16_t>>& qs) {
  DnsMessage msg(id, 0x8400);
  for (const auto& q : qs) {
    msg.question(q.first, q.second);
  }
  msg.answer("_ipp._tcp.local.", kDNSType_PTR, 4500, sorvalen::test::wire_name(d.instance));
  return msg.bytes();
}

void on_send(void* context, const mdns::SentMessage& sent) {
  auto* b = static_cast<Bench*>(context);
  if (sent.transport != mdns::Transport::kOneShot || sent.destination.type == mDNSAddrType_None) {
    return;
  }
  b->probe_times.push_back(b->now - kStart);
  for (size_t i = 0; i < b->devices.size(); ++i) {
    Device& d = b->devices[i];
    if (!d.live || std::memcmp(&d.address.ip, &sent.destination.ip, 16) != 0) {
      continue;
    }
    mdns::MessageParser parser(sent.data, sent.length);
    mdns::MessageHeader header;
    parser.read_header(header);
    std::vector<std::pair<std::string, uint16_t>> qs;
    mdns::ParsedQuestion q;
    while (qs.size() < header.qdcount && parser.next_question(q) == mdns::MessageParser::Result::kOk) {
      char text[MAX_ESCAPED_DOMAIN_NAME];
      ConvertDomainNameToCString_withescape(&q.name, text, '\\');
      qs.emplace_back(text, q.qtype);
    }
    b->answers.emplace_back(i, announcement(d, header.id, qs));
    b->answered_first |= i == 0;
  }
}

void on_browse(mDNS* const, DNSQuestion* q, const ResourceRecord* const rr, QC_result kind) {
  auto* b = static_cast<Bench*>(q->QuestionContext);
  if (kind != QC_rmv) {
    return;
  }
  char text[MAX_ESCAPED_DOMAIN_NAME];
  ConvertDomainNameToCString_withescape(&rr->rdata->u.name, text, '\\');
  for (Device& d : b->devices) {
    if (d.instance == text && d.removed < 0) {
      d.removed = b->now - kStart;
    }
  }
}

mdns::Arrival from(Bench& b, size_t device, mdns::Transport transport) {
  mdns::Arrival a{};
  a.source = b.devices[device].address;
  a.source_port.b[0] = 0x14;
  a.source_port.b[1] = 0xe9;
  a.interface_id = mdns::platform_interface_id_of(&b.core, "eth0");
  a.transport = transport;
  a.ttl = 255;
  return a;
}

void pass(Bench& b, size_t device = SIZE_MAX, const Bytes* message = nullptr,
          mdns::Transport transport = mdns::Transport::kMulticast) {
  mdns::engine_set_fake_clock(&b.core, b.now);
  mdns::engine_begin_pass(&b.core);
  if (message != nullptr) {
    const mdns::Arrival a = from(b, device, transport);
    mdns::engine_receive(&b.core, message->data(), message->size(), a);
  }
  mdns::engine_run_scheduled(&b.core);
  while (!b.answers.empty()) {
    const auto answer = b.answers.front();
    b.answers.erase(b.answers.begin());
    pass(b, answer.first, &answer.second, mdns::Transport::kOneShot);
  }
}

void run_until(Bench& b, int32_t t) {
  while (b.now - kStart < t) {
    pass(b);
    const int32_t wait = mdns::engine_time_to_next_event(&b.core, b.now);
    b.now += std::max<int32_t>(1, std::min<int32_t>(wait, kStart + t - b.now));
  }
}

// The most probes in any second from `from` on, and their rate.
void probe_rates(const Bench& b, int32_t from_ms, int32_t to_ms, int& most, double& per_second) {
  most = 0;
  int total = 0;
  for (size_t i = 0; i < b.probe_times.size(); ++i) {
    if (b.probe_times[i] < from_ms || b.probe_times[i] >= to_ms) {
      continue;
    }
    ++total;
    int n = 0;
    for (size_t j = i; j < b.probe_times.size() && b.probe_times[j] < b.probe_times[i] + 1000; ++j) {
      ++n;
    }
    most = std::max(most, n);
  }
  per_second = total * 1000.0 / (to_ms - from_ms);
}

void run(int count) {
  Bench b;
  b.cache.resize(static_cast<size_t>(count) * 2 + 100);
  mdns::InterfaceRecord& eth0 = b.interfaces.entries[b.interfaces.count++];
  mdns::interface_reset(eth0, "eth0", 2);
  mdns::interface_add_address(eth0, mdns::address_from_text("fe80::10"), 64);
  eth0.v6usable = true;
  mdns::platform_use_test_mode(&b.platform, &b.interfaces);
  mdns::platform_set_send_hook(&b.platform, on_send, &b);
  mDNS_Init(&b.core, &b.platform, b.cache.data(), static_cast<mDNSu32>(b.cache.size()), mDNSfalse, nullptr,
            nullptr);
  domainname type{};
  domainname domain{};
  MakeDomainNameFromDNSNameString(&type, "_ipp._tcp");
  MakeDomainNameFromDNSNameString(&domain, "local.");
  pass(b);
  mDNS_StartBrowse(&b.core, &b.browse, &type, &domain, mDNSInterface_Any, mDNSfalse, on_browse, &b);
  for (int i = 0; i < count; ++i) {
    Device d;
    d.address = mdns::address_from_text(address_text(i).c_str());
    d.instance = "Printer-" + std::to_string(i + 1) + "._ipp._tcp.local.";
    b.devices.push_back(d);
  }
  for (size_t i = 0; i < b.devices.size(); ++i) {
    const Bytes a = announcement(b.devices[i], 0, {});
    b.now += 1;
    pass(b, i, &a);
  }
  // All live, probed and answering.
  const int32_t settle = 4 * interval_ms(count);
  run_until(b, settle);
  int most = 0;
  double rate = 0;
  probe_rates(b, settle / 2, settle, most, rate);
  // The worst moment to fall silent: just after answering a probe.
  b.answered_first = false;
  while (!b.answered_first) {
    run_until(b, b.now - kStart + 1);
  }
  b.devices[0].live = false;
  const int32_t first_silent = b.now - kStart;
  run_until(b, first_silent + 2 * interval_ms(count) + 10000);
  const int32_t one = b.devices[0].removed < 0 ? -1 : b.devices[0].removed - first_silent;
  for (Device& d : b.devices) {
    d.live = false;
  }
  const int32_t silent = b.now - kStart;
  run_until(b, silent + interval_ms(count) + count * 300 + 10000);
  int gone = 0;
  int32_t last = 0;
  for (const Device& d : b.devices) {
    gone += d.removed >= 0 ? 1 : 0;
    last = std::max(last, d.removed - silent);
  }
  int most_all = 0;
  double rate_all = 0;
  probe_rates(b, 0, b.now - kStart, most_all, rate_all);
  std::printf("| %d | %.1f | %d | %.1f | %d of %d | %.1f | %d |\n", count, rate, most, one / 1000.0, gone,
              count, last / 1000.0, most_all);
  mDNS_StartExit(&b.core);
  mDNS_FinalExit(&b.core);
}

}  // namespace

int main(int argc, char** argv) {
  std::printf(
      "| devices | probes/s, all live | most in 1 s | one silent (just after a probe): gone after s | all "
      "silent: gone | last "
      "after s | most in 1 s, whole run |\n|---|---|---|---|---|---|---|\n");
  if (argc > 1) {
    for (int i = 1; i < argc; ++i) {
      run(std::atoi(argv[i]));
    }
    return 0;
  }
  for (int n : {10, 100, 1000}) {
    run(n);
  }
  return 0;
}
