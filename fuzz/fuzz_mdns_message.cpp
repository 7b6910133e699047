// Whole received messages through the core's parser: header, every question,
// every record, and record-data equality between the records found.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "message_reader.h"
#include "names.h"

extern "C" const char ProgramName[] = "fuzz_mdns_message";

namespace {

constexpr int kMaxKept = 8;
constexpr int kMaxItems = 70000;  // more than any 16-bit count allows

void check_record(const mdns::ParsedRecord& r) {
  // Parsed names are always well formed; a zero length would mean a broken read.
  if (mdns::name_length(r.name) == 0)
    __builtin_trap();
  if (r.rdata.length > mDNS_MaxRDataSize)
    __builtin_trap();
  char text[MAX_ESCAPED_DOMAIN_NAME];
  ConvertDomainNameToCString_withescape(&r.name, text, '\\');
  if (r.rrtype == kDNSType_PTR && mdns::name_length(r.rdata.u.name) != r.rdata.length)
    __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mdns::MessageParser parser(data, size);
  mdns::MessageHeader header;
  if (!parser.read_header(header))
    return 0;

  using Result = mdns::MessageParser::Result;
  for (int i = 0; i < header.qdcount; ++i) {
    mdns::ParsedQuestion q;
    const Result r = parser.next_question(q);
    if (r == Result::kEnd || r == Result::kMalformed)
      break;
  }

  static mdns::ParsedRecord kept[kMaxKept];
  int count = 0;
  for (int i = 0; i < kMaxItems; ++i) {
    mdns::ParsedRecord& rec = kept[count % kMaxKept];
    const Result r = parser.next_record(rec);
    if (r == Result::kEnd || r == Result::kMalformed)
      break;
    if (r != Result::kOk)
      continue;
    check_record(rec);
    ++count;
  }
  const int n = count < kMaxKept ? count : kMaxKept;
  for (int a = 0; a < n; ++a) {
    for (int b = 0; b < n; ++b) {
      if (kept[a].rrtype != kept[b].rrtype)
        continue;
      const bool ab = mdns::rdata_equal(kept[a].rrtype, kept[a].rdata, kept[b].rdata);
      const bool ba = mdns::rdata_equal(kept[b].rrtype, kept[b].rdata, kept[a].rdata);
      if (ab != ba)
        __builtin_trap();
    }
  }
  return 0;
}
