#include "help_text.h"

#include <algorithm>
#include <cctype>

#ifndef SORVALEN_VERSION
#define SORVALEN_VERSION "unknown"
#endif

namespace {

constexpr const char* kTool = "sorvalen-mdns";
constexpr const char* kPurpose = "find devices on the local network by multicast DNS";

const std::vector<const char*> kOverview = {
    "Finds devices on the local network by multicast DNS service discovery (mDNS, DNS-SD), without a "
    "daemon, with their TXT attributes; lists the service types on the link, prints a host name's "
    "addresses, and asks a single device by unicast for the services behind a name. On the link it "
    "sends only there, and it shares UDP port 5353 with a running mDNS daemon such as avahi-daemon; "
    "other domains than local. are asked of the DNS servers of /etc/resolv.conf.",
};

const std::vector<const char*> kExamples = {
    "sorvalen-mdns search _http._tcp",
    "sorvalen-mdns search --names tv,speaker --timeout 5 --json _googlecast._tcp",
    "sorvalen-mdns search --subtype _printer _http._tcp",
    "sorvalen-mdns types",
    "sorvalen-mdns resolve printer.local",
    "sorvalen-mdns lookup 192.0.2.10 _http._tcp.local",
};

const std::vector<CommandHelp> kCommands = {
    {"search",
     "search [options] TYPE",
     "browse the local link for a service type and print the devices found",
     {
         {"",
          {"Browses the local link by multicast DNS for services of TYPE, resolves the instances whose names "
           "contain one of the --names words and prints a line for each endpoint (address and port) when it "
           "appears, changes (another port, or new TXT attributes) or goes away.",
           "TYPE is a service type, _name._tcp or _name._udp, for example _http._tcp or _ipp._tcp; the "
           "domain is given with --domain."},
          {}},
         {"options",
          {},
          {{"-n, --names W1,W2",
            "comma-separated words; an instance is shown when its name contains one of them, ignoring the "
            "case of ASCII letters. Blanks around a word are ignored. Default: every instance."},
           {"-s, --subtype S",
            "only instances of the subtype S of TYPE (one label, e.g. _printer for printers among "
            "_http._tcp)"},
           {"-d, --domain D", "the domain to browse in (default: local.; others are asked by unicast DNS)"},
           {"-t, --timeout S", "stop after S seconds (whole seconds, default 10; 0: until Ctrl-C)"},
           {"-i, --interface IF", "search only on the network interface IF (default: every usable one)"},
           {"-j, --json", "one JSON object per line instead of text"},
           {"-h, --help", "this text"}}},
         {"output",
          {"Text: one line per event, four columns separated by tabs: the event (+ appeared, - went away, "
           "~ changed: another port or new TXT), the instance name, the service type and domain, and the "
           "endpoint, address:port or [IPv6 address]:port; on + and ~ lines of an instance with TXT "
           "attributes, a fifth column holds them: key=value (or key alone, for a key without a value) "
           "separated by blanks, with blanks inside written \\x20. In names and TXT, backslashes, control "
           "characters, line and "
           "paragraph separators, invisible and formatting characters (those that reorder text among them) "
           "and bytes that are not UTF-8 are written as escapes (\\\\, \\n, \\t, \\xHH, \\uHHHH, "
           "\\UHHHHHHHH), so every line is one event, also for a reader that splits lines at U+2028.",
           "JSON: one object per line with the members event (add, remove or update), name, type, domain, "
           "family (ipv4 or ipv6), address, port, interface (its name when known, else null), for "
           "update old_port, and for add and update txt: an object of the TXT attributes in the device's "
           "order, each value a string, null for a key without a value, or {\"hex\":\"00ff\"} for a value "
           "that is not UTF-8. The same characters are escaped in strings (\\uHHHH).",
           "An IPv6 link-local address is shown with its interface as the zone (fe80::1%eth0).",
           "When an instance is withdrawn, each of its endpoints is shown going away. When it moves to "
           "another port or changes its TXT, its endpoints are shown again with ~; the old port is no longer "
           "shown. A device that keeps changing is shown at a falling rate, at most about once a second.",
           "On a terminal, the time searched so far is shown on stderr. When nothing is found, a line on "
           "stderr says so. Ctrl-C or SIGTERM stops the search."},
          {}},
         {"exit status",
          {"0 one or more devices found; 1 none found; 2 bad input, or mDNS unavailable (no usable network "
           "interface, or UDP port 5353 held exclusively by another program); 130 stopped by Ctrl-C "
           "(SIGINT), 143 by SIGTERM."},
          {}},
     }},
    {"types",
     "types [options]",
     "list the service types that devices on the local link announce",
     {
         {"",
          {"Browses the local link for the list of service types (the DNS-SD name _services._dns-sd._udp) "
           "and prints a line for each type when the first device announces it and when the last one "
           "withdraws it."},
          {}},
         {"options",
          {},
          {{"-d, --domain D", "the domain whose types to list (default: local.)"},
           {"-t, --timeout S", "stop after S seconds (whole seconds, default 10; 0: until Ctrl-C)"},
           {"-i, --interface IF", "only the network interface IF (default: every usable one)"},
           {"-j, --json", "one JSON object per line instead of text"},
           {"-h, --help", "this text"}}},
         {"output",
          {"Text: one line per event, three columns separated by tabs: + or -, the type (_http._tcp.) and "
           "the domain (local.), escaped as search escapes names.",
           "JSON: one object per line with the members event (add or remove), type and domain."},
          {}},
         {"exit status",
          {"0 one or more types found; 1 none found; 2 bad input, or mDNS unavailable; 130 stopped by "
           "Ctrl-C (SIGINT), 143 by SIGTERM."},
          {}},
     }},
    {"resolve",
     "resolve [options] HOST",
     "print the addresses of a host name",
     {
         {"",
          {"Asks for the IPv4 and IPv6 addresses of HOST: a name under local. (printer.local) by multicast "
           "DNS on the link, any other name by unicast DNS to the name servers of /etc/resolv.conf. Waits "
           "until addresses have come and no more came for a second, or until the time limit."},
          {}},
         {"options",
          {},
          {{"-t, --timeout S", "give up after S seconds (1 to 3600, default 5)"},
           {"-j, --json", "one JSON object instead of text"},
           {"-h, --help", "this text"}}},
         {"output",
          {"Text: one address per line; an IPv6 link-local address with its interface as the zone "
           "(fe80::1%eth0).",
           "JSON: one object with the members host and addresses, a list of objects with family (ipv4 or "
           "ipv6), address and interface (null for unicast DNS)."},
          {}},
         {"exit status",
          {"0 one or more addresses; 1 none within the time limit; 2 bad input, or mDNS unavailable; 130 "
           "stopped by Ctrl-C (SIGINT), 143 by SIGTERM."},
          {}},
     }},
    {"lookup",
     "lookup [options] ADDRESS NAME",
     "ask one device by unicast for the PTR records of a name",
     {
         {"",
          {"Sends one DNS question for the PTR records of NAME (for example _http._tcp.local) by unicast to "
           "port 5353 of the IPv4 ADDRESS and waits up to 5 seconds for the answer."},
          {}},
         {"options",
          {},
          {{"--id N", "the query's ID, 0 to 65535 (default 1)"},
           {"-j, --json", "one JSON object instead of text"},
           {"-h, --help", "this text"}}},
         {"output",
          {"For an answer with a PTR and an SRV record: ok address=A port=P name=\"N\", where quotes, "
           "backslashes and control characters in N are escaped. Otherwise a line on stderr tells whether no "
           "answer came within 5 seconds, or the device answered (and how soon) but no PTR and SRV record "
           "could be "
           "read from its answer.",
           "The name is the target of the last PTR record of the answer and the port that of its last SRV "
           "record. A device with several instances of the service answers with several of each, so the "
           "port may belong to another instance than the name; the search command pairs them correctly.",
           "JSON: one object with the members result (ok, no-answer or unreadable-answer) and address; for "
           "ok also port and name, for unreadable-answer also after_ms."},
          {}},
         {"exit status",
          {"0 a usable answer; 1 no answer, or none that could be read; 2 bad input, or the question could "
           "not be sent."},
          {}},
     }},
};

// Running text broken into lines of at most `width` characters, the first
// going on from `column`, the others starting after `indent` blanks.
void print_wrapped(FILE* out, const std::string& text, size_t indent, size_t column, size_t width) {
  bool line_empty = true;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find(' ', at), text.size());
    const std::string word = text.substr(at, end - at);
    if (!line_empty && column + 1 + word.size() > width) {
      std::fprintf(out, "\n%s", std::string(indent, ' ').c_str());
      column = indent;
      line_empty = true;
    }
    std::fprintf(out, "%s%s", line_empty ? "" : " ", word.c_str());
    column += word.size() + (line_empty ? 0 : 1);
    line_empty = false;
    at = end + 1;
  }
  std::fputc('\n', out);
}

