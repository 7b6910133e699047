// The 'search' command: one device search through the library's public
// interface, printing endpoints as they appear, move and go away.
#include <arpa/inet.h>
#include <net/if.h>
#include <signal.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands.h"
#include "device_view.h"
#include "help_text.h"
#include "interfaces.h"
#include "sorvalen/mdns_search.h"
#include "text_output.h"

namespace {

using Clock = std::chrono::steady_clock;

struct SearchOptions {
  std::string type;
  std::string domain = "local.";
  std::vector<std::string> names;  // empty: every instance
  int timeout_seconds = 10;
  std::string interface_name;
  bool json = false;
};

bool is_service_name(const std::string& text) {
  if (text.empty() || text.size() > 62 || text.front() == '-' || text.back() == '-')
    return false;
  for (const char c : text) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-')
      return false;
  }
  return true;
}

bool is_protocol(const std::string& label) {
  return strcasecmp(label.c_str(), "_tcp") == 0 || strcasecmp(label.c_str(), "_udp") == 0;
}

std::vector<std::string> labels_of(std::string name) {
  if (!name.empty() && name.back() == '.')
    name.pop_back();
  std::vector<std::string> labels;
  size_t start = 0;
  for (size_t dot; (dot = name.find('.', start)) != std::string::npos; start = dot + 1)
    labels.push_back(name.substr(start, dot - start));
  labels.push_back(name.substr(start));
  return labels;
}

// Empty when TYPE is _name._tcp or _name._udp, else what is wrong with it.
std::string type_problem(const std::string& type) {
  const std::vector<std::string> labels = labels_of(type);
  const bool service = labels[0].size() > 1 && labels[0][0] == '_' && is_service_name(labels[0].substr(1));
  if (service && labels.size() > 2 && is_protocol(labels[1])) {
    const std::string domain = type.substr(labels[0].size() + labels[1].size() + 2);
    return "'" + escape_text(type) + "' includes the domain; give the type alone, " + labels[0] + "." +
           labels[1] + ", and the domain with --domain " + escape_text(domain);
  }
  if (service && labels.size() == 2 && is_protocol(labels[1]))
    return "";
  const std::string example = is_service_name(type) ? "_" + type + "._tcp" : "_http._tcp";
  return "'" + escape_text(type) + "' is not a service type; write it as _name._tcp or _name._udp, e.g. " +
         example;
}

std::string domain_problem(const std::string& domain) {
  if (domain.empty())
    return "the domain is empty; leave --domain out to search in local.";
  const std::vector<std::string> labels = labels_of(domain);
  if (labels[0].size() > 1 && labels[0][0] == '_')
    return "'" + escape_text(domain) + "' is a service type, not a domain; give a domain such as local.";
  for (const std::string& label : labels) {
    if (label.empty() || label.size() > 63 || domain.size() > 254)
      return "'" + escape_text(domain) + "' is not a domain name; give one such as local.";
  }
  return "";
}

// The words of --names, each without blanks around it; empty words are dropped.
std::vector<std::string> filter_words(const std::string& text) {
  std::vector<std::string> words;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = std::min(text.find(',', start), text.size());
    const std::string word = text.substr(start, comma - start);
    const size_t first = word.find_first_not_of(" \t");
    if (first != std::string::npos)
      words.push_back(word.substr(first, word.find_last_not_of(" \t") - first + 1));
    start = comma + 1;
  }
  return words;
}

enum : int { kHelp = 'h', kJson = 'j', kNames = 'n', kDomain = 'd', kTimeout = 't', kInterface = 'i' };

// Returns 0 with usable options, -1 after printing the help, else the exit status.
int parse_options(int argc, char** argv, SearchOptions* options) {
  static const option kLongOptions[] = {{"help", no_argument, nullptr, kHelp},
                                        {"json", no_argument, nullptr, kJson},
                                        {"names", required_argument, nullptr, kNames},
                                        {"domain", required_argument, nullptr, kDomain},
                                        {"timeout", required_argument, nullptr, kTimeout},
                                        {"interface", required_argument, nullptr, kInterface},
                                        {nullptr, 0, nullptr, 0}};
  bool help = false;
  std::vector<std::string> positional;
  const int status = read_command_line(
      "search", argc, argv, "hjn:d:t:i:", kLongOptions,
      [&](int option, const char* value) {
        long seconds = 0;
        switch (option) {
          case kHelp:
            help = true;
            break;
          case kJson:
            options->json = true;
            break;
          case kNames:
            options->names = filter_words(value);
            if (options->names.empty())
              return usage_error("search", "--names has no word; leave it out to show every instance");
            break;
          case kDomain:
            options->domain = value;
            break;
          case kTimeout:
            if (!parse_bounded_number(value, 10, 86400, &seconds)) {
              return usage_error("search", "--timeout takes whole seconds from 0 (no limit) to 86400, not '" +
                                               escape_text(value) + "'");
            }
            options->timeout_seconds = static_cast<int>(seconds);
            break;
          case kInterface:
            if (*value == '\0')
              return usage_error("search", "--interface needs the name of an interface, e.g. eth0");
            options->interface_name = value;
            break;
        }
        return 0;
      },
      &positional);
  if (status != 0)
    return status;
  if (help) {
    print_command_help(stdout, *find_command_help("search"));
    return -1;
  }
  if (positional.size() != 1) {
    return usage_error("search", positional.empty()
                                     ? "give the service type to search for, e.g. _http._tcp"
                                     : "give one service type, not " + std::to_string(positional.size()));
  }
  options->type = positional[0];
  std::string problem = type_problem(options->type);
  if (problem.empty())
    problem = domain_problem(options->domain);
  return problem.empty() ? 0 : usage_error("search", problem);
}

