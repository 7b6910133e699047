// The checks shared by the commands that search the link: service types,
// domains, and the interface to search on.
#pragma once

#include <string>
#include <vector>

// Empty when TYPE is _name._tcp or _name._udp, else what is wrong with it.
std::string type_problem(const std::string& type);
// Empty when SUBTYPE is one label, else what is wrong with it.
std::string subtype_problem(const std::string& subtype);
std::string domain_problem(const std::string& domain);
// Empty when HOST is a host name of two labels or more.
std::string host_problem(const std::string& host);

// The interface whose name completes link-local addresses ("" when unknown),
// or the exit status 2 after saying why mDNS cannot run here.
int choose_interface(const char* command, const std::string& interface_name, std::string* zone);

// --timeout of a command that watches the link: whole seconds up to a day,
// 0 for no limit.  0, or the exit status 2 after saying what is wrong.
int read_watch_timeout(const char* command, const char* value, int* seconds);
// --interface: a name, not an empty text.  0, or the exit status 2.
int read_interface_name(const char* command, const char* value, std::string* name);

// The words of --names, each without blanks around it; empty words are dropped.
std::vector<std::string> filter_words(const std::string& text);