constexpr size_t kWidth = 79;
constexpr size_t kOptionColumn = 22;

// Roff text: backslashes and minus signs escaped, no line that starts a request.
std::string roff(const std::string& text) {
  std::string out = text.empty() || (text[0] != '.' && text[0] != '\'') ? "" : "\\&";
  for (const char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
  }
  return out;
}

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

std::string capitalized(std::string text) {
  text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  return text;
}

}  // namespace

const std::vector<CommandHelp>& command_helps() {
  return kCommands;
}

const CommandHelp* find_command_help(const std::string& name) {
  for (const CommandHelp& help : kCommands) {
    if (name == help.name)
      return &help;
  }
  return nullptr;
}

void print_overview(FILE* out) {
  std::fprintf(out, "usage: %s <command> [options] ...\n", kTool);
  std::fprintf(out, "       %s help [<command>]\n       %s --version\n\n", kTool, kTool);
  for (const char* paragraph : kOverview)
    print_wrapped(out, paragraph, 0, 0, kWidth);
  std::fputs("\ncommands:\n", out);
  for (const CommandHelp& help : kCommands)
    std::fprintf(out, "  %-8s %s\n", help.name, help.summary);
  std::fputs("\nexamples:\n", out);
  for (const char* example : kExamples)
    std::fprintf(out, "  %s\n", example);
  std::fprintf(out, "\nRun '%s help <command>' for a command's options and output.\n", kTool);
}

