// Bounded decoding of one DNS name inside a received message.
#pragma once

#include <cstddef>
#include <string>

namespace sorvalen {

// Size of the block that holds a decoded name, its terminating NUL included.
constexpr std::size_t kNameBlockSize = 256;

struct DecodedName {
  bool ok = false;
  std::string text;  // labels joined by '.', no trailing '.'; empty for the root
  int count = 0;     // bytes the name occupies where it starts
};

// Decodes the name that starts at `offset` of the `length` bytes at `message`,
// following compression pointers.  Every byte of a label, length bytes
// included, is copied until a zero byte; a byte of 192 or more is a pointer
// wherever it stands.  The name is unusable (ok false) when a read leaves the
// message, the copied bytes do not fit the name block, too many pointers are
// followed (loops) or a label length runs past the copied bytes.
DecodedName decode_name(const unsigned char* message, std::size_t length, std::size_t offset);

}  // namespace sorvalen
