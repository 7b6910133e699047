// Whole searches on virtual LANs, run inside the querier's namespace, as an
// application sees them in the lists: devices that answer with avahi-daemon
// (which also answers a reverse lookup), and a real DNS server (BIND 9).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "netns_scope.h"
#include "sorvalen/dns_reverse_lookup.h"
#include "sorvalen/mdns_search_posix.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

using Endpoints = std::multiset<std::string>;
using EndpointSet = std::set<std::string>;

// Every record of both lists as "NAME TYPEDOMAIN PORT ADDRESS", read under the lock.
template <typename Set = Endpoints>
Set endpoints() {
  Set out;
  char text[INET6_ADDRSTRLEN] = {};
  const auto add = [&](const auto& r, int family, const void* address) {
    out.insert(r.name + " " + r.type + r.domain + " " + std::to_string(r.port) + " " +
               inet_ntop(family, address, text, sizeof text));
  };
  std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
  for (const IPAddressV4& r : MDNSSearch::address_list_)
    add(r, AF_INET, &r.address);
  for (const IPAddressV6& r : MDNSSearch::addressV6_list_) {
    uint16_t groups[8];
    for (int i = 0; i < 8; ++i)
      groups[i] = htons(r.address[i]);
    add(r, AF_INET6, groups);
  }
  return out;
}

bool wait_until(const std::function<bool()>& condition, int seconds = 20) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return condition();
}

std::set<std::string> entries_of(const char* folder) {
  std::set<std::string> entries;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    entries.insert(entry.path().filename());
  return entries;
}

