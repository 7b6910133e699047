// Watches one device search through the library's public interface, for
// scripts/attack_bench.sh; run it only inside a network namespace of a virtual LAN.
//
//   search_watch --type T [--domain D] [--filter WORDS] [--seconds S] [--interface IF]
//                [--real PREFIX] [--expect N] [--watch NAME] [--planted TEXT]
//                [--planted-address A[,A...]] [--follow-interfaces]
//                [--restart-at SEC] [--destroy-at SEC]
//
// Runs the search of type T in domain D (default local.) for S seconds (default
// 30), sampling the lists every 20 ms, and prints "started epoch_ms=..." at
// Start, a progress line every 5 s and one closing line of key=value figures:
//   names_ever, names_end  instance names ever listed / listed at the end (IPv4 or IPv6)
//   lost                   names that were listed and later missing (without a restart)
//   real_ever, real_end    the same for names that start with PREFIX
//   v4, v6                 records in the lists at the end; dup_v4, dup_v6 records beyond one per name
//   all_ms                 ms from Start until N names were listed (-1: never)
//   first_ms               ms from Start until the first name was listed
//   watch_epoch_ms         wall-clock ms when NAME was first listed (-1: never)
//   planted_ever           names containing TEXT ever listed
//   planted_address_ever   how many of the addresses A were ever listed (IPv4 or IPv6, as text)
//   refreshes              RefreshInterfaces calls made for --follow-interfaces
//   cpu_ms                 CPU time of everything but the main thread (the search loop)
//   rss_kb                 peak resident memory of the process
// --follow-interfaces does what an application that follows the machine's
// interfaces does: it listens to the kernel's interface and address changes
// (netlink) and calls RefreshInterfaces from its own thread after each batch.
// --restart-at calls Start again after SEC seconds (a later Start in the same
// process); --destroy-at calls Destroy while the search runs (misuse) and ends.
#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "sorvalen/mdns_search.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string type, domain = "local.", filter = ",", interface_name, real, watch, planted;
  std::set<std::string> planted_addresses;
  double seconds = 30, restart_at = -1, destroy_at = -1;
  size_t expect = 0;
  bool follow_interfaces = false;
};

long long epoch_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

double cpu_ms(int who) {
  rusage usage{};
  getrusage(who, &usage);
  const auto ms = [](const timeval& tv) {
    return static_cast<double>(tv.tv_sec) * 1e3 + static_cast<double>(tv.tv_usec) / 1e3;
  };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

struct Lists {
  std::set<std::string> names, addresses;
  size_t v4 = 0, v6 = 0, dup_v4 = 0, dup_v6 = 0;
};

std::string address_text(const sorvalen::IPAddressV4& record) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &record.address, text, sizeof text);
  return text;
}

std::string address_text(const sorvalen::IPAddressV6& record) {
  unsigned char bytes[16];
  for (int i = 0; i < 8; ++i) {
    bytes[2 * i] = static_cast<unsigned char>(record.address[i] >> 8);
    bytes[2 * i + 1] = static_cast<unsigned char>(record.address[i] & 0xff);
  }
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(AF_INET6, bytes, text, sizeof text);
  return text;
}

// The listed addresses that are among the wanted ones.
void collect_addresses(const std::set<std::string>& wanted, Lists& lists) {
  for (const auto& record : sorvalen::MDNSSearch::address_list_) {
    const std::string text = address_text(record);
    if (wanted.count(text) != 0)
      lists.addresses.insert(text);
  }
  for (const auto& record : sorvalen::MDNSSearch::addressV6_list_) {
    const std::string text = address_text(record);
    if (wanted.count(text) != 0)
      lists.addresses.insert(text);
  }
}

Lists read_lists(const std::set<std::string>& wanted_addresses) {
  Lists lists;
  std::set<std::string> v4_names, v6_names;
  std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
  for (const auto& record : sorvalen::MDNSSearch::address_list_)
    v4_names.insert(record.name);
  for (const auto& record : sorvalen::MDNSSearch::addressV6_list_)
    v6_names.insert(record.name);
  lists.v4 = sorvalen::MDNSSearch::address_list_.size();
  lists.v6 = sorvalen::MDNSSearch::addressV6_list_.size();
  lists.dup_v4 = lists.v4 - v4_names.size();
  lists.dup_v6 = lists.v6 - v6_names.size();
  lists.names = std::move(v4_names);
  lists.names.insert(v6_names.begin(), v6_names.end());
  if (!wanted_addresses.empty())
    collect_addresses(wanted_addresses, lists);
  return lists;
}

// A socket that hears of every interface and address change, or -1.
int open_interface_watch() {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd < 0)
    return -1;
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// True when a change arrived since the last call (a lost batch counts too).
bool interfaces_changed(int fd) {
  bool changed = false;
  char buffer[8192];
  for (;;) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && errno == ENOBUFS) {
      changed = true;
      continue;
    }
    if (n <= 0)
      return changed;
    changed = true;
  }
}

// Calls RefreshInterfaces after a change, as an application following the interfaces does.
void follow_interfaces(int fd, sorvalen::MDNSSearch& search, double t, size_t& refreshes) {
  if (fd < 0 || !interfaces_changed(fd))
    return;
  const bool ok = search.RefreshInterfaces();
  ++refreshes;
  std::printf("interfaces changed at %.1f s, refreshed: %s\n", t, ok ? "ok" : "failed");
  std::fflush(stdout);
}