// The interface whose name completes link-local addresses ("" when unknown),
// or the exit status 2 after saying why mDNS cannot run here.
int choose_interface(const SearchOptions& options, std::string* zone) {
  const std::vector<InterfaceVerdict> verdicts = judge_interfaces();
  const std::vector<std::string> usable = usable_interfaces(verdicts);
  if (!options.interface_name.empty()) {
    for (const InterfaceVerdict& verdict : verdicts) {
      if (verdict.name != options.interface_name)
        continue;
      if (!verdict.unusable_because.empty()) {
        std::fprintf(stderr, "sorvalen-mdns search: mDNS cannot use interface '%s': %s; usable: %s\n",
                     verdict.name.c_str(), verdict.unusable_because.c_str(), joined(usable).c_str());
        return 2;
      }
      *zone = verdict.name;
      return 0;
    }
    return usage_error("search", "there is no network interface '" + escape_text(options.interface_name) +
                                     "'; usable: " + joined(usable));
  }
  if (usable.empty()) {
    std::string why;
    for (const InterfaceVerdict& verdict : verdicts)
      why += (why.empty() ? "" : ", ") + verdict.name + ": " + verdict.unusable_because;
    std::fprintf(
        stderr,
        "sorvalen-mdns search: mDNS is unavailable: no usable network interface (%s); one must be up, "
        "with multicast and an IPv4 or IPv6 address\n",
        why.empty() ? "none at all" : why.c_str());
    return 2;
  }
  if (usable.size() == 1)
    *zone = usable[0];
  return 0;
}

std::string ipv4_text(uint32_t network_order) {
  char text[INET_ADDRSTRLEN] = {};
  in_addr address;
  std::memcpy(&address, &network_order, sizeof address);
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

std::string ipv6_text(const uint16_t (&groups)[8]) {
  unsigned char bytes[16];
  for (int i = 0; i < 8; ++i) {
    bytes[2 * i] = static_cast<unsigned char>(groups[i] >> 8);
    bytes[2 * i + 1] = static_cast<unsigned char>(groups[i] & 0xff);
  }
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(AF_INET6, bytes, text, sizeof text);
  return text;
}

bool is_link_local(const Endpoint& endpoint) {
  in6_addr address{};
  return endpoint.family == 6 && inet_pton(AF_INET6, endpoint.address.c_str(), &address) == 1 &&
         IN6_IS_ADDR_LINKLOCAL(&address);
}

class SearchDisplay {
 public:
  SearchDisplay(const SearchOptions& options, std::string zone)
      : json_(options.json),
        status_line_(isatty(STDERR_FILENO) == 1),
        timeout_seconds_(options.timeout_seconds),
        zone_(std::move(zone)) {}

  void Print(const Event& event) {
    ClearStatus();
    const Endpoint& e = event.endpoint;
    if (json_) {
      static const char* const kNames[] = {"add", "remove", "update"};
      std::printf(
          "{\"event\":\"%s\",\"name\":%s,\"type\":%s,\"domain\":%s,\"family\":\"ipv%d\",\"address\":\"%s\","
          "\"port\":%u,\"interface\":%s",
          kNames[static_cast<int>(event.kind)], json_string(e.name).c_str(), json_string(e.type).c_str(),
          json_string(e.domain).c_str(), e.family, e.address.c_str(), e.port,
          zone_.empty() ? "null" : json_string(zone_).c_str());
      if (event.kind == EventKind::kUpdate)
        std::printf(",\"old_port\":%u", event.old_port);
      std::printf("}\n");
    } else {
      static const char kMarks[] = {'+', '-', '~'};
      std::string endpoint = e.address;
      if (is_link_local(e) && !zone_.empty())
        endpoint += "%" + zone_;
      if (e.family == 6)
        endpoint = "[" + endpoint + "]";
      std::printf("%c\t%s\t%s%s\t%s:%u\n", kMarks[static_cast<int>(event.kind)], escape_text(e.name).c_str(),
                  escape_text(e.type).c_str(), escape_text(e.domain).c_str(), endpoint.c_str(), e.port);
    }
    std::fflush(stdout);
  }

  void ShowStatus(double elapsed_seconds, size_t shown) {
    if (!status_line_)
      return;
    if (timeout_seconds_ > 0) {
      std::fprintf(stderr, "\r\033[Ksearching... %.1f s of %d s, %zu shown", elapsed_seconds,
                   timeout_seconds_, shown);
    } else {
      std::fprintf(stderr, "\r\033[Ksearching... %.1f s (Ctrl-C to stop), %zu shown", elapsed_seconds, shown);
    }
    status_shown_ = true;
  }

  void ClearStatus() {
    if (status_shown_)
      std::fprintf(stderr, "\r\033[K");
    status_shown_ = false;
  }

 private:
  bool json_;
  bool status_line_;
  int timeout_seconds_;
  std::string zone_;
  bool status_shown_ = false;
};

// The search's two lists as they are now.
void read_lists(const sorvalen::MDNSSearch& search, std::vector<Endpoint> (&lists)[2]) {
  lists[0].clear();
  lists[1].clear();
  std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
  for (const sorvalen::IPAddressV4& r : search.GetAddressList())
    lists[0].push_back({r.name, r.type, r.domain, 4, ipv4_text(r.address), r.port});
  for (const sorvalen::IPAddressV6& r : search.GetAddressV6List())
    lists[1].push_back({r.name, r.type, r.domain, 6, ipv6_text(r.address), r.port});
}

struct SearchDeleter {
  void operator()(sorvalen::MDNSSearch* search) const {
    search->Stop();
    search->Destroy();
    delete search;
  }
};

std::string joined_names(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : " or ") + json_string(word);
  return text;
}

