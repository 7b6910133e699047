// The 'lookup' command: one reverse lookup through the library's public
// interface: asks ADDRESS, by unicast to its port 5353, for the PTR records of
// NAME and prints the device's name and service port.
#include <arpa/inet.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands.h"
#include "help_text.h"
#include "sorvalen/dns_reverse_lookup.h"
#include "text_output.h"

namespace {

using Clock = std::chrono::steady_clock;

struct LookupOptions {
  std::string address;
  std::string name;
  unsigned short id = 1;
  bool json = false;
};

// What the lookup's callback hands over to the main thread.
struct Outcome {
  std::mutex mutex;
  std::condition_variable arrived;
  bool done = false;
  bool ok = false;
  Clock::time_point when;
  sorvalen::IPAddressV4 record;
};

// The library waits 5 s for the answer and reports at once when one arrives;
// its callback says only whether the answer was usable.  A report well before
// the 5 s can only come from an answer that arrived, so an unusable report
// that early means the device answered with something unreadable.
constexpr auto kAnswerWait = std::chrono::seconds(5);
constexpr auto kEarlyReport = std::chrono::milliseconds(4500);
// Only a guard against a hang: the report comes within about 5 s.
constexpr auto kOutcomeWait = std::chrono::seconds(30);

enum : int { kHelp = 'h', kJson = 'j', kId = 256 };

// Returns 0 with usable options, -1 after printing the help, else the exit status.
int parse_options(int argc, char** argv, LookupOptions* options) {
  static const option kLongOptions[] = {{"help", no_argument, nullptr, kHelp},
                                        {"json", no_argument, nullptr, kJson},
                                        {"id", required_argument, nullptr, kId},
                                        {nullptr, 0, nullptr, 0}};
  bool help = false;
  std::vector<std::string> positional;
  const int status = read_command_line(
      "lookup", argc, argv, "hj", kLongOptions,
      [&](int option, const char* value) {
        long id = 0;
        if (option == kHelp) {
          help = true;
        } else if (option == kJson) {
          options->json = true;
        } else if (option == kId) {
          if (!parse_bounded_number(value, 0, 0xFFFF, &id))
            return usage_error("lookup",
                               "--id takes a number from 0 to 65535, not '" + escape_text(value) + "'");
          options->id = static_cast<unsigned short>(id);
        }
        return 0;
      },
      &positional);
  if (status != 0)
    return status;
  if (help) {
    print_command_help(stdout, *find_command_help("lookup"));
    return -1;
  }
  if (positional.size() != 2)
    return usage_error("lookup", "give an IPv4 address and a name, e.g. 192.0.2.10 _http._tcp.local");
  options->address = positional[0];
  options->name = positional[1];
  in_addr address{};
  if (inet_pton(AF_INET, options->address.c_str(), &address) != 1)
    return usage_error("lookup",
                       "'" + escape_text(options->address) + "' is not an IPv4 address such as 192.0.2.10");
  if (options->name.size() > 1006)
    return usage_error("lookup", "the name is longer than 1006 characters");
  return 0;
}

std::string dotted(uint32_t network_order_address) {
  in_addr address{};
  address.s_addr = network_order_address;
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

// The name in double quotes, with quotes escaped like the rest.
std::string quoted(const std::string& name) {
  std::string out = "\"";
  for (const char c : escape_text(name))
    out += c == '"' ? std::string("\\\"") : std::string(1, c);
  return out + "\"";
}

int run_lookup(const LookupOptions& options) {
  Outcome outcome;
  sorvalen::DNSReverseLookup* lookup = sorvalen::DNSReverseLookup::CreateDNSReverseLookup();
  lookup->connect([&outcome](unsigned short, bool ok, sorvalen::IPAddressV4 record) {
    std::lock_guard<std::mutex> lock(outcome.mutex);
    outcome.done = true;
    outcome.ok = ok;
    outcome.when = Clock::now();
    outcome.record = std::move(record);
    outcome.arrived.notify_all();
  });
  if (!lookup->Init()) {
    lookup->Dispose();
    std::fprintf(stderr, "sorvalen-mdns lookup: cannot open a UDP socket\n");
    return 2;
  }
  const Clock::time_point sent = Clock::now();
  if (!lookup->Lookup(options.id, options.address, options.name)) {
    lookup->Dispose();
    std::fprintf(stderr,
                 "sorvalen-mdns lookup: cannot send the question to %s: the name %s is not usable or "
                 "there is no route\n",
                 options.address.c_str(), quoted(options.name).c_str());
    return 2;
  }
  {
    std::unique_lock<std::mutex> lock(outcome.mutex);
    outcome.arrived.wait_for(lock, kOutcomeWait, [&outcome] { return outcome.done; });
  }
  lookup->Destroy();
  lookup->Dispose();  // after this no callback can run any more

  const char* address = options.address.c_str();
  if (outcome.ok) {
    const std::string device = dotted(outcome.record.address);
    if (options.json) {
      std::printf("{\"result\":\"ok\",\"address\":\"%s\",\"port\":%u,\"name\":%s}\n", device.c_str(),
                  static_cast<unsigned>(outcome.record.port), json_string(outcome.record.name).c_str());
    } else {
      std::printf("ok address=%s port=%u name=%s\n", device.c_str(),
                  static_cast<unsigned>(outcome.record.port), quoted(outcome.record.name).c_str());
    }
    return 0;
  }
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(outcome.when - sent);
  if (outcome.done && waited < kEarlyReport) {
    std::fprintf(stderr,
                 "sorvalen-mdns lookup: %s answered, but no PTR and SRV record for %s could be read from the "
                 "answer (it came after %lld ms)\n",
                 address, quoted(options.name).c_str(), static_cast<long long>(waited.count()));
    if (options.json) {
      std::printf("{\"result\":\"unreadable-answer\",\"address\":\"%s\",\"after_ms\":%lld}\n", address,
                  static_cast<long long>(waited.count()));
    }
  } else {
    std::fprintf(stderr, "sorvalen-mdns lookup: no answer from %s for %s within %lld s\n", address,
                 quoted(options.name).c_str(), static_cast<long long>(kAnswerWait.count()));
    if (options.json)
      std::printf("{\"result\":\"no-answer\",\"address\":\"%s\"}\n", address);
  }
  return 1;
}

}  // namespace

int run_lookup_command(int argc, char** argv) {
  LookupOptions options;
  const int status = parse_options(argc, argv, &options);
  if (status != 0)
    return status < 0 ? 0 : status;
  return run_lookup(options);
}