size_t count_containing(const std::set<std::string>& names, const std::string& text) {
  size_t n = 0;
  for (const std::string& name : names)
    n += !text.empty() && name.find(text) != std::string::npos ? 1 : 0;
  return n;
}

std::set<std::string> split_commas(const std::string& text) {
  std::set<std::string> out;
  size_t begin = 0;
  while (begin <= text.size()) {
    const size_t end = std::min(text.find(',', begin), text.size());
    if (end > begin)
      out.insert(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return out;
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string key = argv[i];
    if (key == "--follow-interfaces") {
      o.follow_interfaces = true;
      continue;
    }
    if (i + 1 >= argc)
      return false;
    const char* value = argv[++i];
    if (key == "--type")
      o.type = value;
    else if (key == "--domain")
      o.domain = value;
    else if (key == "--planted")
      o.planted = value;
    else if (key == "--planted-address")
      o.planted_addresses = split_commas(value);
    else if (key == "--filter")
      o.filter = value;
    else if (key == "--seconds")
      o.seconds = std::atof(value);
    else if (key == "--interface")
      o.interface_name = value;
    else if (key == "--real")
      o.real = value;
    else if (key == "--expect")
      o.expect = std::strtoul(value, nullptr, 10);
    else if (key == "--watch")
      o.watch = value;
    else if (key == "--restart-at")
      o.restart_at = std::atof(value);
    else if (key == "--destroy-at")
      o.destroy_at = std::atof(value);
    else
      return false;
  }
  return !o.type.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr,
                 "usage: search_watch --type T [--domain D] [--filter W] [--seconds S] [--interface IF]\n"
                 "       [--real P] [--expect N] [--watch NAME] [--planted TEXT] [--planted-address A,...]\n"
                 "       [--follow-interfaces] [--restart-at SEC] [--destroy-at SEC]\n");
    return 2;
  }
  std::unique_ptr<sorvalen::MDNSSearch> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init())
    return 3;
  const auto start = Clock::now();
  if (!search->Start(o.filter, o.type, o.domain, 0, o.interface_name))
    return 3;
  std::printf("started epoch_ms=%lld\n", epoch_ms());
  std::fflush(stdout);

  auto since_start = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  std::set<std::string> ever, lost;
  double all_ms = -1, first_ms = -1, next_report = 5;
  long long watch_epoch = -1;
  bool restarted = false;
  Lists now;
  std::set<std::string> addresses_ever;
  size_t refreshes = 0;
  const int interface_watch = o.follow_interfaces ? open_interface_watch() : -1;
  while (since_start() < o.seconds) {
    if (o.destroy_at >= 0 && since_start() >= o.destroy_at) {
      search->Destroy();
      std::printf("destroyed while running at %.1f s\n", since_start());
      std::fflush(stdout);
      std::this_thread::sleep_for(std::chrono::seconds(1));
      search.reset();
      std::printf("destroy_survived=1\n");
      return 0;
    }
    if (o.restart_at >= 0 && !restarted && since_start() >= o.restart_at) {
      restarted = true;
      const bool ok = search->Start(o.filter, o.type, o.domain, 0, o.interface_name);
      std::printf("restarted at %.1f s: %s\n", since_start(), ok ? "ok" : "failed");
      ever.clear();
    }
    follow_interfaces(interface_watch, *search, since_start(), refreshes);
    now = read_lists(o.planted_addresses);
    addresses_ever.insert(now.addresses.begin(), now.addresses.end());
    for (const std::string& name : ever) {
      if (now.names.count(name) == 0)
        lost.insert(name);
    }
    for (const std::string& name : now.names) {
      if (ever.insert(name).second && name == o.watch && watch_epoch < 0)
        watch_epoch = epoch_ms();
    }
    const double t = since_start();
    if (first_ms < 0 && !now.names.empty())
      first_ms = t * 1e3;
    if (all_ms < 0 && o.expect > 0 && now.names.size() >= o.expect)
      all_ms = t * 1e3;
    if (t >= next_report) {
      std::printf("t=%.0fs listed=%zu ever=%zu v4=%zu v6=%zu\n", t, now.names.size(), ever.size(), now.v4,
                  now.v6);
      std::fflush(stdout);
      next_report += 5;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double loop_cpu = cpu_ms(RUSAGE_SELF) - cpu_ms(RUSAGE_THREAD);
  size_t real_ever = 0, real_end = 0;
  if (!o.real.empty()) {
    for (const std::string& name : ever)
      real_ever += name.compare(0, o.real.size(), o.real) == 0 ? 1 : 0;
    for (const std::string& name : now.names)
      real_end += name.compare(0, o.real.size(), o.real) == 0 ? 1 : 0;
  }
  search->Stop();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "names_ever=%zu names_end=%zu lost=%zu real_ever=%zu real_end=%zu v4=%zu v6=%zu dup_v4=%zu dup_v6=%zu "
      "all_ms=%.0f first_ms=%.0f watch_epoch_ms=%lld planted_ever=%zu planted_address_ever=%zu refreshes=%zu "
      "cpu_ms=%.0f rss_kb=%ld\n",
      ever.size(), now.names.size(), lost.size(), real_ever, real_end, now.v4, now.v6, now.dup_v4, now.dup_v6,
      all_ms, first_ms, watch_epoch, count_containing(ever, o.planted), addresses_ever.size(), refreshes,
      loop_cpu, usage.ru_maxrss);
  search->Destroy();
  if (interface_watch >= 0)
    close(interface_watch);
  return 0;
}
