// Service resolve: SRV and TXT of the instance, then A and AAAA of the SRV target.
#include <cstring>

#include "engine.h"
#include "names.h"
#include "questions.h"

namespace mdns {
namespace {

ServiceInfoQuery* query_of(DNSQuestion* q) {
  return static_cast<ServiceInfoQuery*>(q->QuestionContext);
}

void report(mDNS* m, ServiceInfoQuery* query) {
  query->Answers++;
  if (query->ServiceInfoQueryCallback != nullptr) {
    query->ServiceInfoQueryCallback(m, query);
  }
}

// Every question of a resolve asks on the resolve's interface and reports to it.
void prepare_question(DNSQuestion* q, ServiceInfoQuery* query, const domainname& name, uint16_t qtype,
                      mDNSQuestionCallback* callback) {
  q->qname = name;
  q->qtype = qtype;
  q->qclass = kDNSClass_IN;
  q->InterfaceID = query->info->InterfaceID;
  q->ForceMCast = 0;
  q->QuestionCallback = callback;
  q->QuestionContext = query;
}

void start_address_question(mDNS* m, ServiceInfoQuery* query, DNSQuestion* q, uint16_t qtype,
                            mDNSQuestionCallback* callback) {
  prepare_question(q, query, query->target, qtype, callback);
  (void)question_start(m, q, engine_now(m));
}

void on_address(mDNS* m, DNSQuestion* q, const ResourceRecord* const answer, QC_result kind) {
  ServiceInfoQuery* query = query_of(q);
  if (kind != QC_add || !query->GotSRV) {
    return;
  }
  ServiceInfo* info = query->info;
  if (answer->rrtype == kDNSType_A && answer->rdata->length == 4) {
    info->ip.type = mDNSAddrType_IPv4;
    info->ip.ip.v4 = answer->rdata->u.ipv4;
  } else if (answer->rrtype == kDNSType_AAAA && answer->rdata->length == 16) {
    info->ip.type = mDNSAddrType_IPv6;
    info->ip.ip.v6 = answer->rdata->u.ipv6;
  } else {
    return;
  }
  query->GotADD = 1;
  report(m, query);
}

void on_srv(mDNS* m, DNSQuestion* q, const ResourceRecord* const answer, QC_result kind) {
  ServiceInfoQuery* query = query_of(q);
  const rdataSRV& srv = answer->rdata->u.srv;
  if (kind == QC_rmv) {
    // An SRV pushed out of a full cache has not changed: the resolve keeps its
    // target and goes on with the addresses.
    if (query->GotSRV && !m->EvictionInProgress && names_equal(srv.target, query->target)) {
      query->GotSRV = 0;
      question_stop(m, &query->qAv4);
      question_stop(m, &query->qAv6);
    }
    return;
  }
  query->info->port = srv.port;
  if (query->GotSRV && names_equal(srv.target, query->target)) {
    return;
  }
  // A new or changed target: ask for its addresses afresh.
  question_stop(m, &query->qAv4);
  question_stop(m, &query->qAv6);
  if (!copy_name(query->target, srv.target)) {
    query->GotSRV = 0;
    return;
  }
  query->GotSRV = 1;
  query->GotADD = 0;
  start_address_question(m, query, &query->qAv4, kDNSType_A, on_address);
  start_address_question(m, query, &query->qAv6, kDNSType_AAAA, on_address);
}

void on_txt(mDNS* m, DNSQuestion* q, const ResourceRecord* const answer, QC_result kind) {
  (void)m;
  ServiceInfoQuery* query = query_of(q);
  if (kind != QC_add) {
    return;
  }
  ServiceInfo* info = query->info;
  const size_t n =
      answer->rdata->length < sizeof(info->TXTinfo) ? answer->rdata->length : sizeof(info->TXTinfo);
  std::memcpy(info->TXTinfo, answer->rdata->u.data, n);
  info->TXTlen = static_cast<mDNSu16>(n);
  query->GotTXT = 1;
}

void stop_resolve(mDNS* m, ServiceInfoQuery* query) {
  question_stop(m, &query->qSRV);
  question_stop(m, &query->qTXT);
  question_stop(m, &query->qAv4);
  question_stop(m, &query->qAv6);
}

}  // namespace
}  // namespace mdns

using namespace mdns;

extern "C" {

mStatus mDNS_StartResolveService(mDNS* const m, ServiceInfoQuery* query, ServiceInfo* info,
                                 mDNSServiceInfoQueryCallback* Callback, void* Context) {
  if (m == nullptr || query == nullptr || info == nullptr) {
    return mStatus_BadParamErr;
  }
  if (!m->Initialized || m->ShutdownPending) {
    return mStatus_NotInitializedErr;
  }
  if (name_length(info->name) == 0) {
    return mStatus_BadParamErr;
  }
  // Restarting a running resolve on the same storage begins it afresh.
  stop_resolve(m, query);
  std::memset(query, 0, sizeof(*query));
  query->info = info;
  query->ServiceInfoQueryCallback = Callback;
  query->ServiceInfoQueryContext = Context;
  info->ip.type = mDNSAddrType_None;
  std::memset(&info->ip.ip, 0, sizeof(info->ip.ip));
  info->port.NotAnInteger = 0;
  info->TXTlen = 0;

  const int32_t now = engine_now(m);
  prepare_question(&query->qSRV, query, query->info->name, kDNSType_SRV, on_srv);
  prepare_question(&query->qTXT, query, query->info->name, kDNSType_TXT, on_txt);
  mStatus status = question_start(m, &query->qSRV, now);
  if (status == mStatus_NoError) {
    status = question_start(m, &query->qTXT, now);
  }
  if (status != mStatus_NoError) {
    stop_resolve(m, query);
  }
  return status;
}

void mDNS_StopResolveService(mDNS* const m, ServiceInfoQuery* query) {
  if (m == nullptr || query == nullptr) {
    return;
  }
  stop_resolve(m, query);
}

}  // extern "C"
