// The reverse lookup: asks one device, by a single unicast DNS query, for the
// PTR records of a name and reports the outcome to connected callbacks.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "sorvalen/export.h"
#include "sorvalen/ip_address.h"

namespace sorvalen {

// Called once per lookup with the lookup's id, whether the answer held both a
// PTR and an SRV record, and the device's record (sender address, SRV port, PTR
// target name; empty unless ok).
using LookupCallback = std::function<void(unsigned short, bool, IPAddressV4)>;

// Usage: CreateDNSReverseLookup(), connect() the callbacks, Init(), any number
// of Lookup() calls (each after the callbacks of the previous one have run),
// Destroy(), and finally Dispose().
//
// Callbacks run on a thread of the object.  Connect and disconnect only while
// no lookup is outstanding, and never from inside a callback.
//
// Disposal: the class has no virtual destructor, so never `delete` a pointer
// of this type.  Call Dispose() instead; it may be called at any time from the
// application's thread, also while a lookup is outstanding: the outstanding
// lookup then ends at once, its callbacks are called with ok false, and the
// object is freed after they have returned.  Dispose() must not be called from
// inside a callback.
class SORVALEN_API DNSReverseLookup {
 public:
  // A new lookup object that the caller owns; it opens nothing until Init().
  static DNSReverseLookup* CreateDNSReverseLookup();

  DNSReverseLookup(const DNSReverseLookup&) = delete;
  DNSReverseLookup& operator=(const DNSReverseLookup&) = delete;

  virtual bool Init() = 0;
  virtual void Destroy() = 0;
  // ip_address: dotted IPv4 text; query_name: dotted name whose PTR records are
  // asked for.  False when busy, when the input is unusable or the send fails.
  virtual bool Lookup(unsigned short id, std::string ip_address, std::string query_name) = 0;

  // Appends a callback; duplicates and empty wrappers are accepted (an empty
  // one is never called).
  void connect(LookupCallback callback);
  // Removes the earliest entry wrapping the same plain function as `callback`.
  // Only entries that wrap a plain function of exactly the callback's
  // signature can be removed; lambdas, bound members and other function
  // objects stay connected for the object's life.
  void disconnect(LookupCallback callback);

  // Ends any outstanding lookup, closes the socket and frees the object.
  void Dispose();

 protected:
  DNSReverseLookup();
  ~DNSReverseLookup();

  std::atomic<bool> busy_;
  std::vector<LookupCallback> callbacks_;
};

}  // namespace sorvalen
