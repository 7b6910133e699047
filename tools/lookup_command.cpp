// The 'lookup' command: one reverse lookup through the library's public
// interface: asks ADDRESS, by unicast to its port 5353, for the PTR records of
// NAME and prints the device's name and service port.
#include <arpa/inet.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "argument_reader.h"
#include "commands.h"
#include "sorvalen/dns_reverse_lookup.h"

namespace {

struct LookupOptions {
  std::string address;
  std::string name;
  unsigned short id = 1;
  bool help = false;
};

// The outcome that the lookup's callback hands over to the main thread.
struct Outcome {
  std::mutex mutex;
  std::condition_variable arrived;
  bool done = false;
  bool ok = false;
  sorvalen::IPAddressV4 record;
};

// The lookup reports within about 5 s; this only guards against a hang.
constexpr auto kOutcomeWait = std::chrono::seconds(30);

bool is_dotted_ipv4(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// Returns 0 when the options are usable, else the exit status (after saying why).
int parse_options(int argc, char** argv, LookupOptions* options) {
  ArgumentReader args("lookup", argc, argv);
  std::vector<std::string> positional;
  while (args.next()) {
    if (args.is_help()) {
      options->help = true;
      return 0;
    }
    if (args.current() == "--id") {
      std::string text;
      long id = 0;
      if (!args.take_value(&text))
        return 2;
      if (!parse_bounded_number(text, 0, 0xFFFF, &id))
        return args.fail("--id takes a number from 0 to 65535");
      options->id = static_cast<unsigned short>(id);
    } else if (args.is_option()) {
      return args.fail("unknown option " + args.current());
    } else {
      positional.push_back(args.current());
    }
  }
  if (positional.size() != 2)
    return args.fail("expected an IPv4 address and a name");
  options->address = positional[0];
  options->name = positional[1];
  if (!is_dotted_ipv4(options->address))
    return args.fail("'" + options->address + "' is not an IPv4 address");
  if (options->name.size() > 1006)
    return args.fail("the name is longer than 1006 characters");
  return 0;
}

std::string dotted(uint32_t network_order_address) {
  in_addr address{};
  address.s_addr = network_order_address;
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

// Runs the lookup; 0 with a usable answer, 1 without, 2 when it cannot start.
int run_lookup(const LookupOptions& options) {
  Outcome outcome;
  sorvalen::DNSReverseLookup* lookup = sorvalen::DNSReverseLookup::CreateDNSReverseLookup();
  lookup->connect([&outcome](unsigned short, bool ok, sorvalen::IPAddressV4 record) {
    std::lock_guard<std::mutex> lock(outcome.mutex);
    outcome.done = true;
    outcome.ok = ok;
    outcome.record = std::move(record);
    outcome.arrived.notify_all();
  });
  if (!lookup->Init()) {
    lookup->Dispose();
    std::fprintf(stderr, "sorvalen-mdns lookup: cannot open a UDP socket\n");
    return 2;
  }
  if (!lookup->Lookup(options.id, options.address, options.name)) {
    lookup->Dispose();
    std::fprintf(stderr, "sorvalen-mdns lookup: cannot send the query to %s (bad name or no route)\n",
                 options.address.c_str());
    return 2;
  }
  {
    std::unique_lock<std::mutex> lock(outcome.mutex);
    outcome.arrived.wait_for(lock, kOutcomeWait, [&outcome] { return outcome.done; });
  }
  lookup->Destroy();
  lookup->Dispose();  // after this no callback can run any more

  if (!outcome.ok) {
    std::printf("no usable answer from %s within 5 s\n", options.address.c_str());
    return 1;
  }
  std::printf("ok address=%s port=%u name=%s\n", dotted(outcome.record.address).c_str(),
              static_cast<unsigned>(outcome.record.port), outcome.record.name.c_str());
  return 0;
}

}  // namespace

void print_lookup_help() {
  std::printf(
      "usage: sorvalen-mdns lookup ADDRESS NAME [--id N]\n"
      "\n"
      "Sends one DNS question for the PTR records of NAME (for example _http._tcp.local)\n"
      "by unicast to port 5353 of the IPv4 ADDRESS and waits up to 5 s for the answer.\n"
      "\n"
      "  --id N   the query's ID, 0 to 65535 (default 1)\n"
      "\n"
      "Prints 'ok address=A port=P name=N' for an answer with a PTR and an SRV record\n"
      "(exit 0), or that no usable answer came within 5 s (exit 1). Bad input: exit 2.\n");
}

int run_lookup_command(int argc, char** argv) {
  LookupOptions options;
  const int status = parse_options(argc, argv, &options);
  if (status != 0)
    return status;
  if (options.help) {
    print_lookup_help();
    return 0;
  }
  return run_lookup(options);
}
