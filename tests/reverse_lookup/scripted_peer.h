// A device stand-in on loopback: receives the lookup's query on port 5353 and
// answers with whatever bytes a test scripts.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace sorvalen::test {

// Moves the calling thread (and so every socket, thread and child process it
// creates later) into a fresh network namespace whose only interface is a
// loopback that is up, so the tests own port 5353.  Without the privilege for
// that, the tests stay on the machine's own loopback.
void enter_private_loopback();

struct ReceivedQuery {
  std::vector<uint8_t> bytes;
  sockaddr_in sender{};
};

class ScriptedPeer {
 public:
  ScriptedPeer();  // binds 127.0.0.1:5353; throws std::runtime_error
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  // The next datagram, waiting at most `wait`; false when none came.
  bool await_query(ReceivedQuery* query, std::chrono::milliseconds wait = std::chrono::seconds(20));
  void reply(const ReceivedQuery& to, const std::vector<uint8_t>& message);

 private:
  int socket_ = -1;
};

}  // namespace sorvalen::test
