// The name and answer decoders on well-formed and hostile messages.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

#include "dns_message_builder.h"
#include "reverse_lookup/answer_decoder.h"
#include "reverse_lookup/name_decoder.h"
#include "sorvalen/dns_reverse_lookup_posix.h"

namespace sorvalen::test {
namespace {

// A message in a 1024-byte buffer, as the receiving thread holds it.
struct MessageBuffer {
  unsigned char bytes[1024] = {};
  explicit MessageBuffer(const Bytes& content) { std::memcpy(bytes, content.data(), content.size()); }
};

struct ReadNameResult {
  std::string text;
  int count;
};

ReadNameResult read_name_at(const Bytes& message, std::size_t offset) {
  MessageBuffer buffer(message);
  DNSReverseLookupPosix lookup;
  int count = -1;
  std::unique_ptr<unsigned char, decltype(&std::free)> block(
      lookup.ReadName(buffer.bytes + offset, buffer.bytes, &count), &std::free);
  EXPECT_NE(block, nullptr);
  return {reinterpret_cast<const char*>(block.get()), count};
}

Bytes header_then(const Bytes& tail) {
  Bytes message(12, 0);
  append(&message, tail);
  return message;
}

TEST(ReadName, DecodesPlainCompressedAndRootNames) {
  ReadNameResult plain = read_name_at({3, 'd', 'e', 'v', 5, 'l', 'o', 'c', 'a', 'l', 0}, 0);
  EXPECT_EQ(plain.text, "dev.local");
  EXPECT_EQ(plain.count, 11);

  // Byte 12 starts "local"; the name at 19 is "dev" then a pointer to it.
  Bytes compressed = header_then({5, 'l', 'o', 'c', 'a', 'l', 0, 3, 'd', 'e', 'v', 0xC0, 0x0C});
  ReadNameResult followed = read_name_at(compressed, 19);
  EXPECT_EQ(followed.text, "dev.local");
  EXPECT_EQ(followed.count, 6);

  ReadNameResult root = read_name_at({0}, 0);
  EXPECT_EQ(root.text, "");
  EXPECT_EQ(root.count, 1);

  ReadNameResult root_by_pointer = read_name_at(header_then({0, 0xC0, 0x0C}), 13);
  EXPECT_EQ(root_by_pointer.text, "");
  EXPECT_EQ(root_by_pointer.count, 2);
}

TEST(ReadName, FollowsPointerChainsAndCountsOnlyBytesBeforeTheFirst) {
  // 12: "local" root; 19: "b" -> 12; 23: "a" -> 19
  Bytes message = header_then({5, 'l', 'o', 'c', 'a', 'l', 0, 1, 'b', 0xC0, 12, 1, 'a', 0xC0, 19});
  ReadNameResult chain = read_name_at(message, 23);
  EXPECT_EQ(chain.text, "a.b.local");
  EXPECT_EQ(chain.count, 4);
  ReadNameResult pointer_only = read_name_at(message, 21);
  EXPECT_EQ(pointer_only.text, "local");
  EXPECT_EQ(pointer_only.count, 2);
}

TEST(ReadName, RejectsHostileNamesWithEmptyTextAndZeroCount) {
  ReadNameResult self_loop = read_name_at(header_then({0xC0, 0x0C}), 12);
  EXPECT_EQ(self_loop.text, "");
  EXPECT_EQ(self_loop.count, 0);

  // A label and a pointer back to it: copies grow until the block is full.
  ReadNameResult copying_loop = read_name_at(header_then({2, 'a', 'b', 0xC0, 0x0C}), 12);
  EXPECT_EQ(copying_loop.count, 0);

  // A pointer past the 1024-byte message.
  ReadNameResult far_pointer = read_name_at({0xC7, 0xFF}, 0);
  EXPECT_EQ(far_pointer.count, 0);

  // Reader outside the message.
  MessageBuffer buffer({0});
  DNSReverseLookupPosix lookup;
  int count = -1;
  unsigned char* block = lookup.ReadName(buffer.bytes + 1024, buffer.bytes, &count);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block[0], 0);
  EXPECT_EQ(count, 0);
  std::free(block);
}

TEST(NameDecoder, StaysInsideTheGivenLength) {
  const unsigned char unterminated[] = {3, 'd', 'e', 'v'};
  EXPECT_FALSE(decode_name(unterminated, sizeof unterminated, 0).ok);
  const unsigned char half_pointer[] = {0xC0};
  EXPECT_FALSE(decode_name(half_pointer, sizeof half_pointer, 0).ok);
  const unsigned char pointer_to_end[] = {0, 0xC0, 0x02};
  EXPECT_FALSE(decode_name(pointer_to_end, sizeof pointer_to_end, 1).ok);
  EXPECT_FALSE(decode_name(unterminated, sizeof unterminated, 4).ok);
}

Bytes labels(std::initializer_list<uint8_t> lengths) {
  Bytes out;
  for (uint8_t length : lengths) {
    out.push_back(length);
    out.insert(out.end(), length, 'x');
  }
  out.push_back(0);
  return out;
}

TEST(NameDecoder, BoundsTheCopiedBytesByTheNameBlock) {
  // 255 copied bytes: the text and its NUL fill the 256-byte block.
  const Bytes longest = labels({126, 127});
  DecodedName fits = decode_name(longest.data(), longest.size(), 0);
  ASSERT_TRUE(fits.ok);
  EXPECT_EQ(fits.text.size(), 254u);
  EXPECT_EQ(fits.count, 256);

  const Bytes one_more = labels({127, 127});
  EXPECT_FALSE(decode_name(one_more.data(), one_more.size(), 0).ok);
  const Bytes widest_label = labels({191, 191});
  EXPECT_FALSE(decode_name(widest_label.data(), widest_label.size(), 0).ok);

  // 255 as a length byte is a pointer marker: here one far past the end.
  Bytes label_255{255};
  label_255.insert(label_255.end(), 255, 'y');
  label_255.push_back(0);
  EXPECT_FALSE(decode_name(label_255.data(), label_255.size(), 0).ok);

  // A length byte that claims more than the bytes copied before the zero.
  const unsigned char overlong[] = {9, 'a', 'b', 0};
  EXPECT_FALSE(decode_name(overlong, sizeof overlong, 0).ok);
}

TEST(NameDecoder, ReadsLengthValuesBelowThePointerMarkAsLabels) {
  Bytes label_100{100};
  label_100.insert(label_100.end(), 100, 'z');
  label_100.push_back(0);
  DecodedName name = decode_name(label_100.data(), label_100.size(), 0);
  ASSERT_TRUE(name.ok);
  EXPECT_EQ(name.text, std::string(100, 'z'));
}

std::size_t question_length(const std::string& name) {
  return encoded_name(name).size();
}

AnswerOutcome decode(const Bytes& message, const std::string& name = "_http._tcp.local") {
  return decode_answer(message.data(), message.size(), question_length(name), 0xBEEF);
}

TEST(AnswerDecoder, ContinuesAfterThePtrNameNotItsRdlength) {
  Bytes message = answer_header(1, 2, "a.b");
  // RDLENGTH claims 40 bytes; the walk must go by the name's own length.
  Bytes ptr = encoded_name("a.b");
  append_u16(&ptr, 12);
  append_u16(&ptr, 1);
  append_u16(&ptr, 0);
  append_u16(&ptr, 0);
  append_u16(&ptr, 40);
  append(&ptr, encoded_name("t.a.b"));
  append(&message, ptr);
  append(&message, srv_record("t.a.b", 99));
  AnswerOutcome outcome = decode(message, "a.b");
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.port, 99);
}

