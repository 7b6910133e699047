// The device search interface and the process-wide registry of what it finds.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "sorvalen/export.h"
#include "sorvalen/ip_address.h"

namespace sorvalen {

// A search browses the local link for one service type in one domain, keeps the
// instances whose names contain one of the filter words and lists their
// endpoints.  One search runs at a time in a process: the lists, the filter
// words and the engine behind them are process-wide.
//
// While a search runs (GetRunning() true), read the lists only while holding
// address_list_mutex_.
class SORVALEN_API MDNSSearch {
 public:
  // A new search engine; the caller owns it and deletes it through this class.
  static MDNSSearch* CreateMDNSSearch();

  MDNSSearch() = default;
  MDNSSearch(const MDNSSearch&) = delete;
  MDNSSearch& operator=(const MDNSSearch&) = delete;
  virtual ~MDNSSearch();

  virtual bool Init();
  virtual void Destroy();
  // names: comma-separated filter words, matched case-insensitively anywhere in
  // an instance name; an empty text admits nothing.  timeout_seconds <= 0 means
  // no time limit.  interface_name empty means every interface.
  virtual bool Start(std::string names, std::string service_type, std::string domain, int timeout_seconds,
                     std::string interface_name);
  virtual void Stop();
  // Reads the host's network interfaces and name servers again.  While no
  // search runs it does so at once and returns whether it could.  While a
  // search runs it asks the search's loop to refresh at its next pass (within
  // about a quarter of a second) and returns true once the request is taken;
  // the outcome is not reported.  It may be called from any thread, but not
  // at the same time as Init, Start, Stop or Destroy.  False before Init and
  // after Destroy.
  virtual bool RefreshInterfaces();

  bool GetRunning() const;
  const std::vector<IPAddressV4>& GetAddressList() const;
  const std::vector<IPAddressV6>& GetAddressV6List() const;
  void ClearAddressList();
  void ClearAddressV6List();

  static void AddToAddressList(IPAddressV4 address);
  static void AddToAddressV6List(IPAddressV6 address);
  static void RemoveFromAddressList(char* name);
  static void RemoveFromAddressV6List(char* name);

  static std::vector<std::string> names_;
  static std::mutex address_list_mutex_;
  static std::vector<IPAddressV4> address_list_;
  static std::vector<IPAddressV6> addressV6_list_;

 protected:
  std::string service_type_;
  std::string domain_;
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> running_{false};
  int timeout_seconds_ = 0;
  bool started_ = false;
};

}  // namespace sorvalen
