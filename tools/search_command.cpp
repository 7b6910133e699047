// The 'search' command: a browse of one service type through the library's
// ServiceBrowser, printing endpoints (with their instance's TXT) as they
// appear, change and go away.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands.h"
#include "endpoint_view.h"
#include "help_text.h"
#include "search_input.h"
#include "sorvalen/service_browser.h"
#include "text_output.h"
#include "txt_output.h"
#include "watch_loop.h"

namespace {

struct SearchOptions {
  std::string type;
  std::string subtype;
  std::string domain = "local.";
  std::vector<std::string> names;  // empty: every instance
  int timeout_seconds = 10;
  std::string interface_name;
  bool json = false;
};

enum : int {
  kHelp = 'h',
  kJson = 'j',
  kNames = 'n',
  kDomain = 'd',
  kTimeout = 't',
  kInterface = 'i',
  kSubtype = 's'
};

int handle_option(int option, const char* value, SearchOptions* options, bool* help) {
  switch (option) {
    case kHelp:
      *help = true;
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
      return read_watch_timeout("search", value, &options->timeout_seconds);
    case kInterface:
      return read_interface_name("search", value, &options->interface_name);
    case kSubtype:
      options->subtype = value;
      break;
  }
  return 0;
}

// Returns 0 with usable options, -1 after printing the help, else the exit status.
int parse_options(int argc, char** argv, SearchOptions* options) {
  static const option kLongOptions[] = {{"help", no_argument, nullptr, kHelp},
                                        {"json", no_argument, nullptr, kJson},
                                        {"names", required_argument, nullptr, kNames},
                                        {"domain", required_argument, nullptr, kDomain},
                                        {"timeout", required_argument, nullptr, kTimeout},
                                        {"interface", required_argument, nullptr, kInterface},
                                        {"subtype", required_argument, nullptr, kSubtype},
                                        {nullptr, 0, nullptr, 0}};
  bool help = false;
  std::vector<std::string> positional;
  const int status = read_command_line(
      "search", argc, argv, "hjn:d:t:i:s:", kLongOptions,
      [&](int option, const char* value) { return handle_option(option, value, options, &help); },
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
  if (problem.empty() && !options->subtype.empty())
    problem = subtype_problem(options->subtype);
  if (problem.empty())
    problem = domain_problem(options->domain);
  return problem.empty() ? 0 : usage_error("search", problem);
}

// ASCII letters only, as the help says.
bool contains_ignoring_case(const std::string& text, const std::string& word) {
  const auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
  return std::search(text.begin(), text.end(), word.begin(), word.end(),
                     [&](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

bool admitted(const std::vector<std::string>& words, const std::string& name) {
  return words.empty() || std::any_of(words.begin(), words.end(), [&](const std::string& word) {
           return contains_ignoring_case(name, word);
         });
}

struct InstanceEvent {
  sorvalen::ServiceEvent event;
  sorvalen::ServiceInstance instance;
};

void print_json(const EndpointEvent& event, const sorvalen::ServiceInstance& i) {
  static const char* const kNames[] = {"add", "remove", "update"};
  const Endpoint& e = event.endpoint;
  std::printf(
      "{\"event\":\"%s\",\"name\":%s,\"type\":%s,\"domain\":%s,\"family\":\"ipv%d\",\"address\":\"%s\","
      "\"port\":%u,\"interface\":%s",
      kNames[static_cast<int>(event.kind)], json_string(i.name).c_str(), json_string(i.type).c_str(),
      json_string(i.domain).c_str(), e.family, e.address.c_str(), e.port,
      e.interface_name.empty() ? "null" : json_string(e.interface_name).c_str());
  if (event.kind == EventKind::kUpdate)
    std::printf(",\"old_port\":%u", event.old_port);
  if (event.kind != EventKind::kRemove)
    std::printf(",\"txt\":%s", txt_json(i.txt).c_str());
  std::printf("}\n");
}

void print_text(const EndpointEvent& event, const sorvalen::ServiceInstance& i) {
  static const char kMarks[] = {'+', '-', '~'};
  const Endpoint& e = event.endpoint;
  const std::string endpoint = e.family == 6 ? "[" + e.shown_address + "]" : e.shown_address;
  // The TXT column only where there is TXT, so that lines without stay as they were.
  const std::string txt = event.kind == EventKind::kRemove || i.txt.empty() ? "" : "\t" + txt_text(i.txt);
  std::printf("%c\t%s\t%s%s\t%s:%u%s\n", kMarks[static_cast<int>(event.kind)], escape_text(i.name).c_str(),
              escape_text(i.type).c_str(), escape_text(i.domain).c_str(), escape_text(endpoint).c_str(),
              e.port, txt.c_str());
}

std::string joined_names(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : " or ") + json_string(word);
  return text;
}

void report_nothing_found(const SearchOptions& options, double seconds) {
  const std::string type =
      options.subtype.empty() ? options.type : options.subtype + " (" + options.type + ")";
  std::fprintf(stderr, "sorvalen-mdns search: found no %s service in %s%s%s%s%s within %.1f s\n",
               escape_text(type).c_str(), escape_text(options.domain).c_str(),
               options.names.empty() ? "" : " whose name contains ", joined_names(options.names).c_str(),
               options.interface_name.empty() ? "" : " on ", escape_text(options.interface_name).c_str(),
               seconds);
}

int run_search(const SearchOptions& options) {
  std::string zone;
  if (const int status = choose_interface("search", options.interface_name, &zone); status != 0)
    return status;
  block_stop_signals();
  EventInbox<InstanceEvent> inbox;  // outlives the browser, whose callbacks fill it
  sorvalen::ServiceBrowser browser;
  if (!start_browser("search", &browser))
    return 2;
  std::string error;
  const sorvalen::BrowseRequest request{options.type, options.subtype, options.domain,
                                        options.interface_name};
  if (browser.Browse(
          request,
          [&](sorvalen::ServiceEvent event, const sorvalen::ServiceInstance& instance) {
            if (admitted(options.names, instance.name))
              inbox.Put({event, instance});
          },
          &error) == 0) {
    std::fprintf(stderr, "sorvalen-mdns search: the search could not start: %s\n",
                 escape_text(error).c_str());
    return 2;
  }

  EndpointView view;
  StatusLine status(options.timeout_seconds);
  const auto show_changes = [&] {
    for (const InstanceEvent& change : inbox.Take()) {
      for (const EndpointEvent& event : view.Follow(change.event, change.instance)) {
        status.Clear();
        options.json ? print_json(event, change.instance) : print_text(event, change.instance);
      }
    }
    std::fflush(stdout);
  };
  const WatchEnd end = watch_until(options.timeout_seconds, [&](double elapsed) {
    show_changes();
    status.Show(elapsed, view.shown(), "shown");
    return true;
  });
  show_changes();
  status.Clear();
  browser.Stop();
  if (!view.ever_found() && end.stop_signal == 0)
    report_nothing_found(options, end.seconds);
  if (end.stop_signal > 0)
    return 128 + end.stop_signal;
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
