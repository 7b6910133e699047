/* Embedded multicast DNS querier (RFC 6762 / RFC 6763).
 *
 * The core asks and listens; it never answers or announces anything of its own.
 * All of its state lives in storage that the caller hands over: the core state
 * (mDNS), the platform state (mDNS_PlatformSupport), the record cache (an array
 * of CacheEntity) and the caller's DNSQuestion / ServiceInfoQuery structures.
 * Starting and stopping browses and resolves allocates nothing.
 *
 * The core is single-threaded: one thread at a time enters it, and callbacks run
 * inside mDNSPosixProcessFDSet on that thread.  A callback may start or stop
 * questions and resolves.
 *
 * The application must define `const char ProgramName[]` with C linkage.
 */
#ifndef MDNS_MDNS_H
#define MDNS_MDNS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/time.h>

#if defined(MDNS_BUILDING_LIBRARY)
#define MDNS_API __attribute__((visibility("default")))
#else
#define MDNS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Basic types ------------------------------------------------------- */

typedef uint8_t mDNSu8;
typedef uint16_t mDNSu16;
typedef uint32_t mDNSu32;
typedef int32_t mDNSs32;
typedef uint8_t mDNSBool;
enum { mDNSfalse = 0, mDNStrue = 1 };

typedef mDNSs32 mStatus;
enum {
  mStatus_NoError = 0,
  mStatus_BadParamErr = -65540,
  mStatus_AlreadyRegistered = -65547,
  mStatus_NoSuchRecord = -65554,
  mStatus_NotInitializedErr = -65556,
  mStatus_UnknownErr = -65537,
  mStatus_NoMemoryErr = -65539
};

/* An interface handle: opaque, stable across interface refreshes.  Null means
 * "all interfaces". */
typedef struct mDNSInterfaceID_opaque* mDNSInterfaceID;
#define mDNSInterface_Any ((mDNSInterfaceID)0)

typedef union {
  mDNSu8 b[2];
  mDNSu16 NotAnInteger;
} mDNSIPPort; /* network byte order */

typedef union {
  mDNSu8 b[4];
  mDNSu32 NotAnInteger;
} mDNSv4Addr; /* network byte order */

typedef union {
  mDNSu8 b[16];
  mDNSu16 w[8];
  mDNSu32 l[4];
} mDNSv6Addr; /* network byte order */

enum { mDNSAddrType_None = 0, mDNSAddrType_IPv4 = 4, mDNSAddrType_IPv6 = 6 };

typedef struct {
  mDNSs32 type; /* mDNSAddrType_* */
  union {
    mDNSv6Addr v6;
    mDNSv4Addr v4;
  } ip;
} mDNSAddr;

/* ---- DNS names --------------------------------------------------------- */

#define MAX_DOMAIN_LABEL 63
#define MAX_DOMAIN_NAME 256 /* wire form, including the root label */

/* Buffer sizes that always hold the texts the conversions below write,
 * terminating NUL included.  A label byte escapes to at most four characters
 * ("\DDD"): a label's text is at most 63 * 4 = 252 characters, a name's at most
 * 1004 (255 wire bytes in four labels, each followed by '.'). */
#define MAX_ESCAPED_DOMAIN_LABEL 254
#define MAX_ESCAPED_DOMAIN_NAME 1009

typedef struct {
  mDNSu8 c[64]; /* length byte, then up to 63 bytes */
} domainlabel;

typedef struct {
  mDNSu8 c[256]; /* wire form, uncompressed, ends with the root label */
} domainname;

enum {
  kDNSType_A = 1,
  kDNSType_PTR = 12,
  kDNSType_TXT = 16,
  kDNSType_AAAA = 28,
  kDNSType_SRV = 33,
  kDNSType_NSEC = 47,
  kDNSType_ANY = 255
};
enum { kDNSClass_IN = 1 };

/* ---- Records ----------------------------------------------------------- */

#define mDNS_MaxRDataSize 512 /* stored record data; longer TXT data is cut */

typedef struct {
  mDNSu16 priority;
  mDNSu16 weight;
  mDNSIPPort port;
  domainname target;
} rdataSRV;

typedef union {
  mDNSu8 data[mDNS_MaxRDataSize]; /* raw bytes (TXT and unknown types) */
  domainname name;                /* PTR target */
  mDNSv4Addr ipv4;                /* A */
  mDNSv6Addr ipv6;                /* AAAA */
  rdataSRV srv;                   /* SRV, host-order priority/weight */
} RDataBody;

