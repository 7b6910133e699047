// The device search on the embedded mDNS core, with its event-loop thread.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "mdns/mdns.h"
#include "sorvalen/export.h"
#include "sorvalen/mdns_search.h"

// The storage of one running resolve: the core's working state followed by the
// instance it resolves.  Its address is handed to the core and stays fixed
// until the resolve is stopped.
struct SINFO {
  ServiceInfoQuery query;
  ServiceInfo info;
};

// Every resolve started and not yet stopped, in start order.  The list owns the
// records; only MDNSSearchPosix::Stop frees them.
extern SORVALEN_API std::vector<SINFO*> sinfo_list;

// The core's POSIX layer refers to this symbol.
extern "C" SORVALEN_API const char ProgramName[];

namespace sorvalen {

class SORVALEN_API MDNSSearchPosix : public MDNSSearch {
 public:
  static constexpr int kCacheEntries = 500;

  MDNSSearchPosix();
  ~MDNSSearchPosix() override;

  bool Init() override;
  void Destroy() override;
  bool Start(std::string names, std::string service_type, std::string domain, int timeout_seconds,
             std::string interface_name) override;
  void Stop() override;
  // See MDNSSearch: while the loop runs, a request it honours within one pass.
  bool RefreshInterfaces() override;

  // The core's callbacks; they run on the event-loop thread and need no object.
  static void BrowseCallback(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer,
                             QC_result AddRecord);
  static void ResolveCallback(mDNS* const m, ServiceInfoQuery* query);

  // The one mDNS core of the process and its cache.
  static mDNS mdns_storage_;
  static mDNS_PlatformSupport platform_storage_;
  static CacheEntity rrcache_[kCacheEntries];

 private:
  // Whether a loop owns the core, and whether a refresh waits for it.
  enum class LoopState : unsigned char { kNoLoop, kLooping, kRefreshWanted };

  void ProcessEvents();
  bool refresh_now();
  void take_refresh_request();
  void end_loop();
  bool ChooseInterface(const std::string& interface_name, mDNSInterfaceID* interface_id) const;

  std::atomic<LoopState> loop_{LoopState::kNoLoop};
  std::thread* event_thread_ = nullptr;
  DNSQuestion browse_question_{};
  domainname browse_type_{};
  domainname browse_domain_{};
  bool stopping_ = false;
  bool initialized_ = false;
};

}  // namespace sorvalen
