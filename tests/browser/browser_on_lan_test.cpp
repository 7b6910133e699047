// ServiceBrowser on virtual LANs, run inside the querier's namespace, as an
// application sees it through its callbacks: avahi-daemon and python3-zeroconf
// devices with TXT attributes and subtypes, the list of service types, host
// names, and callbacks that cancel or stop.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "netns_scope.h"
#include "sorvalen/mdns_search_posix.h"
#include "sorvalen/service_browser.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

using Threading = ServiceBrowser::Threading;

bool wait_until(const std::function<bool()>& condition, int seconds = 20) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return condition();
}

// What the callbacks were given, one line each, as "EVENT NAME|TYPE|HOST|PORT|ADDRESSES|TXT".
class Log {
 public:
  void Add(std::string line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
  }
  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool Has(const std::string& wanted) const {
    for (const std::string& line : lines()) {
      if (line.find(wanted) != std::string::npos)
        return true;
    }
    return false;
  }
  bool WaitFor(const std::string& wanted) const {
    return wait_until([&] { return Has(wanted); });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

const char* event_word(ServiceEvent event) {
  return event == ServiceEvent::kAdded ? "added" : event == ServiceEvent::kUpdated ? "updated" : "removed";
}

std::string line_of(ServiceEvent event, const ServiceInstance& i) {
  std::string line = std::string(event_word(event)) + " " + i.name + "|" + i.type + i.domain + "|" + i.host +
                     "|" + std::to_string(i.port) + "|";
  for (const ServiceAddress& a : i.addresses)
    line += a.text + " ";
  line += "|";
  for (const TxtAttribute& t : i.txt)
    line += "[" + t.key + (t.has_value ? "=" + t.value : "") + "]";
  return line;
}

ServiceBrowser::InstanceCallback logging_to(Log* log) {
  return [log](ServiceEvent event, const ServiceInstance& instance) { log->Add(line_of(event, instance)); };
}

// LAN 1: the querier, "dev" (avahi-daemon) and "zdev" (python3-zeroconf).
TEST(BrowserOnLan, InstancesWithTheirTxtSubtypesTheTypeListAndHostNames) {
  SV_REQUIRE_VIRTUAL_LAN("/usr/bin/python3");
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("dev", {1});
  lan.add_host("zdev", {1});
  lan.start_avahi("dev", {{"Laser", "_http._tcp,_printer._sub._http._tcp", 631, {}},
                          {"Plain Web", "_http._tcp", 80, {}},
                          {"Shell Box", "_ssh._tcp", 22, {}}});
  lan.add_service(
      "zdev", {"Zero Box", "_http._tcp", 8080, {"path=/x", "PATH=/dup", "flag", "empty=", "hex:bin=00ff80"}});
  lan.command({"start-zeroconf", "zdev"});
  const std::string dev4 = lan.host_ipv4("dev"), dev6 = lan.host_ipv6_link_local("dev");
  const std::string zdev4 = lan.host_ipv4("zdev");
  NetnsScope scope(lan.netns("querier"));
  // A device search of the same process runs on the core of its own beside the browser's.
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());
  ASSERT_TRUE(search->Init());
  ASSERT_TRUE(search->Start(",", "_ssh._tcp", "local.", 0, ""));

  ServiceBrowser browser;
  std::string error;
  ASSERT_TRUE(browser.Start(&error)) << error;
  Log all, printers, types, hosts;
  ASSERT_NE(browser.Browse({"_http._tcp", "", "local", ""}, logging_to(&all), &error), 0u) << error;
  ASSERT_NE(browser.Browse({"_http._tcp.", "_printer", "local.", "eth0"}, logging_to(&printers), &error), 0u)
      << error;
  ASSERT_NE(browser.BrowseTypes("local", "",
                                [&](ServiceEvent event, const std::string& type, const std::string& domain) {
                                  types.Add(std::string(event_word(event)) + " " + type + domain);
                                }),
            0u);
  ASSERT_NE(browser.ResolveHost("dev.local",
                                [&](const std::string& host, const std::vector<ServiceAddress>& list) {
                                  std::string line = host + ":";
                                  for (const ServiceAddress& a : list)
                                    line += " " + a.text;
                                  hosts.Add(line);
                                }),
            0u);

  // TXT as the device sent it: the first of equal keys, a bare key apart from
  // an empty value, and a binary value as its bytes.  (An instance is added
  // with its first address; the others may follow in an update.)
  const std::string binary("\0\xff\x80", 3);
  EXPECT_TRUE(all.WaitFor("Zero Box|_http._tcp.local.|zdev.local.|8080|" + zdev4 + " "));
  EXPECT_TRUE(all.WaitFor("|[path=/x][flag][empty=][bin=" + binary + "]"));
  EXPECT_TRUE(all.Has("added Zero Box|")) << ::testing::PrintToString(all.lines());
  // avahi-daemon's instances with both families, the link-local one with its zone.
  EXPECT_TRUE(all.WaitFor("Plain Web|_http._tcp.local.|dev.local.|80|" + dev4 + " " + dev6 + "%eth0 |"));
  EXPECT_TRUE(all.WaitFor("added Laser|_http._tcp.local.|dev.local.|631|"));
  // The subtype's browse finds only its instance.
  EXPECT_TRUE(printers.WaitFor("added Laser|_http._tcp.local.|dev.local.|631|"));
  EXPECT_TRUE(types.WaitFor("added _ssh._tcp.local."));
  EXPECT_TRUE(types.Has("added _http._tcp.local."));
  EXPECT_TRUE(hosts.WaitFor("dev.local.: " + dev4 + " " + dev6 + "%eth0"));

  EXPECT_TRUE(wait_until([] {
    std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
    return !MDNSSearch::address_list_.empty();
  })) << "the device search beside it";
  search->Stop();

  lan.remove_service("dev", "Plain Web", "_http._tcp");
  EXPECT_TRUE(all.WaitFor("removed Plain Web|"));
  lan.remove_service("dev", "Shell Box", "_ssh._tcp");
  EXPECT_TRUE(types.WaitFor("removed _ssh._tcp.local."));
  for (const std::string& line : printers.lines())
    EXPECT_EQ(line.find("Plain Web"), std::string::npos) << line;

  // Bad input fails at once, with a reason.
  EXPECT_EQ(browser.Browse({"http", "", "local", ""}, logging_to(&all), &error), 0u);
  EXPECT_NE(error.find("not a service type"), std::string::npos) << error;
  EXPECT_EQ(browser.Browse({"_http._tcp", "a.b", "local", ""}, logging_to(&all), &error), 0u);
  EXPECT_EQ(browser.Browse({"_http._tcp", "", "local", "nope0"}, logging_to(&all), &error), 0u);
  EXPECT_EQ(browser.ResolveHost("dev", nullptr, &error), 0u);
}

// A zone's services, types and hosts by unicast DNS (BIND 9), as the same events.
TEST(BrowserOnLan, AZonesInstancesTypesAndHostsOverUnicastDns) {
  SV_REQUIRE_VIRTUAL_LAN("named");
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("dns", {1});
  lan.command({"dns-address", "dns", "printer", "198.51.100.50", "2001:db8::50"});
  lan.command({"dns-service", "dns", "Office Printer", "_http._tcp", "631", "printer", "rp=ipp", "duplex"});
  lan.command({"dns-service", "dns", "Door Camera", "_http._tcp", "8554", "printer"});
  lan.command({"start-dns", "dns", "--zone", "example.test.", "--ttl", "4"});
  const std::string resolver_file = lan.command({"use-dns", "querier", "dns"});
  NetnsScope netns(lan.netns("querier"));
  ResolverScope resolver(resolver_file);

  ServiceBrowser browser;
  ASSERT_TRUE(browser.Start());
  Log all, types, hosts;
  ASSERT_NE(browser.Browse({"_http._tcp", "", "example.test", ""}, logging_to(&all)), 0u);
  ASSERT_NE(browser.BrowseTypes("example.test.", "",
                                [&](ServiceEvent event, const std::string& type, const std::string& domain) {
                                  types.Add(std::string(event_word(event)) + " " + type + domain);
                                }),
            0u);
  ASSERT_NE(browser.ResolveHost("printer.example.test",
                                [&](const std::string& host, const std::vector<ServiceAddress>& list) {
                                  std::string line = host + ":";
                                  for (const ServiceAddress& a : list)
                                    line += " " + a.text + (a.interface_name.empty() ? "" : "%?");
                                  hosts.Add(line);
                                }),
            0u);
  EXPECT_TRUE(
      all.WaitFor("Office Printer|_http._tcp.example.test.|printer.example.test.|631|198.51.100.50 "
                  "2001:db8::50 |[rp=ipp][duplex]"))
      << ::testing::PrintToString(all.lines());
  EXPECT_TRUE(types.WaitFor("added _http._tcp.example.test."));
  EXPECT_TRUE(hosts.WaitFor("printer.example.test.: 198.51.100.50 2001:db8::50"));
  // Gone from the zone: removed once the records' TTL has run out.
  lan.command({"dns-remove-service", "dns", "Door Camera", "_http._tcp"});
  EXPECT_TRUE(all.WaitFor("removed Door Camera|"));
}

// Each callback cancels its own watch, or stops the browser, at its first
// event; a browser is destroyed by another thread while its callbacks run.
void callbacks_that_cancel_and_stop(Threading threading) {
  SCOPED_TRACE(threading == Threading::kOwnThread ? "own thread" : "application loop");
  auto browser = std::make_unique<ServiceBrowser>(threading);
  ASSERT_TRUE(browser->Start());
  std::atomic<bool> looping{true};
  std::thread loop;
  if (threading == Threading::kApplicationLoop) {
    loop = std::thread([&] {
      while (looping) {
        pollfd ready{browser->Descriptor(), POLLIN, 0};
        if (ready.fd >= 0 && poll(&ready, 1, 50) > 0)
          browser->ProcessReady();
        else if (ready.fd < 0)
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    });
  }
  const std::thread::id test_thread = std::this_thread::get_id();
  std::atomic<int> after_cancel{0}, calls{0}, on_test_thread{0};
  ServiceBrowser::WatchId own = 0;
  std::mutex own_mutex;
  {
    std::lock_guard<std::mutex> setting(own_mutex);  // `own` is set before its callback reads it
    own = browser->Browse({"_http._tcp", "", "local", ""}, [&](ServiceEvent, const ServiceInstance&) {
      std::lock_guard<std::mutex> lock(own_mutex);
      on_test_thread += std::this_thread::get_id() == test_thread;
      if (calls++ > 0)
        ++after_cancel;
      browser->Cancel(own);
    });
  }
  ASSERT_TRUE(wait_until([&] { return calls > 0; }));
  // A watch that starts another from inside, and one that stops everything.
  std::atomic<int> started_inside{0};
  browser->Browse({"_http._tcp", "", "local", ""}, [&](ServiceEvent, const ServiceInstance&) {
    if (started_inside++ == 0)
      browser->ResolveHost("dev.local",
                           [&](const std::string&, const std::vector<ServiceAddress>&) { browser->Stop(); });
  });
  ASSERT_TRUE(wait_until([&] { return browser->Descriptor() < 0; })) << "stopped from inside a callback";
  EXPECT_GE(started_inside, 1);
  EXPECT_EQ(after_cancel, 0);

  // Started again, then destroyed here while its callbacks keep busy.
  ASSERT_TRUE(browser->Start());
  std::atomic<int> busy{0};
  browser->Browse({"_http._tcp", "", "local", ""}, [&](ServiceEvent, const ServiceInstance&) {
    ++busy;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  });
  ASSERT_TRUE(wait_until([&] { return busy > 0; }));
  looping = false;
  if (loop.joinable())
    loop.join();
  browser.reset();
  EXPECT_EQ(on_test_thread, 0);
}

TEST(BrowserOnLan, CallbacksMayCancelAndStopFromInsideInBothThreadingModes) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("dev", {1});
  lan.start_avahi(
      "dev", {{"One", "_http._tcp", 80, {}}, {"Two", "_http._tcp", 81, {}}, {"Three", "_http._tcp", 82, {}}});
  NetnsScope scope(lan.netns("querier"));
  callbacks_that_cancel_and_stop(Threading::kOwnThread);
  callbacks_that_cancel_and_stop(Threading::kApplicationLoop);
}

}  // namespace
}  // namespace sorvalen::test
