// The 'search' command: one device search through the library's public
// interface, printing each endpoint as it is found.
#include <arpa/inet.h>
#include <net/if.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "argument_reader.h"
#include "commands.h"
#include "sorvalen/mdns_search.h"

namespace {

struct SearchOptions {
  std::string type;
  std::string domain = "local.";
  std::string names = ",";  // one empty word: every instance
  int timeout_seconds = 10;
  std::string interface_name;
  bool json = false;
  bool help = false;
};

// One endpoint as the tool shows it.
struct Endpoint {
  std::string name;
  std::string type;
  std::string domain;
  std::string address;
  int family = 4;
  unsigned port = 0;

  bool operator<(const Endpoint& other) const {
    return std::tie(name, type, domain, address, port) <
           std::tie(other.name, other.type, other.domain, other.address, other.port);
  }
};

// Returns 0 on success, else the exit status (after printing why).
int parse_options(int argc, char** argv, SearchOptions* options) {
  ArgumentReader args("search", argc, argv);
  std::vector<std::string> positional;
  while (args.next()) {
    const std::string& arg = args.current();
    if (args.is_help()) {
      options->help = true;
      return 0;
    }
    if (arg == "--json") {
      options->json = true;
    } else if (arg == "--domain" || arg == "--names" || arg == "--interface") {
      std::string* target = arg == "--domain"  ? &options->domain
                            : arg == "--names" ? &options->names
                                               : &options->interface_name;
      if (!args.take_value(target))
        return 2;
    } else if (arg == "--timeout") {
      std::string text;
      long seconds = 0;
      if (!args.take_value(&text))
        return 2;
      if (!parse_bounded_number(text, 10, 86400, &seconds))
        return args.fail("--timeout takes whole seconds from 0 (no limit) to 86400, not '" + text + "'");
      options->timeout_seconds = static_cast<int>(seconds);
    } else if (args.is_option()) {
      return args.fail("unknown option '" + arg + "'");
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.size() != 1)
    return args.fail(positional.empty() ? "give the service type to search for, e.g. _http._tcp"
                                        : "give exactly one service type");
  options->type = positional[0];
  if (options->type.empty())
    return args.fail("the service type is empty; give one such as _http._tcp");
  if (options->domain.empty())
    return args.fail("the domain is empty; leave --domain out to search in local.");
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

// Length of the valid UTF-8 sequence at text[i], or 0 when the byte there does
// not start one.
size_t utf8_sequence_length(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  size_t length = 0;
  uint32_t minimum = 0;
  uint32_t code = 0;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2, minimum = 0x80, code = lead & 0x1fu;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3, minimum = 0x800, code = lead & 0x0fu;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4, minimum = 0x10000, code = lead & 0x07u;
  } else {
    return 0;
  }
  if (i + length > text.size())
    return 0;
  for (size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xc0) != 0x80)
      return 0;
    code = (code << 6) | (byte(i + k) & 0x3fu);
  }
  if (code < minimum || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
    return 0;
  return length;
}

// A JSON string literal; bytes that are not valid UTF-8 become U+FFFD.
std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      const size_t length = utf8_sequence_length(text, i);
      if (length == 0) {
        out += "\\ufffd";
        ++i;
        continue;
      }
      out.append(text, i, length);
      i += length;
      continue;
    }
    ++i;
  }
  return out + "\"";
}

class SearchDisplay {
 public:
  SearchDisplay(bool json, bool status_line, int timeout_seconds)
      : json_(json), status_line_(status_line), timeout_seconds_(timeout_seconds) {}

  // Prints the endpoints not shown before.
  void Show(const std::vector<Endpoint>& endpoints) {
    for (const Endpoint& endpoint : endpoints) {
      if (!shown_.insert(endpoint).second)
        continue;
      ClearStatus();
      if (json_) {
        std::printf(
            "{\"name\":%s,\"type\":%s,\"domain\":%s,\"family\":\"ipv%d\",\"address\":\"%s\",\"port\":%u}\n",
            json_string(endpoint.name).c_str(), json_string(endpoint.type).c_str(),
            json_string(endpoint.domain).c_str(), endpoint.family, endpoint.address.c_str(), endpoint.port);
      } else {
        const bool v6 = endpoint.family == 6;
        std::printf("%s  %s%s  %s%s%s:%u\n", endpoint.name.c_str(), endpoint.type.c_str(),
                    endpoint.domain.c_str(), v6 ? "[" : "", endpoint.address.c_str(), v6 ? "]" : "",
                    endpoint.port);
      }
      std::fflush(stdout);
    }
  }

  void ShowStatus(double elapsed_seconds) {
    if (!status_line_)
      return;
    if (timeout_seconds_ > 0) {
      std::fprintf(stderr, "\r\033[Ksearching... %.1f s of %d s, %zu found", elapsed_seconds,
                   timeout_seconds_, shown_.size());
    } else {
      std::fprintf(stderr, "\r\033[Ksearching... %.1f s (Ctrl-C to stop), %zu found", elapsed_seconds,
                   shown_.size());
    }
    status_shown_ = true;
  }