void print_command_help(FILE* out, const CommandHelp& help) {
  std::fprintf(out, "usage: %s %s\n", kTool, help.synopsis);
  for (const HelpSection& section : help.sections) {
    std::fputc('\n', out);
    if (*section.title != '\0')
      std::fprintf(out, "%s:\n", section.title);
    for (size_t i = 0; i < section.paragraphs.size(); ++i) {
      if (i > 0)
        std::fputc('\n', out);
      print_wrapped(out, section.paragraphs[i], 0, 0, kWidth);
    }
    for (const HelpOption& option : section.options) {
      std::string flags = std::string("  ") + option.flags;
      flags += flags.size() + 2 > kOptionColumn ? "\n" + std::string(kOptionColumn, ' ')
                                                : std::string(kOptionColumn - flags.size(), ' ');
      std::fputs(flags.c_str(), out);
      print_wrapped(out, option.text, kOptionColumn, kOptionColumn, kWidth);
    }
  }
}

void print_version(FILE* out) {
  std::fprintf(out, "%s %s\n", kTool, SORVALEN_VERSION);
}

std::string manual_page() {
  std::string page =
      ".TH " + upper(kTool) + " 1 \"\" \"" + kTool + " " + SORVALEN_VERSION + "\" \"User Commands\"\n";
  page += ".SH NAME\n" + roff(kTool) + " \\- " + roff(kPurpose) + "\n.SH SYNOPSIS\n.nf\n";
  for (const CommandHelp& help : kCommands)
    page += "\\fB" + roff(kTool) + "\\fR " + roff(help.synopsis) + "\n";
  page +=
      "\\fB" + roff(kTool) + "\\fR help [\\fIcommand\\fR]\n\\fB" + roff(kTool) + "\\fR \\-\\-version\n.fi\n";
  page += ".SH DESCRIPTION\n";
  for (const char* paragraph : kOverview)
    page += roff(paragraph) + "\n";
  for (const CommandHelp& help : kCommands) {
    page += ".SH " + upper(help.name) + "\n";
    for (const HelpSection& section : help.sections) {
      if (*section.title != '\0')
        page += ".SS \"" + roff(capitalized(section.title)) + "\"\n";
      for (const char* paragraph : section.paragraphs)
        page += ".PP\n" + roff(paragraph) + "\n";
      for (const HelpOption& option : section.options)
        page += ".TP\n.B " + roff(option.flags) + "\n" + roff(option.text) + "\n";
    }
  }
  page += ".SH EXAMPLES\n.nf\n";
  for (const char* example : kExamples)
    page += roff(example) + "\n";
  page += ".fi\n.SH SEE ALSO\n\\fBavahi\\-browse\\fR(1)\n";
  return page;
}
