#include "sorvalen/dns_reverse_lookup_posix.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "reverse_lookup/answer_decoder.h"
#include "reverse_lookup/name_decoder.h"

namespace sorvalen {
namespace {

constexpr std::size_t kMessageBufferSize = 1024;
constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kQuestionFixedSize = 4;
constexpr uint16_t kDevicePort = 5353;
constexpr time_t kReceiveTimeoutSeconds = 5;
constexpr std::size_t kMaxLabelLength = 255;

// A name fits when its encoding (length + 2 bytes) and the question's fixed
// part fit the query buffer after the header, and every label fits its length
// byte.
bool query_name_fits(const char* name) {
  const std::size_t length = std::strlen(name);
  if (kHeaderSize + length + 2 + kQuestionFixedSize > kMessageBufferSize)
    return false;
  std::size_t label_length = 0;
  for (std::size_t i = 0; i < length; ++i) {
    label_length = name[i] == '.' ? 0 : label_length + 1;
    if (label_length > kMaxLabelLength)
      return false;
  }
  return true;
}

void write_u16(unsigned char* at, uint16_t value) {
  at[0] = static_cast<unsigned char>(value >> 8);
  at[1] = static_cast<unsigned char>(value & 0xFF);
}

}  // namespace

DNSReverseLookup* DNSReverseLookup::CreateDNSReverseLookup() {
  return new DNSReverseLookupPosix();
}

DNSReverseLookupPosix::DNSReverseLookupPosix()
    : socket_(-1),
      initialized_(false),
      receive_thread_(nullptr),
      peer_address_{},
      qname_length_(0),
      query_id_(0) {}

DNSReverseLookupPosix::~DNSReverseLookupPosix() {
  Destroy();
  JoinReceiveThread();
}

bool DNSReverseLookupPosix::Init() {
  if (initialized_)
    return false;
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (socket_ == -1)
    return false;

  timeval timeout{};
  timeout.tv_sec = kReceiveTimeoutSeconds;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  local.sin_port = 0;
  if (setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0 ||
      bind(socket_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    close(socket_);
    socket_ = -1;
    return false;
  }
  initialized_ = true;
  return true;
}

void DNSReverseLookupPosix::Destroy() {
  // Closing a descriptor that another thread still waits on would let a new
  // descriptor take its number under that thread; end the wait first.
  EndOutstandingLookup();
  if (socket_ != -1) {
    close(socket_);
    socket_ = -1;
  }
}

void DNSReverseLookupPosix::EndOutstandingLookup() {
  if (receive_thread_ == nullptr || receive_thread_->get_id() == std::this_thread::get_id())
    return;
  // Shutting the receive side down makes a blocked recvfrom return at once
  // with no sender, which Receive reports like a time-out.
  if (busy_.load(std::memory_order_acquire) && socket_ != -1)
    shutdown(socket_, SHUT_RD);
  JoinReceiveThread();
}

void DNSReverseLookupPosix::JoinReceiveThread() {
  if (receive_thread_ == nullptr || receive_thread_->get_id() == std::this_thread::get_id())
    return;
  receive_thread_->join();
  delete receive_thread_;
  receive_thread_ = nullptr;
}

void DNSReverseLookupPosix::ChangetoDnsNameFormat(unsigned char* dns, const char* host) {
  const std::size_t length = std::strlen(host);
  std::size_t label_start = 0;
  for (std::size_t i = 0; i <= length; ++i) {
    if (i != length && host[i] != '.')
      continue;
    const std::size_t label_length = i - label_start;
    *dns++ = static_cast<unsigned char>(label_length);
    std::memcpy(dns, host + label_start, label_length);
    dns += label_length;
    label_start = i + 1;
  }
  *dns = 0;
}

bool DNSReverseLookupPosix::Lookup(unsigned short id, std::string ip_address, std::string query_name) {
  if (busy_.load(std::memory_order_acquire))
    return false;
  JoinReceiveThread();
  in_addr destination{};
  if (inet_pton(AF_INET, ip_address.c_str(), &destination) != 1)
    return false;
  if (!query_name_fits(query_name.c_str()))
    return false;

  std::memset(query_buffer_, 0, kHeaderSize);
  query_id_ = id;
  write_u16(query_buffer_, id);
  query_buffer_[2] = 0x01;  // recursion desired
  write_u16(query_buffer_ + 4, 1);
  unsigned char* name = query_buffer_ + kHeaderSize;
  ChangetoDnsNameFormat(name, query_name.c_str());
  // The question ends at the first empty label.
  qname_length_ = static_cast<int>(std::strlen(reinterpret_cast<const char*>(name)) + 1);
  write_u16(name + qname_length_, 12);     // QTYPE PTR
  write_u16(name + qname_length_ + 2, 1);  // QCLASS IN, unicast-response bit clear

  peer_address_ = sockaddr_in{};
  peer_address_.sin_family = AF_INET;
  peer_address_.sin_port = htons(kDevicePort);
  peer_address_.sin_addr = destination;
  const std::size_t message_length =
      kHeaderSize + static_cast<std::size_t>(qname_length_) + kQuestionFixedSize;
  if (sendto(socket_, query_buffer_, message_length, 0, reinterpret_cast<const sockaddr*>(&peer_address_),
             sizeof peer_address_) < 0) {
    return false;
  }

  busy_.store(true, std::memory_order_release);
  try {
    receive_thread_ = new std::thread(&DNSReverseLookupPosix::Receive, this);
  } catch (...) {
    busy_.store(false, std::memory_order_release);
    throw;
  }
  return true;
}

unsigned char* DNSReverseLookupPosix::ReadName(unsigned char* reader, unsigned char* buffer, int* count) {
  auto* block = static_cast<unsigned char*>(std::malloc(kNameBlockSize));
  if (block == nullptr)
    return nullptr;
  block[0] = 0;
  *count = 0;
  if (reader < buffer || reader >= buffer + kMessageBufferSize)
    return block;
  const DecodedName name = decode_name(buffer, kMessageBufferSize, static_cast<std::size_t>(reader - buffer));
  if (!name.ok)
    return block;
  std::memcpy(block, name.text.c_str(), name.text.size() + 1);
  *count = name.count;
  return block;
}

void DNSReverseLookupPosix::Receive() {
  IPAddressV4 record;
  socklen_t sender_length = sizeof peer_address_;
  const ssize_t received = recvfrom(socket_, response_buffer_, sizeof response_buffer_, 0,
                                    reinterpret_cast<sockaddr*>(&peer_address_), &sender_length);
  // No sender means the wait was ended by Destroy or disposal.
  if (received < 0 || sender_length == 0) {
    CallCallbacks(query_id_, false, record);
  } else {
    const AnswerOutcome outcome = decode_answer(response_buffer_, static_cast<std::size_t>(received),
                                                static_cast<std::size_t>(qname_length_), query_id_);
    if (outcome.ok) {
      record.address = peer_address_.sin_addr.s_addr;
      record.port = outcome.port;
      record.name = outcome.name;
    }
    CallCallbacks(outcome.id, outcome.ok, record);
  }
  busy_.store(false, std::memory_order_release);
}

void DNSReverseLookupPosix::CallCallbacks(unsigned short id, bool ok, const IPAddressV4& record) {
  // Sized once: after its last callback has returned this thread no longer
  // reads the list, so the application may change it from then on.
  const std::size_t count = callbacks_.size();
  for (std::size_t i = 0; i < count; ++i) {
    try {
      const LookupCallback callback = callbacks_[i];
      if (!callback)
        continue;
      callback(id, ok, record);
    } catch (...) {
      // One failing callback must not keep the others from their outcome.
    }
  }
}

}  // namespace sorvalen