typedef struct {
  mDNSu16 MaxRDLength;
  mDNSu16 length; /* bytes of u in use (for names: the name's wire length) */
  RDataBody u;
} RData;

typedef struct ResourceRecord_struct {
  mDNSu16 rrtype;
  mDNSu16 rrclass; /* cache-flush bit removed */
  mDNSu32 rroriginalttl;
  mDNSu16 rdlength;            /* length of rdata as received, decompressed */
  mDNSInterfaceID InterfaceID; /* interface the record arrived on */
  const domainname* name;      /* owner name */
  mDNSu32 namehash;
  RData* rdata;
} ResourceRecord;

/* ---- Questions --------------------------------------------------------- */

typedef struct mDNS_struct mDNS;
typedef struct DNSQuestion_struct DNSQuestion;

typedef enum { QC_rmv = 0, QC_add = 1 } QC_result;

typedef void mDNSQuestionCallback(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer,
                                  QC_result AddRecord);

struct DNSQuestion_struct {
  /* Set by the caller through the start functions. */
  domainname qname;
  mDNSu16 qtype;
  mDNSu16 qclass;
  mDNSInterfaceID InterfaceID;
  mDNSBool ForceMCast;
  mDNSQuestionCallback* QuestionCallback;
  void* QuestionContext;

  /* Owned by the core while the question is active. */
  DNSQuestion* next;
  mDNSu32 qnamehash;
  mDNSs32 LastQTime;      /* when the last query for it went out */
  mDNSs32 ThisQInterval;  /* current interval between queries, ms */
  mDNSs32 NextQTime;      /* when the next query is due */
  mDNSu32 CurrentAnswers; /* cache entries currently answering it */
  mDNSu8 Active;          /* only trusted for questions found on the core's list */
  mDNSu8 DeliverAddsPending;
  mDNSu8 SentOnce;            /* the first query has gone out */
  mDNSu8 RefreshPending;      /* a cached answer needs a refresh query */
  mDNSu8 SendNow;             /* chosen for the packets of the current pass */
  mDNSu8 KnownAnswersSpilled; /* this pass's known answers took more than one packet */
  mDNSs32 StartTime;
};

/* ---- Resolves ---------------------------------------------------------- */

#define mDNS_MaxTXTInfo 512

typedef struct {
  mDNSInterfaceID InterfaceID; /* set by the caller */
  domainname name;             /* full service name, set by the caller */
  mDNSAddr ip;                 /* filled by the resolve */
  mDNSIPPort port;             /* filled by the resolve, network order */
  mDNSu16 TXTlen;
  mDNSu8 TXTinfo[mDNS_MaxTXTInfo];
} ServiceInfo;

typedef struct ServiceInfoQuery_struct ServiceInfoQuery;
typedef void mDNSServiceInfoQueryCallback(mDNS* const m, ServiceInfoQuery* query);

struct ServiceInfoQuery_struct {
  DNSQuestion qSRV;
  DNSQuestion qTXT;
  DNSQuestion qAv4;
  DNSQuestion qAv6;
  mDNSu8 GotSRV;
  mDNSu8 GotTXT;
  mDNSu8 GotADD;
  mDNSu32 Answers;
  domainname target; /* current SRV target */
  ServiceInfo* info;
  mDNSServiceInfoQueryCallback* ServiceInfoQueryCallback;
  void* ServiceInfoQueryContext;
};

/* ---- Interfaces -------------------------------------------------------- */

#define mDNS_MaxInterfaces 32
#define mDNS_IfNameSize 16

typedef struct NetworkInterfaceInfo_struct NetworkInterfaceInfo;

/* Addresses kept per interface: the on-link check looks at all of them. */
#define mDNS_MaxInterfaceAddrs 8

typedef struct {
  mDNSAddr addr;
  mDNSu8 prefix_length; /* bits of the network part */
} mDNSInterfaceAddr;

struct NetworkInterfaceInfo_struct {
  NetworkInterfaceInfo* next;
  mDNSInterfaceID InterfaceID; /* (mDNSInterfaceID)(uintptr_t)ifindex */
  char ifname[mDNS_IfNameSize];
  /* Core-owned details below. */
  mDNSu32 ifindex; /* 0: slot unused */
  mDNSAddr v4addr; /* first IPv4 address, if any */
  mDNSAddr v4mask;
  mDNSAddr v6addr; /* link-local, if any */
  mDNSu8 v4usable;
  mDNSu8 v6usable;
  mDNSu8 present; /* seen at the latest interface read */
  mDNSu8 loopback;
  mDNSu8 v4joined; /* group membership held on the IPv4 / IPv6 socket */
  mDNSu8 v6joined;
  mDNSu8 naddrs;
  mDNSInterfaceAddr addrs[mDNS_MaxInterfaceAddrs]; /* every address of the interface */
};