// LAN 1: the querier's eth0, "dev" and "attacker"; LAN 2: its eth1 and "far".
TEST(SearchOnLan, WhatAnApplicationSeesThroughASearchsLife) {
  SV_REQUIRE_VIRTUAL_LAN();
  const std::string host_interfaces = run_command({"ip", "-br", "addr", "show"}).out;
  VirtualLan lan;
  lan.add_lan();
  lan.add_lan();
  lan.add_host("querier", {1, 2});
  lan.add_host("dev", {1});
  lan.add_host("attacker", {1});
  lan.add_host("far", {2});
  lan.start_avahi("dev", {{"Living Room TV", "_http._tcp", 8080, {"path=/"}},
                          {"Kitchen Speaker", "_http._tcp", 80, {}},
                          {"Shell Box", "_ssh._tcp", 22, {}}});
  lan.start_avahi("far", {{"Office Printer", "_http._tcp", 631, {}}});
  ASSERT_EQ(run_command({"ip", "-br", "addr", "show"}).out, host_interfaces) << "the LAN reaches the host";
  const std::string dev4 = lan.host_ipv4("dev"), dev6 = lan.host_ipv6_link_local("dev");
  const std::string far4 = lan.host_ipv4("far"), far6 = lan.host_ipv6_link_local("far");
  const std::string tv = "Living Room TV _http._tcp.local. 8080 ", tv4 = tv + dev4;
  const std::string speaker = "Kitchen Speaker _http._tcp.local. 80 ";
  const std::string printer = "Office Printer _http._tcp.local. 631 ", printer6 = printer + far6;
  const std::string shell4 = "Shell Box _ssh._tcp.local. 22 " + dev4;
  NetnsScope scope(lan.netns("querier"));
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());
  ASSERT_TRUE(search->Init());

  // The time limit ends the loop after 2 to about 3 seconds of whole-second clock.
  ASSERT_TRUE(search->Start(",", "_http._tcp", "local.", 2, ""));
  ASSERT_TRUE(wait_until([&] { return !search->GetRunning(); }, 15));

  // Only an exact interface name is taken, and it limits the search to its link.
  for (const char* name : {"eth9", "ETH1", "eth", "eth1 "})
    EXPECT_FALSE(search->Start(",", "_http._tcp", "local.", 0, name)) << name;
  ASSERT_TRUE(search->Start("Office", "_http._tcp", "local.", 0, "eth1"));
  const EndpointSet far = {printer + far4, printer6};
  EXPECT_TRUE(wait_until([&] { return endpoints<EndpointSet>() == far; }));
  ASSERT_TRUE(search->Start("Living", "_http._tcp", "local.", 0, "eth1"));
  std::this_thread::sleep_for(std::chrono::seconds(3));
  EXPECT_TRUE(endpoints().empty());

  // Every link's devices, with their addresses in their byte orders.
  ASSERT_TRUE(search->Start(",", "_http._tcp", "local.", 0, ""));
  const EndpointSet all = {tv4, tv + dev6, speaker + dev4, speaker + dev6, printer + far4, printer6};
  ASSERT_TRUE(wait_until([&] { return endpoints<EndpointSet>() == all; }))
      << ::testing::PrintToString(endpoints());

  // Start while searching begins a new search with emptied lists; Destroy
  // while it runs stops it and keeps them.
  ASSERT_TRUE(search->Start(",", "_ssh._tcp", "local.", 0, ""));
  EXPECT_EQ(endpoints().count(tv4), 0u);
  ASSERT_TRUE(wait_until([&] { return endpoints().count(shell4) > 0; }));
  search->Destroy();
  EXPECT_FALSE(search->GetRunning());
  EXPECT_FALSE(search->Start(",", "_http._tcp", "local.", 0, "")) << "no core after Destroy";
  EXPECT_FALSE(search->RefreshInterfaces());
  EXPECT_GT(endpoints().count(shell4), 0u);
  ASSERT_TRUE(search->Init());
  EXPECT_TRUE(search->RefreshInterfaces());

  // With the devices' records in the core's cache each search starts resolves
  // at once: Stop must cancel and free them all, and end and join the loop
  // thread, but keep the lists.  The first cycle also lets a sanitizer runtime
  // start its helpers.
  std::set<std::string> threads_before;
  size_t descriptors_before = 0;
  for (int cycle = 0; cycle < 4; ++cycle) {
    ASSERT_TRUE(search->Start(",", "_http._tcp", "local.", 0, ""));
    ASSERT_TRUE(wait_until([&] { return endpoints().count(tv4) > 0 && endpoints().count(printer6) > 0; }));
    if (cycle == 1) {
      // Refreshes asked for from another thread over several passes: the
      // loop does them itself, so ThreadSanitizer sees one thread in the core.
      int taken = 0;
      std::thread application([&] {
        for (int i = 0; i < 60; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
          taken += search->RefreshInterfaces() ? 1 : 0;
      });
      application.join();
      EXPECT_EQ(taken, 60);
    }
    search->Stop();
    search->Stop();
    EXPECT_TRUE(sinfo_list.empty());
    EXPECT_GT(endpoints().count(tv4), 0u);
    if (cycle == 0) {
      threads_before = entries_of("/proc/self/task");
      descriptors_before = entries_of("/proc/self/fd").size();
    }
  }

  // A failed wait ends the loop like the time limit: here its select is
  // interrupted by a signal whose handler does not restart it.  A signal that
  // lands outside select is absorbed, so it is sent again (bounded).
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  ASSERT_TRUE(search->Start(",", "_http._tcp", "local.", 0, ""));
  std::set<std::string> loop_thread = entries_of("/proc/self/task");
  for (const std::string& tid : threads_before)
    loop_thread.erase(tid);
  for (int i = 0; i < 5000 && search->GetRunning(); ++i) {
    for (const std::string& tid : loop_thread)
      syscall(SYS_tgkill, getpid(), std::stoi(tid), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_FALSE(search->GetRunning());
  search->Stop();
  EXPECT_EQ(entries_of("/proc/self/task"), threads_before);
  EXPECT_EQ(entries_of("/proc/self/fd").size(), descriptors_before);

  // The reverse lookup, sharing this LAN: avahi-daemon answers for its own service.
  std::promise<std::string> outcome;
  DNSReverseLookup* lookup = DNSReverseLookup::CreateDNSReverseLookup();
  lookup->connect([&outcome](unsigned short id, bool ok, IPAddressV4 record) {
    char address[INET_ADDRSTRLEN] = {};
    outcome.set_value(std::to_string(id) + (ok ? " ok " : " failed ") +
                      inet_ntop(AF_INET, &record.address, address, sizeof address) + ":" +
                      std::to_string(record.port) + " " + record.name);
  });
  ASSERT_TRUE(lookup->Init());
  ASSERT_TRUE(lookup->Lookup(0x2121, dev4, "_ssh._tcp.local"));
  std::future<std::string> arrived = outcome.get_future();
  arrived.wait_for(std::chrono::seconds(20));
  lookup->Dispose();  // ends a lookup still waiting, with a failed outcome
  EXPECT_EQ(arrived.get(), "8481 ok " + dev4 + ":22 Shell Box._ssh._tcp.local");

  // A device with 2,000 instances is listed whole; then a burst of 600 unique,
  // well-formed PTRs of the browsed type with a 1-week TTL (bench/mdns_attack.py)
  // does not blind the search to a device announced after it.
  lan.command({"add-services", "dev", "Unit", "_sorvmany._tcp", "9000", "2000"});
  Endpoints units;
  for (int n = 1; n <= 2000; ++n)
    units.insert({"Unit " + std::to_string(n) + " _sorvmany._tcp.local. 9000 " + dev4,
                  "Unit " + std::to_string(n) + " _sorvmany._tcp.local. 9000 " + dev6});
  ASSERT_TRUE(search->Start(",", "_sorvmany._tcp", "local.", 0, ""));
  EXPECT_TRUE(wait_until([] { return endpoints().size() >= 4000; }, 60)) << endpoints().size() << " listed";
  std::this_thread::sleep_for(std::chrono::seconds(3));  // late duplicates would show by now
  EXPECT_TRUE(endpoints() == units) << endpoints().size() << " listed";

  ASSERT_TRUE(search->Start("camera", "_sorvflood._tcp", "local.", 0, ""));
  const CommandResult burst = lan.exec("attacker", {"/usr/bin/python3", SORVALEN_ATTACK_TOOL, "ptr-burst",
                                                    "--type", "_sorvflood._tcp", "--count", "600"});
  ASSERT_TRUE(burst.ok()) << burst.err;
  std::this_thread::sleep_for(std::chrono::seconds(10));
  lan.add_service("dev", {"Door Camera", "_sorvflood._tcp", 554, {}});
  const std::string camera = "Door Camera _sorvflood._tcp.local. 554 ";
  const EndpointSet cameras = {camera + dev4, camera + dev6};
  EXPECT_TRUE(wait_until([&] { return endpoints<EndpointSet>() == cameras; }, 15))
      << ::testing::PrintToString(endpoints());
}

// A search of example.test. over unicast DNS: the querier's resolver file
// names the DNS server as its only name server.  One type's answer needs TCP.
TEST(SearchOnLan, FindsTheZonesServicesOverUnicastDnsAndFollowsAReload) {
  SV_REQUIRE_VIRTUAL_LAN("named");
  constexpr int kTtlSeconds = 4;
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("dns", {1});
  // A BIND 9 server for the zone; once it runs, each change returns when it is served.
  lan.command({"dns-address", "dns", "printer", "198.51.100.50", "2001:db8::50"});
  lan.command({"dns-address", "dns", "camera", "198.51.100.60", "2001:db8::60"});
  lan.command({"dns-service", "dns", "Office Printer", "_http._tcp", "631", "printer"});
  lan.command({"dns-service", "dns", "Printer Admin", "_http._tcp", "80", "printer"});
  lan.command({"dns-service", "dns", "Door Camera", "_http._tcp", "8554", "camera"});
  // A type whose PTR answer does not fit 512 bytes: the server sets TC over
  // UDP and the names come only over TCP.
  EndpointSet shelves;
  for (int n = 1; n <= 12; ++n) {
    const std::string name = "Archive Shelf " + std::to_string(n) + " on the Second Floor of the East Wing";
    lan.command({"dns-service", "dns", name, "_sorvbig._tcp", std::to_string(9000 + n), "printer"});
    for (const char* address : {"198.51.100.50", "2001:db8::50"})
      shelves.insert(name + " _sorvbig._tcp.example.test. " + std::to_string(9000 + n) + " " + address);
  }
  // More instances of one type than the search's cache holds, ten on each host
  // (the server sets max-records-per-type to let them be served).
  constexpr int kMany = 600;
  lan.command({"dns-services", "dns", "Device", "_sorvmany._tcp", std::to_string(kMany), "10"});
  lan.command({"start-dns", "dns", "--zone", "example.test.", "--ttl", std::to_string(kTtlSeconds)});
  const std::string resolver_file = lan.command({"use-dns", "querier", "dns"});

  NetnsScope netns(lan.netns("querier"));
  ResolverScope resolver(resolver_file);
  // Unicast DNS goes to the run's server and nowhere else.
  ASSERT_EQ(run_command({"cat", "/etc/resolv.conf"}).out, "nameserver " + lan.host_ipv4("dns") + "\n");
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());
  ASSERT_TRUE(search->Init());
  ASSERT_TRUE(search->Start(",", "_http._tcp", "example.test.", 0, ""));
  const std::string printer = "Office Printer _http._tcp.example.test. 631 ";
  const std::string admin = "Printer Admin _http._tcp.example.test. 80 ";
  const std::string camera = "Door Camera _http._tcp.example.test. 8554 ";
  const EndpointSet zone = {printer + "198.51.100.50", printer + "2001:db8::50", admin + "198.51.100.50",
                            admin + "2001:db8::50",    camera + "198.51.100.60", camera + "2001:db8::60"};
  ASSERT_TRUE(wait_until([&] { return endpoints<EndpointSet>() == zone; }))
      << ::testing::PrintToString(endpoints());

  // A reloaded zone: the camera's service gone, the printer's port changed.
  // Once the records' TTL has run out the search has asked again.
  const Endpoints before = endpoints();
  const auto change = [&](const std::string& endpoint) {
    return static_cast<int>(endpoints().count(endpoint)) - static_cast<int>(before.count(endpoint));
  };
  lan.command({"dns-remove-service", "dns", "Door Camera", "_http._tcp"});
  lan.command({"dns-service", "dns", "Office Printer", "_http._tcp", "8631", "printer"});
  const std::string moved = "Office Printer _http._tcp.example.test. 8631 ";
  const auto reloaded = [&] {
    return change(camera + "198.51.100.60") == -1 && change(camera + "2001:db8::60") == -1 &&
           change(moved + "198.51.100.50") > 0 && change(moved + "2001:db8::50") > 0;
  };
  EXPECT_TRUE(wait_until(reloaded, 6 * kTtlSeconds + 10)) << ::testing::PrintToString(endpoints());
  EXPECT_TRUE(change(admin + "198.51.100.50") == 0 && change(admin + "2001:db8::50") == 0);
  EXPECT_TRUE(search->GetRunning());

  ASSERT_TRUE(search->Start(",", "_sorvbig._tcp", "example.test.", 0, ""));
  EXPECT_TRUE(wait_until([&] { return endpoints<EndpointSet>() == shelves; }))
      << ::testing::PrintToString(endpoints());

  // Each listed once, at its own port, on its host's address (198.18.0.K).
  EndpointSet many;
  for (int n = 1; n <= kMany; ++n) {
    many.insert("Device " + std::to_string(n) + " _sorvmany._tcp.example.test. " + std::to_string(8000 + n) +
                " 198.18.0." + std::to_string((n - 1) / 10 + 1));
  }
  ASSERT_TRUE(search->Start(",", "_sorvmany._tcp", "example.test.", 0, ""));
  EXPECT_TRUE(wait_until([&] { return endpoints<EndpointSet>() == many; }))
      << endpoints<EndpointSet>().size() << " listed";
  EXPECT_EQ(endpoints().size(), many.size());
  search->Stop();
}

}  // namespace
}  // namespace sorvalen::test
