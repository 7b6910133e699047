// Names between the texts of the browser's interface and the core's wire form.
#pragma once

#include <string>

#include "mdns/mdns.h"

namespace sorvalen::browser {

// Dotted text ("_http._tcp", "printer.local.") to wire form; false when it is
// empty or too long.
bool name_from_text(const std::string& text, domainname* name);

// `head` followed by `tail`, both dotted texts; false when too long or empty.
bool joined_name(const std::string& head, const std::string& tail, domainname* name);

// Dotted text with a trailing dot; label bytes as they are, except '.' and '\'
// inside a label, escaped so the text reads back as the same name.
std::string text_of(const domainname& name);

// The first label's bytes, unescaped.
std::string first_label(const domainname& name);

// The name after its first `count` labels, as text; empty when it has fewer.
std::string text_after(const domainname& name, int count);

// The first `count` labels as text, with a trailing dot.
std::string text_before(const domainname& name, int count);

int labels_in(const domainname& name);

bool same_name(const domainname& a, const domainname& b);

// The interface's name in the core, "" when unknown (and for unicast DNS).
std::string interface_name_of(const mDNS* m, mDNSInterfaceID id);
// Whether the core uses an interface of that name, and its ID.
bool interface_id_of(const mDNS* m, const std::string& name, mDNSInterfaceID* id);

}  // namespace sorvalen::browser
