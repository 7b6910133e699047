// The search interface's shared behaviour and the process-wide device registry.
#include <algorithm>
#include <cstring>

#include "sorvalen/mdns_search.h"
#include "sorvalen/text_helpers.h"

namespace sorvalen {

std::vector<std::string> MDNSSearch::names_;
std::mutex MDNSSearch::address_list_mutex_;
std::vector<IPAddressV4> MDNSSearch::address_list_;
std::vector<IPAddressV6> MDNSSearch::addressV6_list_;

namespace {

template <typename Record>
void remove_first_named(std::vector<Record>& list, const char* name) {
  const std::size_t length = std::strlen(name);
  auto it = std::find_if(list.begin(), list.end(), [&](const Record& record) {
    return record.name.size() == length && std::memcmp(record.name.data(), name, length) == 0;
  });
  if (it != list.end()) {
    list.erase(it);
  }
}

}  // namespace

// Non-virtual on purpose: a derived engine has already run its own Stop in its
// destructor, and the object is no longer one by now.
MDNSSearch::~MDNSSearch() {
  MDNSSearch::Stop();
}

bool MDNSSearch::Init() {
  return true;
}

void MDNSSearch::Destroy() {}

bool MDNSSearch::RefreshInterfaces() {
  return false;
}

void MDNSSearch::Stop() {
  stop_requested_ = true;
  started_ = false;
}

bool MDNSSearch::Start(std::string names, std::string service_type, std::string domain, int timeout_seconds,
                       std::string /*interface_name*/) {
  if (started_) {
    Stop();
  }
  started_ = true;
  names_ = split(names, ',');
  service_type_ = std::move(service_type);
  domain_ = std::move(domain);
  ClearAddressList();
  ClearAddressV6List();
  stop_requested_ = false;
  timeout_seconds_ = timeout_seconds;
  return true;
}

bool MDNSSearch::GetRunning() const {
  return running_;
}

const std::vector<IPAddressV4>& MDNSSearch::GetAddressList() const {
  return address_list_;
}

const std::vector<IPAddressV6>& MDNSSearch::GetAddressV6List() const {
  return addressV6_list_;
}

void MDNSSearch::ClearAddressList() {
  std::lock_guard<std::mutex> lock(address_list_mutex_);
  address_list_.clear();
}

void MDNSSearch::ClearAddressV6List() {
  std::lock_guard<std::mutex> lock(address_list_mutex_);
  addressV6_list_.clear();
}

void MDNSSearch::AddToAddressList(IPAddressV4 address) {
  std::lock_guard<std::mutex> lock(address_list_mutex_);
  address_list_.push_back(address);
}

void MDNSSearch::AddToAddressV6List(IPAddressV6 address) {
  std::lock_guard<std::mutex> lock(address_list_mutex_);
  addressV6_list_.push_back(address);
}

void MDNSSearch::RemoveFromAddressList(char* name) {
  std::lock_guard<std::mutex> lock(address_list_mutex_);
  remove_first_named(address_list_, name);
}

void MDNSSearch::RemoveFromAddressV6List(char* name) {
  std::lock_guard<std::mutex> lock(address_list_mutex_);
  remove_first_named(addressV6_list_, name);
}

}  // namespace sorvalen
