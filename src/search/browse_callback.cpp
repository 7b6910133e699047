// The browse handler: filters announced instances by name and starts resolves.
#include <memory>

#include "search/ci_equal.h"
#include "search/service_name_texts.h"
#include "sorvalen/mdns_search_posix.h"

namespace sorvalen {

namespace {

// First filter word found anywhere in the instance text wins; no words, no match.
bool admitted_by_filter(const std::string& instance) {
  for (const std::string& word : MDNSSearch::names_) {
    if (find_ci(instance, word) != -1)
      return true;
  }
  return false;
}

void forget_instance(const std::string& instance) {
  std::string text = instance;
  MDNSSearch::RemoveFromAddressList(&text[0]);
  MDNSSearch::RemoveFromAddressV6List(&text[0]);
}

void resolve_instance(mDNS* const m, const ResourceRecord& answer) {
  auto resolve = std::make_unique<SINFO>();
  resolve->info.name = answer.rdata->u.name;
  resolve->info.InterfaceID = answer.InterfaceID;
  // Listed before the start: the list owns it whatever the core answers.
  sinfo_list.push_back(resolve.get());
  SINFO* listed = resolve.release();
  mDNS_StartResolveService(m, &listed->query, &listed->info, MDNSSearchPosix::ResolveCallback, listed);
}

void handle_browse_event(mDNS* const m, const ResourceRecord& answer, QC_result add_record) {
  ServiceNameTexts texts;
  if (!split_service_name(answer.rdata->u.name, &texts))
    return;
  if (add_record == QC_rmv) {
    forget_instance(texts.instance);
    return;
  }
  if (admitted_by_filter(texts.instance))
    resolve_instance(m, answer);
}

}  // namespace

void MDNSSearchPosix::BrowseCallback(mDNS* const m, DNSQuestion* /*question*/,
                                     const ResourceRecord* const answer, QC_result AddRecord) {
  if (answer == nullptr || answer->rdata == nullptr)
    return;
  // The core calls this as a plain C function: nothing may leave by exception.
  // An event that fails half-way (no memory, lock failure) is dropped.
  try {
    handle_browse_event(m, *answer, AddRecord);
  } catch (...) {
  }
}

}  // namespace sorvalen
