// Whole received messages through the core's parser: header, every question,
// every record, and record-data equality between the records found.  Every
// record read is also written back as a known answer and read again: what the
// writer makes of parsed data must parse to the same record.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "wire/identity.h"
#include "wire/message_reader.h"
#include "wire/message_writer.h"
#include "wire/names.h"

extern "C" const char ProgramName[] = "fuzz_mdns_message";

namespace {

constexpr int kMaxKept = 8;
constexpr int kMaxItems = 70000;  // more than any 16-bit count allows

void require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

void check_record(const mdns::ParsedRecord& r) {
  // Parsed names are always well formed; a zero length would mean a broken read.
  require(mdns::name_length(r.name) != 0);
  require(r.rdata.length <= mDNS_MaxRDataSize);
  char text[MAX_ESCAPED_DOMAIN_NAME];
  ConvertDomainNameToCString_withescape(&r.name, text, '\\');
  if (r.rrtype == kDNSType_PTR) {
    require(mdns::name_length(r.rdata.u.name) == r.rdata.length);
  }
}

void check_round_trip(const mdns::ParsedRecord& r) {
  static uint8_t buf[1500];
  static mdns::ParsedRecord back;
  mdns::QueryWriter w(buf, sizeof buf);
  require(w.add_known_answer(r.name, r.rrtype, r.rrclass, r.ttl, r.rdata));
  mdns::MessageParser p(buf, w.finish());
  mdns::MessageHeader h;
  require(p.read_header(h) && p.next_record(back) == mdns::MessageParser::Result::kOk);
  require(std::memcmp(back.name.c, r.name.c, mdns::name_length(r.name)) == 0);
  require(back.rrtype == r.rrtype && back.rrclass == r.rrclass && back.ttl == r.ttl);
  require(mdns::rdata_equal(r.rrtype, r.rdata, back.rdata));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mdns::MessageParser parser(data, size);
  mdns::MessageHeader header;
  if (!parser.read_header(header)) {
    return 0;
  }

  using Result = mdns::MessageParser::Result;
  for (int i = 0; i < header.qdcount; ++i) {
    mdns::ParsedQuestion q;
    const Result r = parser.next_question(q);
    if (r == Result::kEnd || r == Result::kMalformed) {
      break;
    }
  }

  static mdns::ParsedRecord kept[kMaxKept];
  int count = 0;
  for (int i = 0; i < kMaxItems; ++i) {
    mdns::ParsedRecord& rec = kept[count % kMaxKept];
    const Result r = parser.next_record(rec);
    if (r == Result::kEnd || r == Result::kMalformed) {
      break;
    }
    if (r != Result::kOk) {
      continue;
    }
    check_record(rec);
    check_round_trip(rec);
    ++count;
  }
  const int n = count < kMaxKept ? count : kMaxKept;
  for (int a = 0; a < n; ++a) {
    for (int b = 0; b < n; ++b) {
      if (kept[a].rrtype == kept[b].rrtype) {
        require(mdns::rdata_equal(kept[a].rrtype, kept[a].rdata, kept[b].rdata) ==
                mdns::rdata_equal(kept[b].rrtype, kept[b].rdata, kept[a].rdata));
      }
    }
  }
  return 0;
}
