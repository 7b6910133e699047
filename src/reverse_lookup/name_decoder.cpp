#include "reverse_lookup/name_decoder.h"

namespace sorvalen {
namespace {

// No sensible name needs more pointers than this; more means a loop.
constexpr int kMaxPointers = 64;

bool is_pointer(unsigned char byte) {
  return byte >= 192;
}

// Turns length-prefixed labels into dotted text; false when a length byte
// claims more bytes than were copied.
bool labels_to_text(const std::string& copied, std::string* text) {
  std::size_t place = 0;
  while (place < copied.size()) {
    const std::size_t label_length = static_cast<unsigned char>(copied[place]);
    if (place + 1 + label_length > copied.size())
      return false;
    text->append(copied, place + 1, label_length);
    text->push_back('.');
    place += label_length + 1;
  }
  if (!text->empty())
    text->pop_back();
  return true;
}

}  // namespace

DecodedName decode_name(const unsigned char* message, std::size_t length, std::size_t offset) {
  DecodedName failed;
  std::string copied;
  int count = 1;
  int pointers = 0;
  std::size_t place = offset;
  for (;;) {
    if (place >= length)
      return failed;
    const unsigned char byte = message[place];
    if (byte == 0)
      break;
    if (is_pointer(byte)) {
      if (place + 1 >= length || ++pointers > kMaxPointers)
        return failed;
      place = static_cast<std::size_t>(byte - 192) * 256 + message[place + 1];
      continue;
    }
    if (copied.size() + 1 >= kNameBlockSize)
      return failed;
    copied.push_back(static_cast<char>(byte));
    if (pointers == 0)
      ++count;
    ++place;
  }
  if (pointers > 0)
    ++count;

  DecodedName name;
  if (!labels_to_text(copied, &name.text))
    return failed;
  name.ok = true;
  name.count = count;
  return name;
}

}  // namespace sorvalen
