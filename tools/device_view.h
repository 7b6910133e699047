// What the search has found, followed from one look at its lists to the next
// and told as events: an endpoint appeared, went away, or moved to another port.
#pragma once

#include <string>
#include <tuple>
#include <vector>

struct Endpoint {
  std::string name;  // instance
  std::string type;
  std::string domain;
  int family = 4;       // 4 or 6
  std::string address;  // without a zone
  unsigned port = 0;

  auto key() const { return std::tie(name, type, domain); }
  bool operator==(const Endpoint& other) const {
    return key() == other.key() && family == other.family && address == other.address && port == other.port;
  }
};

enum class EventKind { kAdd, kRemove, kUpdate };

struct Event {
  EventKind kind;
  Endpoint endpoint;
  unsigned old_port = 0;  // kUpdate: the port the endpoint had before
};

// The search's lists only ever grow at their end (each resolve result is
// appended, repeats included) and lose a record only when its instance is
// withdrawn (the withdrawal erases the instance's first record).  So:
//  - a record not seen before is an endpoint that appeared, unless it is
//    already shown; when it differs from a shown endpoint of the same instance
//    and address only in the port, the instance moved to that port (the
//    record with the old port stays in the list and is no longer shown);
//  - a record that disappeared means its instance was withdrawn: every shown
//    endpoint of that instance goes.
class DeviceView {
 public:
  // `lists`: the IPv4 and the IPv6 list, each in list order, as they are now.
  std::vector<Event> Follow(const std::vector<Endpoint> (&lists)[2]);

  size_t shown() const { return shown_.size(); }
  bool ever_found() const { return ever_found_; }

 private:
  std::vector<Endpoint> seen_[2];
  std::vector<Endpoint> shown_;
  bool ever_found_ = false;
};
