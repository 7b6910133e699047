// The 'types' command: the service types that devices on the link announce.
#include <cstdio>
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

struct TypesOptions {
  std::string domain = "local.";
  int timeout_seconds = 10;
  std::string interface_name;
  bool json = false;
};

struct TypeEvent {
  sorvalen::ServiceEvent event;
  std::string type, domain;
};

enum : int { kHelp = 'h', kJson = 'j', kDomain = 'd', kTimeout = 't', kInterface = 'i' };

int handle_option(int option, const char* value, TypesOptions* options, bool* help) {
  switch (option) {
    case kHelp:
      *help = true;
      break;
    case kJson:
      options->json = true;
      break;
    case kDomain:
      options->domain = value;
      break;
    case kTimeout:
      return read_watch_timeout("types", value, &options->timeout_seconds);
    case kInterface:
      return read_interface_name("types", value, &options->interface_name);
  }
  return 0;
}

// Returns 0 with usable options, -1 after printing the help, else the exit status.
int parse_options(int argc, char** argv, TypesOptions* options) {
  static const option kLongOptions[] = {{"help", no_argument, nullptr, kHelp},
                                        {"json", no_argument, nullptr, kJson},
                                        {"domain", required_argument, nullptr, kDomain},
                                        {"timeout", required_argument, nullptr, kTimeout},
                                        {"interface", required_argument, nullptr, kInterface},
                                        {nullptr, 0, nullptr, 0}};
  bool help = false;
  std::vector<std::string> positional;
  const int status = read_command_line(
      "types", argc, argv, "hjd:t:i:", kLongOptions,
      [&](int option, const char* value) { return handle_option(option, value, options, &help); },
      &positional);
  if (status != 0)
    return status;
  if (help) {
    print_command_help(stdout, *find_command_help("types"));
    return -1;
  }
  if (!positional.empty())
    return usage_error("types", "takes no words but options, not '" + escape_text(positional[0]) + "'");
  const std::string problem = domain_problem(options->domain);
  return problem.empty() ? 0 : usage_error("types", problem);
}

void print(const TypesOptions& options, const TypeEvent& e) {
  const bool added = e.event == sorvalen::ServiceEvent::kAdded;
  if (options.json) {
    std::printf("{\"event\":\"%s\",\"type\":%s,\"domain\":%s}\n", added ? "add" : "remove",
                json_string(e.type).c_str(), json_string(e.domain).c_str());
  } else {
    std::printf("%c\t%s\t%s\n", added ? '+' : '-', escape_text(e.type).c_str(),
                escape_text(e.domain).c_str());
  }
}

int run_types(const TypesOptions& options) {
  std::string zone;
  if (const int status = choose_interface("types", options.interface_name, &zone); status != 0)
    return status;
  block_stop_signals();
  EventInbox<TypeEvent> inbox;  // outlives the browser, whose callbacks fill it
  sorvalen::ServiceBrowser browser;
  if (!start_browser("types", &browser))
    return 2;
  std::string error;
  const auto on_type = [&](sorvalen::ServiceEvent event, const std::string& type, const std::string& domain) {
    inbox.Put({event, type, domain});
  };
  if (browser.BrowseTypes(options.domain, options.interface_name, on_type, &error) == 0) {
    std::fprintf(stderr, "sorvalen-mdns types: the search could not start: %s\n", escape_text(error).c_str());
    return 2;
  }
  size_t present = 0;
  bool found = false;
  StatusLine status(options.timeout_seconds);
  const auto show_changes = [&] {
    for (const TypeEvent& event : inbox.Take()) {
      status.Clear();
      print(options, event);
      found = true;
      event.event == sorvalen::ServiceEvent::kAdded ? ++present : --present;
    }
    std::fflush(stdout);
  };
  const WatchEnd end = watch_until(options.timeout_seconds, [&](double elapsed) {
    show_changes();
    status.Show(elapsed, present, "types");
    return true;
  });
  show_changes();
  status.Clear();
  browser.Stop();
  if (!found && end.stop_signal == 0) {
    std::fprintf(stderr, "sorvalen-mdns types: no device announced a service type in %s%s%s within %.1f s\n",
                 escape_text(options.domain).c_str(), options.interface_name.empty() ? "" : " on ",
                 escape_text(options.interface_name).c_str(), end.seconds);
  }
  if (end.stop_signal > 0)
    return 128 + end.stop_signal;
  return found ? 0 : 1;
}

}  // namespace

int run_types_command(int argc, char** argv) {
  TypesOptions options;
  const int status = parse_options(argc, argv, &options);
  if (status != 0)
    return status < 0 ? 0 : status;
  return run_types(options);
}
