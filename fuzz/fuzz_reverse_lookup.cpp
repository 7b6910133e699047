// Drives the reverse lookup's answer and name decoders with arbitrary bytes.
// Input: one byte with the query's encoded name length, then the datagram.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "reverse_lookup/answer_decoder.h"
#include "reverse_lookup/name_decoder.h"
#include "sorvalen/dns_reverse_lookup_posix.h"

namespace {

constexpr std::size_t kReceiveBufferSize = 1024;

void check(bool holds) {
  if (!holds)
    __builtin_trap();
}

void check_names(const unsigned char* message, std::size_t length) {
  for (std::size_t offset = 0; offset < length && offset < 64; ++offset) {
    const sorvalen::DecodedName name = sorvalen::decode_name(message, length, offset);
    if (!name.ok)
      continue;
    check(name.text.size() < sorvalen::kNameBlockSize);
    check(name.count >= 1 && offset + static_cast<std::size_t>(name.count) <= length);
  }
}

void check_read_name(const unsigned char* message, std::size_t length, std::size_t offset) {
  unsigned char buffer[kReceiveBufferSize] = {};
  std::memcpy(buffer, message, length);
  sorvalen::DNSReverseLookupPosix lookup;
  int count = -1;
  unsigned char* block = lookup.ReadName(buffer + offset % kReceiveBufferSize, buffer, &count);
  if (block == nullptr)
    return;
  check(std::memchr(block, 0, sorvalen::kNameBlockSize) != nullptr);
  check(count >= 0);
  std::free(block);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1)
    return 0;
  const std::size_t question_name_length = data[0];
  const unsigned char* message = data + 1;
  const std::size_t length = size - 1 < kReceiveBufferSize ? size - 1 : kReceiveBufferSize;

  const sorvalen::AnswerOutcome outcome =
      sorvalen::decode_answer(message, length, question_name_length, 0xFFFF);
  if (outcome.ok)
    check(outcome.name.size() < sorvalen::kNameBlockSize);
  if (!outcome.ok)
    check(outcome.port == 0 && outcome.name.empty());
  check_names(message, length);
  check_read_name(message, length, question_name_length + 12);
  return 0;
}