int run_search(const SearchOptions& options) {
  std::string zone;
  if (const int status = choose_interface(options, &zone); status != 0)
    return status;

  // SIGINT and SIGTERM are taken by sigtimedwait below, never by a handler:
  // blocked here, they stay blocked in the library's thread too.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  std::unique_ptr<sorvalen::MDNSSearch, SearchDeleter> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init()) {
    std::fprintf(
        stderr,
        "sorvalen-mdns search: mDNS is unavailable: cannot open UDP port 5353 with multicast; another "
        "program may hold the port exclusively\n");
    return 2;
  }
  std::string filter = options.names.empty() ? "," : "";  // one empty word admits every instance
  for (const std::string& word : options.names)
    filter += (filter.empty() ? "" : ",") + word;
  // No time limit for the library: this loop keeps the deadline itself.
  if (!search->Start(filter, options.type, options.domain, 0, options.interface_name)) {
    std::fprintf(stderr, "sorvalen-mdns search: mDNS is unavailable: the search could not start on %s\n",
                 options.interface_name.empty() ? "any interface" : options.interface_name.c_str());
    return 2;
  }

  SearchDisplay display(options, zone);
  DeviceView view;
  std::vector<Endpoint> lists[2];
  const auto show_changes = [&] {
    read_lists(*search, lists);
    for (const Event& event : view.Follow(lists))
      display.Print(event);
  };
  const Clock::time_point started = Clock::now();
  const Clock::time_point deadline = started + std::chrono::seconds(options.timeout_seconds);
  int stop_signal = 0;
  bool loop_failed = false;
  for (;;) {
    show_changes();
    const Clock::time_point now = Clock::now();
    if (options.timeout_seconds > 0 && now >= deadline)
      break;
    if (!search->GetRunning()) {
      loop_failed = true;
      break;
    }
    display.ShowStatus(std::chrono::duration<double>(now - started).count(), view.shown());
    auto wait = std::chrono::nanoseconds(std::chrono::milliseconds(100));
    if (options.timeout_seconds > 0)
      wait = std::min(wait, std::chrono::nanoseconds(deadline - now));
    const timespec wait_time{0, static_cast<long>(wait.count())};
    stop_signal = sigtimedwait(&stop_signals, nullptr, &wait_time);
    if (stop_signal > 0)
      break;
  }
  const double searched = std::chrono::duration<double>(Clock::now() - started).count();
  show_changes();  // what came after the deadline, while the search stops, is not shown
  display.ClearStatus();
  search->Stop();

  if (loop_failed) {
    std::fprintf(stderr, "sorvalen-mdns search: the mDNS querier stopped: waiting on its sockets failed\n");
    return 2;
  }
  if (!view.ever_found() && stop_signal <= 0) {
    std::fprintf(stderr, "sorvalen-mdns search: found no %s service in %s%s%s%s%s within %.1f s\n",
                 escape_text(options.type).c_str(), escape_text(options.domain).c_str(),
                 options.names.empty() ? "" : " whose name contains ", joined_names(options.names).c_str(),
                 options.interface_name.empty() ? "" : " on ", escape_text(options.interface_name).c_str(),
                 searched);
  }
  if (stop_signal > 0)
    return 128 + stop_signal;
  return view.ever_found() ? 0 : 1;
}

}  // namespace

int run_search_command(int argc, char** argv) {
  SearchOptions options;
  const int status = parse_options(argc, argv, &options);
  if (status != 0)
    return status < 0 ? 0 : status;
  return run_search(options);
}
