// The 'resolve' command: the addresses of a host name, ".local" ones by
// multicast on the link, others by unicast DNS.
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands.h"
#include "help_text.h"
#include "search_input.h"
#include "sorvalen/service_browser.h"
#include "text_output.h"
#include "watch_loop.h"

namespace {

struct ResolveOptions {
  std::string host;
  int timeout_seconds = 5;
  bool json = false;
};

// Once addresses have come, the answer is taken as whole when it has not
// changed for this long (a device may send its families apart).
constexpr double kSettleSeconds = 1.0;

enum : int { kHelp = 'h', kJson = 'j', kTimeout = 't' };

// Returns 0 with usable options, -1 after printing the help, else the exit status.
int parse_options(int argc, char** argv, ResolveOptions* options) {
  static const option kLongOptions[] = {{"help", no_argument, nullptr, kHelp},
                                        {"json", no_argument, nullptr, kJson},
                                        {"timeout", required_argument, nullptr, kTimeout},
                                        {nullptr, 0, nullptr, 0}};
  bool help = false;
  std::vector<std::string> positional;
  const int status = read_command_line(
      "resolve", argc, argv, "hjt:", kLongOptions,
      [&](int option, const char* value) {
        long seconds = 0;
        if (option == kHelp)
          help = true;
        if (option == kJson)
          options->json = true;
        if (option == kTimeout) {
          if (!parse_bounded_number(value, 10, 3600, &seconds) || seconds == 0) {
            return usage_error(
                "resolve", "--timeout takes whole seconds from 1 to 3600, not '" + escape_text(value) + "'");
          }
          options->timeout_seconds = static_cast<int>(seconds);
        }
        return 0;
      },
      &positional);
  if (status != 0)
    return status;
  if (help) {
    print_command_help(stdout, *find_command_help("resolve"));
    return -1;
  }
  if (positional.size() != 1)
    return usage_error("resolve", "give one host name, e.g. printer.local");
  options->host = positional[0];
  const std::string problem = host_problem(options->host);
  return problem.empty() ? 0 : usage_error("resolve", problem);
}

void print(const ResolveOptions& options, const std::string& host,
           const std::vector<sorvalen::ServiceAddress>& addresses) {
  if (!options.json) {
    for (const sorvalen::ServiceAddress& address : addresses)
      std::printf("%s\n", escape_text(address.text).c_str());
    return;
  }
  std::string list;
  for (const sorvalen::ServiceAddress& a : addresses) {
    list += (list.empty() ? "" : ",") + std::string("{\"family\":\"ipv") + (a.ipv6 ? "6" : "4") +
            "\",\"address\":" + json_string(a.text.substr(0, a.text.find('%'))) +
            ",\"interface\":" + (a.interface_name.empty() ? "null" : json_string(a.interface_name)) + "}";
  }
  std::printf("{\"host\":%s,\"addresses\":[%s]}\n", json_string(host).c_str(), list.c_str());
}

struct Answer {
  std::mutex mutex;
  std::string host;
  std::vector<sorvalen::ServiceAddress> addresses;
  int changes = 0;
};

int run_resolve(const ResolveOptions& options) {
  block_stop_signals();
  Answer answer;  // outlives the browser, whose callback fills it
  sorvalen::ServiceBrowser browser;
  if (!start_browser("resolve", &browser))
    return 2;
  std::string error;
  const auto on_addresses = [&](const std::string& host, const std::vector<sorvalen::ServiceAddress>& list) {
    std::lock_guard<std::mutex> lock(answer.mutex);
    answer.host = host;
    answer.addresses = list;
    ++answer.changes;
  };
  if (browser.ResolveHost(options.host, on_addresses, &error) == 0)
    return usage_error("resolve", error);
  int changes_seen = 0;
  double changed_at = 0;
  const WatchEnd end = watch_until(options.timeout_seconds, [&](double elapsed) {
    std::lock_guard<std::mutex> lock(answer.mutex);
    if (answer.changes != changes_seen) {
      changes_seen = answer.changes;
      changed_at = elapsed;
    }
    return answer.addresses.empty() || elapsed - changed_at < kSettleSeconds;
  });
  browser.Stop();
  if (end.stop_signal > 0)
    return 128 + end.stop_signal;
  if (answer.addresses.empty()) {
    std::fprintf(stderr, "sorvalen-mdns resolve: no address for %s within %.1f s\n",
                 escape_text(options.host).c_str(), end.seconds);
    return 1;
  }
  print(options, answer.host, answer.addresses);
  return 0;
}

}  // namespace

int run_resolve_command(int argc, char** argv) {
  ResolveOptions options;
  const int status = parse_options(argc, argv, &options);
  if (status != 0)
    return status < 0 ? 0 : status;
  return run_resolve(options);
}