  void ClearStatus() {
    if (!status_shown_)
      return;
    std::fprintf(stderr, "\r\033[K");
    status_shown_ = false;
  }

  size_t found() const { return shown_.size(); }

 private:
  bool json_;
  bool status_line_;
  int timeout_seconds_;
  bool status_shown_ = false;
  std::set<Endpoint> shown_;
};

std::vector<Endpoint> collect_endpoints(const sorvalen::MDNSSearch& search) {
  std::vector<Endpoint> endpoints;
  std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
  for (const sorvalen::IPAddressV4& record : search.GetAddressList()) {
    endpoints.push_back({record.name, record.type, record.domain, ipv4_text(record.address), 4, record.port});
  }
  for (const sorvalen::IPAddressV6& record : search.GetAddressV6List()) {
    endpoints.push_back({record.name, record.type, record.domain, ipv6_text(record.address), 6, record.port});
  }
  return endpoints;
}

// Waits up to `milliseconds` for SIGINT or SIGTERM (both blocked); true if one came.
bool wait_for_stop_signal(const sigset_t& signals, long milliseconds) {
  const timespec wait{0, milliseconds * 1000000L};
  return sigtimedwait(&signals, nullptr, &wait) > 0;
}

struct SearchDeleter {
  void operator()(sorvalen::MDNSSearch* search) const {
    search->Stop();
    search->Destroy();
    delete search;
  }
};

int run_search(const SearchOptions& options) {
  if (!options.interface_name.empty() && if_nametoindex(options.interface_name.c_str()) == 0) {
    return usage_error("search",
                       "there is no network interface '" + options.interface_name + "' (see 'ip link')");
  }

  // The signals are taken by sigtimedwait below, never by a handler: blocked
  // here, they stay blocked in the library's thread, whose wait they must not
  // interrupt.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  std::unique_ptr<sorvalen::MDNSSearch, SearchDeleter> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init()) {
    std::fprintf(
        stderr,
        "sorvalen-mdns search: cannot start the mDNS querier: UDP port 5353 or multicast is not "
        "available here; check that the network is up and that nothing holds the port exclusively\n");
    return 2;
  }
  if (!search->Start(options.names, options.type, options.domain, options.timeout_seconds,
                     options.interface_name)) {
    std::fprintf(
        stderr,
        "sorvalen-mdns search: cannot search on '%s'%s; check the interface and the service type "
        "'%s' in domain '%s'\n",
        options.interface_name.c_str(),
        options.interface_name.empty() ? " (all interfaces)" : ": it is not up with multicast and an address",
        options.type.c_str(), options.domain.c_str());
    return 2;
  }

  SearchDisplay display(options.json, isatty(STDERR_FILENO) == 1, options.timeout_seconds);
  const auto started = std::chrono::steady_clock::now();
  bool interrupted = false;
  while (search->GetRunning() && !interrupted) {
    display.Show(collect_endpoints(*search));
    display.ShowStatus(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    interrupted = wait_for_stop_signal(stop_signals, 100);
  }
  search->Stop();
  display.Show(collect_endpoints(*search));
  display.ClearStatus();
  return display.found() > 0 ? 0 : 1;
}

}  // namespace

void print_search_help() {
  std::printf(
      "usage: sorvalen-mdns search TYPE [options]\n"
      "\n"
      "Browses the local link by multicast DNS for services of TYPE (e.g. _http._tcp),\n"
      "resolves the instances whose names contain one of the filter words and prints\n"
      "each endpoint once, as it is found: instance, type and domain, address:port.\n"
      "\n"
      "options:\n"
      "  --domain D      domain to browse in (default: local.)\n"
      "  --names W1,W2   comma-separated words; an instance is shown when its name\n"
      "                  contains one of them, ignoring case.  Blanks count.  The\n"
      "                  default ',' (one empty word) shows every instance; an empty\n"
      "                  text shows none.\n"
      "  --timeout S     stop after S whole seconds (default: 10; 0: until Ctrl-C)\n"
      "  --interface IF  search only on network interface IF (default: all)\n"
      "  --json          one JSON object per endpoint and line: name, type, domain,\n"
      "                  family (ipv4/ipv6), address, port\n"
      "  -h, --help      this text\n"
      "\n"
      "On a terminal, the time searched so far is shown on stderr.  Ctrl-C stops the\n"
      "search cleanly.  Needs UDP port 5353 (shared with a running mDNS daemon).\n"
      "\n"
      "exit status: 0 devices found, 1 none found, 2 bad input or mDNS unavailable\n");
}

int run_search_command(int argc, char** argv) {
  SearchOptions options;
  const int status = parse_options(argc, argv, &options);
  if (status != 0)
    return status;
  if (options.help) {
    print_search_help();
    return 0;
  }
  return run_search(options);
}
