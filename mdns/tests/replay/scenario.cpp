#include "scenario.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace replay {
namespace {

std::vector<std::string> words_of(const std::string& text) {
  std::istringstream in(text.substr(0, text.find('#')));
  std::vector<std::string> words;
  for (std::string w; in >> w;) {
    words.push_back(w);
  }
  return words;
}

[[noreturn]] void fail(const std::string& file, const Line& line, const std::string& why) {
  throw std::runtime_error(file + ":" + std::to_string(line.number) + ": " + why + ": " + line.text);
}

}  // namespace

int32_t parse_time(const std::string& text) {
  size_t used = 0;
  const long value = std::stol(text, &used);
  // The fake clock counts in 32 bits from an epoch of its own.
  if (used != text.size() || value < 0 || value > 1000000000) {
    throw std::invalid_argument("bad time " + text);
  }
  return static_cast<int32_t>(value);
}

Window parse_window(const std::string& text) {
  const size_t dots = text.find("..");
  return {parse_time(text.substr(0, dots)),
          parse_time(dots == std::string::npos ? text : text.substr(dots + 2))};
}

Scenario read_scenario(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    throw std::runtime_error("cannot read " + path);
  }
  Scenario s;
  s.name = path;
  std::vector<Line> lines;
  std::string text;
  for (int number = 1; std::getline(in, text); ++number) {
    Line line{number, words_of(text), {}, text};
    if (line.words.empty()) {
      continue;
    }
    const bool indented = text[0] == ' ' || text[0] == '\t';
    if (indented) {
      if (lines.empty()) {
        fail(path, line, "an indented line needs a step above it");
      }
      lines.back().body.push_back(line);
    } else {
      lines.push_back(line);
    }
  }
  for (const Line& line : lines) {
    const auto& w = line.words;
    try {
      if (w[0] == "interface" && w.size() >= 2) {
        s.interfaces.emplace_back(w.begin() + 1, w.end());
      } else if (w[0] == "nameserver" && w.size() >= 2) {
        s.nameservers.emplace_back(w.begin() + 1, w.end());
      } else if (w[0] == "cache" && w.size() == 2) {
        s.cache_entries = static_cast<uint32_t>(std::stoul(w[1]));
      } else if (w[0] == "allow" && w.size() == 3 && w[2] == "sends") {
        s.allow_extra_sends = true;
      } else if (w[0] == "allow" && w.size() == 3 && w[2] == "events") {
        s.allow_extra_events = true;
      } else if (w[0] == "answer" && w.size() == 2 && w[1] == "probes") {
        s.answer_probes = true;
      } else if (w[0] == "at" && w.size() >= 3) {
        s.end = std::max(s.end, parse_time(w[1]));
        s.actions.push_back(line);
      } else if (w[0] == "expect" && w.size() >= 3) {
        s.end = std::max(s.end, parse_window(w[2]).to);
        s.expectations.push_back(line);
      } else {
        fail(path, line, "unknown step");
      }
    } catch (const std::invalid_argument& e) {
      fail(path, line, e.what());
    }
  }
  if (s.interfaces.empty()) {
    s.interfaces.push_back({"eth0", "192.168.1.10/24"});
  }
  return s;
}

}  // namespace replay
