// A search without an engine that counts its Stop calls and shows its flags.
#pragma once

#include "sorvalen/mdns_search.h"

namespace sorvalen_test {

class RecordingSearch : public sorvalen::MDNSSearch {
 public:
  ~RecordingSearch() override = default;

  void Stop() override {
    ++stop_calls;
    MDNSSearch::Stop();
  }

  bool started() const { return started_; }
  bool stop_requested() const { return stop_requested_; }
  int timeout_seconds() const { return timeout_seconds_; }
  const std::string& service_type() const { return service_type_; }
  const std::string& domain() const { return domain_; }
  void set_running(bool running) { running_ = running; }

  int stop_calls = 0;
};

// Gives a test the flags of a plain base object.
class PlainSearch : public sorvalen::MDNSSearch {
 public:
  bool started() const { return started_; }
  bool stop_requested() const { return stop_requested_; }
};

}  // namespace sorvalen_test
