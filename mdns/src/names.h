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

}  // namespace mdns