/* ---- Cache, platform and core state ----------------------------------- */

typedef struct CacheRecord_struct {
  ResourceRecord resrec;
  domainname namestorage;
  RData rdatastorage;
  mDNSs32 TimeRcvd; /* ms clock */
  mDNSs32 NextRequiredQuery;
  mDNSs32 DelayDelivery;
  mDNSu32 ReceivedPacketSeq;
  mDNSu8 UnansweredQueries;
  mDNSu8 RefreshStep; /* 0..4: queries sent at 80/85/90/95 % */
  mDNSu8 InUse;
  mDNSu8 ExpiryPending; /* goodbye or cache flush: gone at ExpiryTime, one second later */
  mDNSu8 AddPending;    /* cached by the packet being processed, add events not yet given */
  mDNSs32 ExpiryTime;
  mDNSu32 RDataHash;             /* equal for records whose data compare equal */
  mDNSu32 AnswerCheckGeneration; /* QuestionGeneration when AnswersQuestion was worked out */
  mDNSu8 AnswersQuestion;
  mDNSu32 NextInBucket;   /* index + 1 of the next entry of the hash bucket (or free list), 0 = none */
  mDNSu32 PrevInBucket;   /* index + 1, 0 = first of its bucket */
  mDNSu32 NextInIdentity; /* chain of the same name and data hash, for lookups of one record */
  mDNSu32 PrevInIdentity;
  mDNSu32 KnownAnswerMark; /* packet serial this record was last listed in as a known answer */
} CacheRecord;

typedef union {
  CacheRecord r;
} CacheEntity;

/* Test mode: a captured send goes to this hook instead of a socket. */
typedef void mDNSPlatformSendHook(void* context, mDNSInterfaceID InterfaceID, int family,
                                  const mDNSu8* message, size_t length);

typedef struct {
  int unicast_v4_unused; /* reserved */
  int sock_v4;           /* -1 when closed */
  int sock_v6;
  NetworkInterfaceInfo interfaces[mDNS_MaxInterfaces]; /* the live table; HostInterfaces links into it */
  mDNSu8 test_mode;                                    /* no sockets: messages are injected */
  mDNSu8 open;                                         /* between platform start and close */
  /* Test mode only: the synthetic interfaces that an interface read finds. */
  NetworkInterfaceInfo test_interfaces[mDNS_MaxInterfaces];
  mDNSPlatformSendHook* send_hook;
  void* send_context;
} mDNS_PlatformSupport;

#define mDNS_EvictionCandidates 32

typedef struct {
  mDNSu32 entry[mDNS_EvictionCandidates]; /* index + 1 */
  mDNSs32 expiry[mDNS_EvictionCandidates];
  mDNSu32 count;
  mDNSu32 next;
  mDNSu8 valid;
  mDNSu8 complete; /* holds every entry of its kind */
} mDNSEvictionList;

typedef void mDNSCallback(mDNS* const m, mStatus result);

typedef struct {
  mDNSu32 packets_sent;
  mDNSu32 bytes_sent;
  mDNSu32 queries_sent; /* questions written into sent packets */
  mDNSu32 packets_received;
  mDNSu32 packets_accepted;
  mDNSu32 packets_dropped;
  mDNSu32 records_cached;
  mDNSu32 records_evicted;
} mDNSCounters;

#define mDNS_MessageBufferSize 9000
#define mDNS_CacheBuckets 64
#define mDNS_MaxNewRecordsPerPacket 128

struct mDNS_struct {
  mDNS_PlatformSupport* p;
  mDNSCallback* MainCallback;
  void* MainContext;
  NetworkInterfaceInfo* HostInterfaces; /* head of the list of usable interfaces */

  CacheEntity* rrcache;
  mDNSu32 rrcache_size;
  DNSQuestion* Questions;
  DNSQuestion* CurrentQuestion; /* guards list changes during delivery */

  mDNSs32 timenow; /* the one clock reading of the current pass */
  mDNSs32 NextScheduledEvent;
  mDNSu32 RandomState;
  mDNSu32 PacketSeq;
  mDNSu8 Initialized;
  mDNSu8 ShutdownPending;

