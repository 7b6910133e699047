// Wire-form DNS names: lengths, building and taking apart.  (Equality,
// hashing and ancestry are in identity.h.)
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Wire length of a well-formed uncompressed name, root label included; 0 if the
// name is malformed (label over 63, reserved label type, longer than 255).
size_t name_length(const domainname& name);

// Appends `tail` to `head` (head's root label replaced); false if too long.
bool append_name(domainname& head, const domainname& tail);

// Builds <label>.<rest>; false if too long or the label is empty.
bool prepend_label(domainname& out, const domainlabel& label, const domainname& rest);

// Number of labels before the root; 0 for the root and for a malformed name.
size_t label_count(const domainname& name);

// Copies the wire bytes of `in` (only its length); false if `in` is malformed.
bool copy_name(domainname& out, const domainname& in);

// The name's wire form after its first `count` labels; null if the name is
// malformed or has fewer labels.
const uint8_t* skip_labels(const domainname& name, size_t count);

// Case-insensitive (ASCII) comparison of one wire label (length byte first)
// with a text.
bool label_equals(const uint8_t* label, const char* text);

// Whether the name belongs to the link (under local. or a link-local reverse
// zone: 254.169.in-addr.arpa., 8-b.e.f.ip6.arpa.) rather than to unicast DNS.
bool name_is_link_local(const domainname& name);
// The same for a well-formed name whose last label begins at `last_label`
// (as the message reader found it): no walk for a name under local.
bool name_is_link_local(const domainname& name, size_t last_label);

}  // namespace mdns
