/* Embedded multicast DNS querier (RFC 6762 / RFC 6763).
 *
 * The core asks and listens; it never answers or announces anything of its own.
 * All of its state lives in storage that the caller hands over: the core state
 * (mDNS), the platform state (mDNS_PlatformSupport), the record cache (an array
 * of CacheEntity) and the caller's DNSQuestion / ServiceInfoQuery structures.
 * Starting and stopping browses and resolves allocates nothing.
 *
 * Names under "local." (and the link-local reverse zones) are asked by
 * multicast DNS on the link; other names by unicast DNS to the name servers of
 * /etc/resolv.conf.
 *
 * The core is single-threaded: one thread at a time enters it, and callbacks run
 * inside mDNSPosixProcessFDSet on that thread.  A callback may start or stop
 * questions and resolves.
 *
 * The core's own state sits in the `Private` members below: their size is part
 * of this interface, their contents are not.
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
  mStatus_NoMemoryErr = -65539,
  mStatus_BadStateErr = -65543
};

/* An interface handle: opaque, stable while the interface's name exists (also
 * across interface refreshes and when the interface is re-created under the
 * same name).  Null means "all interfaces". */
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

/* Storage the core keeps to itself: `bytes` of it, aligned for any member. */
#define MDNS_PRIVATE(bytes)  \
  union {                    \
    mDNSu8 storage[bytes];   \
    void* align_pointer;     \
    long long align_integer; \
    double align_double;     \
  }

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
  kDNSType_CNAME = 5,
  kDNSType_SOA = 6,
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
  mDNSInterfaceID InterfaceID; /* interface the record arrived on; null for unicast DNS */
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

#define mDNS_QuestionPrivateSize 256

struct DNSQuestion_struct {
  /* Set by the caller (or by the start functions). */
  domainname qname;
  mDNSu16 qtype;
  mDNSu16 qclass;
  mDNSInterfaceID InterfaceID;
  mDNSBool ForceMCast;
  mDNSQuestionCallback* QuestionCallback;
  void* QuestionContext;
  /* The core's, from start to stop.  Zeroed storage is a question never started. */
  MDNS_PRIVATE(mDNS_QuestionPrivateSize) Private;
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

#define mDNS_ResolvePrivateSize 3584

struct ServiceInfoQuery_struct {
  MDNS_PRIVATE(mDNS_ResolvePrivateSize) Private; /* the resolve's questions and state */
  ServiceInfo* info;
  mDNSServiceInfoQueryCallback* ServiceInfoQueryCallback;
  void* ServiceInfoQueryContext;
};

/* ---- Interfaces -------------------------------------------------------- */

#define mDNS_MaxInterfaces 32
#define mDNS_IfNameSize 16

typedef struct NetworkInterfaceInfo_struct NetworkInterfaceInfo;

struct NetworkInterfaceInfo_struct {
  NetworkInterfaceInfo* next;
  mDNSInterfaceID InterfaceID;
  char ifname[mDNS_IfNameSize];
};

/* Whether the core uses an interface for one family and, if not, why: the
 * first reason in this order that holds. */
typedef enum {
  mDNSInterfaceUse_Used = 0,
  mDNSInterfaceUse_Down = 1,
  mDNSInterfaceUse_LoopbackSpare = 2, /* loopback: used only when no other interface is usable */
  mDNSInterfaceUse_NoMulticast = 3,   /* no multicast flag (IPv4 on loopback does without) */
  mDNSInterfaceUse_NoAddress = 4      /* no address of the family */
} mDNSInterfaceUse;

typedef struct {
  char ifname[mDNS_IfNameSize];
  mDNSInterfaceUse ipv4;
  mDNSInterfaceUse ipv6;
} mDNSInterfaceVerdict;

/* ---- Cache, platform and core state ----------------------------------- */

#define mDNS_CacheEntitySize 1024
typedef MDNS_PRIVATE(mDNS_CacheEntitySize) CacheEntity;

#define mDNS_PlatformPrivateSize 16384
typedef struct {
  MDNS_PRIVATE(mDNS_PlatformPrivateSize) Private;
} mDNS_PlatformSupport;

typedef void mDNSCallback(mDNS* const m, mStatus result);

/* Service instances the browses remember having reported, whether or not
 * their records still fit the cache. */
#define mDNS_MaxBrowseAnswers 3072
#define mDNS_CorePrivateSize 524288

struct mDNS_struct {
  NetworkInterfaceInfo* HostInterfaces; /* head of the list of usable interfaces */
  MDNS_PRIVATE(mDNS_CorePrivateSize) Private;
};

/* ---- Engine ------------------------------------------------------------ */

/* A callback may end the core (mDNS_StartExit, mDNS_FinalExit) but not start
 * it again on the same storage: mDNS_Init then returns mStatus_BadStateErr. */
MDNS_API mStatus mDNS_Init(mDNS* const m, mDNS_PlatformSupport* const p, CacheEntity* rrcachestorage,
                           mDNSu32 rrcachesize, mDNSBool AdvertiseLocalAddresses, mDNSCallback* Callback,
                           void* Context);
MDNS_API void mDNS_StartExit(mDNS* const m);
MDNS_API void mDNS_FinalExit(mDNS* const m);
/* Reads the interfaces again (those of the calling thread's network namespace,
 * as mDNS_Init does) and the name servers of /etc/resolv.conf: joins new
 * interfaces, leaves vanished ones, whose records then leave with remove
 * events.  The core also notices interface changes by itself. */
MDNS_API mStatus mDNSPlatformPosixRefreshInterfaceList(mDNS* const m);
/* The interfaces of the calling thread's network namespace as mDNS_Init and
 * the refreshes judge them: at most mDNS_MaxInterfaces, those with an IPv4 or
 * IPv6 address first.  Writes the first `capacity` verdicts and returns how
 * many interfaces there are, or -1 when they cannot be read.  Needs no core.
 * A family judged used can still fail when the core joins its group. */
MDNS_API int mDNS_JudgeInterfaces(mDNSInterfaceVerdict* verdicts, int capacity);

/* A browse for instances of `srv` (two labels, "_app._tcp" or "_app._udp"; a
 * subtype of one, "_printer._sub._app._tcp"; or "_services._dns-sd._udp", whose
 * answers name the service types) in `domain` (at least one label).  Other
 * shapes are refused with mStatus_BadParamErr. */
MDNS_API mStatus mDNS_StartBrowse(mDNS* const m, DNSQuestion* const question, const domainname* const srv,
                                  const domainname* const domain, const mDNSInterfaceID InterfaceID,
                                  mDNSBool ForceMCast, mDNSQuestionCallback* Callback, void* Context);
MDNS_API mStatus mDNS_StartQuery(mDNS* const m, DNSQuestion* const question);
MDNS_API mStatus mDNS_StopQuery(mDNS* const m, DNSQuestion* const question);

/* Asks for the SRV and TXT of info->name, then for the addresses of the SRV
 * target, and calls back once for every address (with the current port).  It
 * runs until stopped: it follows changes of the SRV's port and target and
 * reports new addresses.  Once it has reported an address it stops asking on
 * the link and only listens to what devices announce (names under "local.");
 * unicast DNS names are polled at about 80 % of their records' TTLs. */
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