  mDNSs32 FakeClock;
  mDNSu8 FakeClockSet;
  mDNSu32 CacheBuckets[mDNS_CacheBuckets];    /* index + 1 of each bucket's first entry */
  mDNSu32 IdentityBuckets[mDNS_CacheBuckets]; /* by owner name and data */
  mDNSu32 CacheFree;                          /* index + 1 of the first free entry */
  mDNSu32 CacheUsed;
  mDNSu32 SendSerial;
  mDNSu32 QuestionGeneration; /* changes whenever a question starts or stops */
  mDNSu8 EvictionInProgress;  /* remove events now come from the full cache, not the network */
  /* The next entries to evict, nearest expiry first (see cache.cpp). */
  mDNSEvictionList EvictIdle; /* entries answering no active question */
  mDNSEvictionList EvictAny;
  mDNSu32 EvictGeneration; /* QuestionGeneration when EvictIdle was built */
  mDNSu32 NewRecordCount;  /* entries of NewRecords in use */
  mDNSu32 NewRecords[mDNS_MaxNewRecordsPerPacket];

  mDNSCounters counters;
  mDNSu8 rxbuf[mDNS_MessageBufferSize];
  mDNSu8 txbuf[1500];
};

/* ---- Engine ------------------------------------------------------------ */

MDNS_API mStatus mDNS_Init(mDNS* const m, mDNS_PlatformSupport* const p, CacheEntity* rrcachestorage,
                           mDNSu32 rrcachesize, mDNSBool AdvertiseLocalAddresses, mDNSCallback* Callback,
                           void* Context);
MDNS_API void mDNS_StartExit(mDNS* const m);
MDNS_API void mDNS_FinalExit(mDNS* const m);
/* Reads the interfaces again (those of the calling thread's network namespace,
 * as mDNS_Init does): joins new ones, leaves vanished ones, whose records then
 * leave with remove events.  Interface IDs stay stable. */
MDNS_API mStatus mDNSPlatformPosixRefreshInterfaceList(mDNS* const m);

MDNS_API mStatus mDNS_StartBrowse(mDNS* const m, DNSQuestion* const question, const domainname* const srv,
                                  const domainname* const domain, const mDNSInterfaceID InterfaceID,
                                  mDNSBool ForceMCast, mDNSQuestionCallback* Callback, void* Context);
MDNS_API mStatus mDNS_StartQuery(mDNS* const m, DNSQuestion* const question);
MDNS_API mStatus mDNS_StopQuery(mDNS* const m, DNSQuestion* const question);

MDNS_API mStatus mDNS_StartResolveService(mDNS* const m, ServiceInfoQuery* query, ServiceInfo* info,
                                          mDNSServiceInfoQueryCallback* Callback, void* Context);
MDNS_API void mDNS_StopResolveService(mDNS* const m, ServiceInfoQuery* query);

/* Adds the core's sockets to `readfds`, raises `*nfds`, and shortens `*timeout`
 * to the core's next scheduled work (zero when answers wait for delivery). */
MDNS_API void mDNSPosixGetFDSet(mDNS* m, int* nfds, fd_set* readfds, struct timeval* timeout);
/* Reads what arrived on the ready sockets (a bounded number of datagrams per
 * socket and call), then runs the scheduled work; never blocks.  Call it after
 * every select, also when select returned 0. */
MDNS_API void mDNSPosixProcessFDSet(mDNS* const m, fd_set* readfds);

/* ---- Name conversions -------------------------------------------------- */

/* Reads dotted text (trailing dot optional; \. \\ and \DDD escapes).  Returns
 * null on a label over 63 bytes or a name over 255. */
MDNS_API mDNSu8* MakeDomainNameFromDNSNameString(domainname* const name, const char* cstr);

/* Splits <instance>.<_app>.<_tcp|_udp>.<domain>.  On failure returns false and
 * leaves all three outputs empty. */
MDNS_API mDNSBool DeconstructServiceName(const domainname* const fqdn, domainlabel* const name,
                                         domainname* const type, domainname* const domain);

/* Write at most MAX_ESCAPED_DOMAIN_LABEL / MAX_ESCAPED_DOMAIN_NAME bytes.
 * esc 0: label bytes unchanged; otherwise '.' and esc are escaped and
 * non-printing bytes written as \DDD.  Return a pointer to the terminating NUL. */
MDNS_API char* ConvertDomainLabelToCString_withescape(const domainlabel* const label, char* ptr, char esc);
MDNS_API char* ConvertDomainNameToCString_withescape(const domainname* const name, char* ptr, char esc);

#ifdef __cplusplus
}
#endif

#endif /* MDNS_MDNS_H */
