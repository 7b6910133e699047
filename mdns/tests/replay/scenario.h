// A replay scenario: a text file of timed steps that drive the core on its
// fake clock, and the packets and events expected in time windows.
//
//   # comment
//   interface eth0 192.168.1.10/24 fe80::10/64   (before the steps; default: eth0 192.168.1.10/24)
//   cache 500                                      (entries; default 128)
//   nameserver 192.0.2.53 [port 53]
//   allow extra sends | allow extra events
//   answer probes                                  (each device answers the core's probes of
//                                                  it at once, with nothing but their
//                                                  questions; those probes need no expect)
//
//   at T browse ID TYPE [DOMAIN] [iface NAME] [then-resolve]   the application starts or stops
//                                                  questions (then-resolve: each add starts a resolve
//                                                  "ID/instance", as the device search does; any
//                                                  start may end in "then-stop ID": its first
//                                                  callback stops that one; "refused": the start
//                                                  must fail)
//   at T resolve ID NAME [iface NAME]
//   at T query ID NAME TYPE
//   at T stop ID
//   at T recv FROM [port P] [iface NAME] [ttl N] [oneshot] [echo|echo-id] [as ADDR] [id N] [flags HEX]
//             [raw HEX...]
//     qd NAME TYPE
//     an|ns|ar NAME TYPE TTL [flush] DATA...       a packet arrives (echo: repeats the last
//     pad N                                        one-shot's or unicast query's ID and
//   at T recv-dns [for NAME TYPE] [from ADDR] [port P] [echo] ...   questions; "for" picks
//                                                  the query, a probe only its device
//                                                  answers ("as ADDR": a forger's echo of a probe
//                                                  of ADDR); "repeat N": N packets, {n} in
//                                                  FROM and their records counting from 1; ttl: the
//                                                  IP TTL, 255 by default; pad: an answer of
//                                                  N bytes that no question asks for; a
//                                                  unicast answer goes to the query's socket,
//                                                  where the core reads it into its 9000-byte
//                                                  buffer; a record line ending
//                                                  "each N": N records, {i} counting)
//   at T iface up NAME ADDR/LEN... | down NAME | recreate NAME    the host's interfaces change
//   at T nameservers [ADDR...]                     the resolver file now lists these (or none)
//   at T serve                                     from now on the name server answers each
//     NAME TYPE TTL DATA... [each N]               unicast query 1 ms after it, from these
//                                                  records ({i/K} in "each" lines counts K
//                                                  at a time); over UDP an answer of more
//                                                  than 512 bytes is an empty one with TC
//
//   expect send T1..T2 [oneshot|dns|tcp] [iface NAME] [v4|v6] [to SERVER] [tc] [qu]
//     q NAME TYPE                                  exactly these questions; and at least
//     known NAME TYPE [DATA...] | noknown NAME TYPE   / none of these known answers
//   expect nosend T1..T2 [oneshot|dns|tcp|multicast]
//   expect event T1..T2 ID add|remove DATA | resolved ADDRESS PORT
//   expect noevent T1..T2 [ID [add|remove DATA | resolved ADDRESS PORT]]
//   expect count T1..T2 ID kind N                  N events of that kind, of slots named ID...
//   expect at-most T1..T2 N [oneshot|dns|tcp] [per P]   no more than N packets of that kind (in
//                                                  any P ms of the window)
//   expect series T1..T2 NAME TYPE                 the multicast queries asking that, one a
//     at T1..T2 | +T1..T2 | +double                line: the first's time, the gap since the
//                                                  one before, or two to two and a bit times
//                                                  the gap before that
//
// Times are milliseconds from the start, up to 1,000,000,000; a window may be
// one time.  Steps run in the file's order and none may be earlier than the one
// before.  Every send and event must be expected, unless the file allows extras.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace replay {

struct Window {
  int32_t from = 0;
  int32_t to = 0;
  bool contains(int32_t t) const { return t >= from && t <= to; }
};

struct Line {
  int number = 0;
  std::vector<std::string> words;
  std::vector<Line> body;  // the indented lines under it
  std::string text;
};

struct Scenario {
  std::string name;
  std::vector<std::vector<std::string>> interfaces;   // "eth0 192.168.1.10/24 ...", in words
  std::vector<std::vector<std::string>> nameservers;  // "ADDR [port P]", in words
  uint32_t cache_entries = 128;
  bool allow_extra_sends = false;
  bool allow_extra_events = false;
  bool answer_probes = false;
  std::vector<Line> actions;       // "at T ...", in the file's order
  std::vector<Line> expectations;  // "expect ..."
  int32_t end = 0;                 // the latest time mentioned
};

// Throws std::runtime_error with the file's name and line on a malformed file.
Scenario read_scenario(const std::string& path);
Window parse_window(const std::string& text);
int32_t parse_time(const std::string& text);

}  // namespace replay
