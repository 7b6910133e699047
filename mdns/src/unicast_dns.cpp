#include "unicast_dns.h"

namespace mdns {

void unicast_reset(mDNS* m) {
  (void)m;
}
void unicast_close_all(mDNS* m) {
  (void)m;
}
void unicast_question_ready(mDNS* m, DNSQuestion* leader, bool answered) {
  (void)m;
  (void)leader;
  (void)answered;
}
void unicast_ask_now(mDNS* m, DNSQuestion* leader) {
  (void)m;
  (void)leader;
}
void unicast_hand_over(mDNS* m, DNSQuestion* leader, DNSQuestion* heir) {
  (void)m;
  (void)leader;
  (void)heir;
}
void unicast_cancel(mDNS* m, DNSQuestion* leader) {
  (void)m;
  (void)leader;
}
void unicast_run(mDNS* m) {
  (void)m;
}
bool unicast_next_time(mDNS* m, int32_t& when) {
  (void)m;
  (void)when;
  return false;
}
void unicast_add_sockets(mDNS* m, int* nfds, fd_set* readfds) {
  (void)m;
  (void)nfds;
  (void)readfds;
}
void unicast_read_sockets(mDNS* m, fd_set* readfds) {
  (void)m;
  (void)readfds;
}
void unicast_receive(mDNS* m, int socket, const mDNSAddr& source, uint16_t port, const uint8_t* message,
                     size_t length) {
  (void)m;
  (void)socket;
  (void)source;
  (void)port;
  (void)message;
  (void)length;
}

}  // namespace mdns
