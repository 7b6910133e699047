#include "sorvalen/dns_reverse_lookup.h"

#include <utility>

#include "sorvalen/dns_reverse_lookup_posix.h"

namespace sorvalen {
namespace {

using PlainCallback = void (*)(unsigned short, bool, IPAddressV4);

// The plain function a callback wraps, or null when it wraps anything else.
PlainCallback wrapped_function(const LookupCallback& callback) {
  const PlainCallback* target = callback.target<PlainCallback>();
  return target != nullptr ? *target : nullptr;
}

}  // namespace

DNSReverseLookup::DNSReverseLookup() : busy_(false) {}

DNSReverseLookup::~DNSReverseLookup() = default;

void DNSReverseLookup::connect(LookupCallback callback) {
  callbacks_.push_back(std::move(callback));
}

void DNSReverseLookup::disconnect(LookupCallback callback) {
  if (callbacks_.empty())
    return;
  const PlainCallback wanted = wrapped_function(callback);
  if (wanted == nullptr)
    return;
  for (auto entry = callbacks_.begin(); entry != callbacks_.end(); ++entry) {
    if (wrapped_function(*entry) == wanted) {
      callbacks_.erase(entry);
      return;
    }
  }
}

void DNSReverseLookup::Dispose() {
  // Objects come only from CreateDNSReverseLookup; anything else is left alone.
  delete dynamic_cast<DNSReverseLookupPosix*>(this);
}

}  // namespace sorvalen