TEST(AnswerDecoder, TreatsBrokenBoundsAsAnUnusableAnswer) {
  Bytes good = answer_header(0x4242, 2, "_http._tcp.local");
  append(&good, ptr_record("_http._tcp.local", "printer._http._tcp.local"));
  append(&good, srv_record("printer._http._tcp.local", 8080));
  ASSERT_TRUE(decode(good).ok);

  // Every truncation of a good answer is unusable but keeps its ID.
  for (std::size_t length = 2; length < good.size(); ++length) {
    AnswerOutcome cut = decode_answer(good.data(), length, question_length("_http._tcp.local"), 0xBEEF);
    EXPECT_FALSE(cut.ok) << length;
    EXPECT_EQ(cut.id, 0x4242) << length;
  }
  EXPECT_EQ(decode_answer(good.data(), 1, 18, 0xBEEF).id, 0xBEEF);
  EXPECT_EQ(decode_answer(good.data(), 0, 18, 0xBEEF).id, 0xBEEF);

  Bytes more_counted = good;
  more_counted[7] = 3;
  EXPECT_FALSE(decode(more_counted).ok);
  more_counted[6] = 0xFF;
  more_counted[7] = 0xFF;
  EXPECT_FALSE(decode(more_counted).ok);

  Bytes short_srv = answer_header(1, 2, "a.b");
  append(&short_srv, ptr_record("a.b", "t.a.b"));
  append(&short_srv, record(encoded_name("t.a.b"), 33, Bytes{0, 0, 0, 0}));
  EXPECT_FALSE(decode(short_srv, "a.b").ok);

  Bytes rdata_past_end = answer_header(1, 2, "a.b");
  append(&rdata_past_end, ptr_record("a.b", "t.a.b"));
  append(&rdata_past_end, srv_record("t.a.b", 5));
  rdata_past_end[rdata_past_end.size() - 20] = 0x7F;  // SRV RDLENGTH high byte
  EXPECT_FALSE(decode(rdata_past_end, "a.b").ok);

  Bytes looping_target = answer_header(1, 2, "a.b");
  Bytes loop_owner{0xC0, 0x0C};
  append(&looping_target, srv_record("t.a.b", 5));
  const auto loop_at = static_cast<uint8_t>(looping_target.size() + 12);
  append(&looping_target, record(loop_owner, 12, Bytes{0xC0, loop_at}));
  EXPECT_FALSE(decode(looping_target, "a.b").ok);
}

TEST(AnswerDecoder, SkipsAQuestionOfTheQueryLengthWithoutParsingIt) {
  // The answer's question is garbage of the right length; the answers after it count.
  Bytes message = answer_header(3, 2, "x.y");
  for (std::size_t i = 12; i < 12 + 5 + 4; ++i)
    message[i] = 0xC0;
  append(&message, ptr_record("x.y", "t.x.y"));
  append(&message, srv_record("t.x.y", 7));
  EXPECT_TRUE(decode(message, "x.y").ok);
}

}  // namespace
}  // namespace sorvalen::test
