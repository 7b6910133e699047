// The reverse lookup over one POSIX UDP socket.
#pragma once

#include <netinet/in.h>

#include <string>
#include <thread>

#include "sorvalen/dns_reverse_lookup.h"
#include "sorvalen/export.h"

namespace sorvalen {

// Sends the query from an ephemeral port to port 5353 of the device and waits
// up to 5 s for the first datagram on a thread of its own.  Deleting an object
// of this class (through a pointer of this class, never of the base) is the
// same as DNSReverseLookup::Dispose().
class SORVALEN_API DNSReverseLookupPosix final : public DNSReverseLookup {
 public:
  DNSReverseLookupPosix();
  ~DNSReverseLookupPosix();

  bool Init() override;
  void Destroy() override;
  bool Lookup(unsigned short id, std::string ip_address, std::string query_name) override;

  // Writes the DNS label encoding of the dotted text `host` to `dns`: always
  // strlen(host) + 2 bytes.  `dns` must have room for them.
  void ChangetoDnsNameFormat(unsigned char* dns, const char* host);

  // Decodes the name at `reader` inside the message that starts at `buffer`
  // (a received message of at most 1024 bytes), following compression
  // pointers.  Returns a malloc'ed 256-byte block with the dotted name, no
  // trailing dot, that the caller frees; *count receives the bytes the name
  // occupies at `reader`.  A name that leaves the 1024 bytes, does not fit the
  // block or loops yields the empty text and *count 0.  Returns nullptr when
  // the block cannot be allocated.
  unsigned char* ReadName(unsigned char* reader, unsigned char* buffer, int* count);

  // Body of the receiving thread that every successful Lookup starts.
  void Receive();

 private:
  void CallCallbacks(unsigned short id, bool ok, const IPAddressV4& record);
  void EndOutstandingLookup();
  void JoinReceiveThread();

  int socket_;
  bool initialized_;
  std::thread* receive_thread_;
  sockaddr_in peer_address_;
  int qname_length_;
  unsigned char query_buffer_[1024];
  unsigned char response_buffer_[1024];
  unsigned short query_id_;
};

}  // namespace sorvalen
