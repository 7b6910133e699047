// Wire-form DNS names: lengths, comparison, hashing and text conversions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// Wire length of a well-formed uncompressed name, root label included; 0 if the
// name is malformed (label over 63, reserved label type, longer than 255).
size_t name_length(const domainname& name);

// Case-insensitive (ASCII) equality of two wire-form names.
bool names_equal(const domainname& a, const domainname& b);

// Case-insensitive hash, equal for names that names_equal() says are equal.
uint32_t name_hash(const domainname& name);

// Appends `tail` to `head` (head's root label replaced); false if too long.
bool append_name(domainname& head, const domainname& tail);

// Builds <label>.<rest>; false if too long.
bool prepend_label(domainname& out, const domainlabel& label, const domainname& rest);

// Sets `name` to the root name.
void set_root(domainname& name);

}  // namespace mdns
