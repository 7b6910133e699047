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

Bytes header_then(const Bytes& tail) {
  Bytes message(12, 0);
  append(&message, tail);
  return message;
}

// Labels of the given lengths, then the closing zero.
Bytes labels(std::initializer_list<int> lengths) {
  Bytes out;
  for (int length : lengths) {
    out.push_back(static_cast<uint8_t>(length));
    out.insert(out.end(), static_cast<std::size_t>(length), 'x');
  }
  out.push_back(0);
  return out;
}

TEST(ReadName, DecodesNamesInsideTheReceiveBufferAndCountsTheBytesWhereTheyStart) {
  // 12: "local" root; 19: "b" -> 12; 23: "a" -> 19
  const Bytes chained = header_then({5, 'l', 'o', 'c', 'a', 'l', 0, 1, 'b', 0xC0, 12, 1, 'a', 0xC0, 19});
  const struct {
    Bytes message;
    std::size_t offset;
    std::string text;
    int count;
  } cases[] = {
      {{3, 'd', 'e', 'v', 5, 'l', 'o', 'c', 'a', 'l', 0}, 0, "dev.local", 11},
      {chained, 23, "a.b.local", 4},
      {chained, 21, "local", 2},
      {{0}, 0, "", 1},
      {header_then({0, 0xC0, 0x0C}), 13, "", 2},
      // Hostile: a pointer to itself, a label and a pointer back to it (the
      // copies grow until the block is full), a pointer past the 1024 bytes,
      // and a reader at the buffer's end.
      {header_then({0xC0, 0x0C}), 12, "", 0},
      {header_then({2, 'a', 'b', 0xC0, 0x0C}), 12, "", 0},
      {{0xC7, 0xFF}, 0, "", 0},
      {{0}, 1024, "", 0},
  };
  DNSReverseLookupPosix lookup;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text + " at " + std::to_string(c.offset));
    unsigned char buffer[1024] = {};
    std::memcpy(buffer, c.message.data(), c.message.size());
    int count = -1;
    std::unique_ptr<unsigned char, decltype(&std::free)> block(
        lookup.ReadName(buffer + c.offset, buffer, &count), &std::free);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<const char*>(block.get()), c.text);
    EXPECT_EQ(count, c.count);
  }
}

TEST(NameDecoder, RejectsNamesThatLeaveTheMessageOrOverfillTheNameBlock) {
  Bytes label_255{255};
  label_255.insert(label_255.end(), 255, 'y');
  label_255.push_back(0);
  const struct {
    const char* what;
    Bytes message;
    std::size_t offset;
  } cases[] = {
      {"unterminated", {3, 'd', 'e', 'v'}, 0},
      {"half a pointer", {0xC0}, 0},
      {"pointer to the end", {0, 0xC0, 0x02}, 1},
      {"offset at the end", {3, 'd', 'e', 'v'}, 4},
      {"256 bytes to copy", labels({127, 127}), 0},
      {"widest labels", labels({191, 191}), 0},
      {"255 is a pointer marker, here far past the end", label_255, 0},
      {"length beyond the copied bytes", {9, 'a', 'b', 0}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_FALSE(decode_name(c.message.data(), c.message.size(), c.offset).ok);
  }

  // 255 copied bytes: the text and its NUL just fill the 256-byte block.
  const Bytes longest = labels({126, 127});
  const DecodedName fits = decode_name(longest.data(), longest.size(), 0);
  ASSERT_TRUE(fits.ok);
  EXPECT_EQ(fits.text.size(), 254u);
  EXPECT_EQ(fits.count, 256);
}

AnswerOutcome decode(const Bytes& message, const std::string& name = "a.b") {
  return decode_answer(message.data(), message.size(), encoded_name(name).size(), 0xBEEF);
}

TEST(AnswerDecoder, SkipsTheQuestionByTheQueryLengthAndAPtrByItsNameNotItsRdlength) {
  // The answer's question is garbage of the query's length.
  Bytes message = answer_header(3, 2, "a.b");
  for (std::size_t i = 12; i < 12 + 5 + 4; ++i)
    message[i] = 0xC0;
  // RDLENGTH claims 40 bytes; the walk must go by the name's own length.
  Bytes ptr = record(encoded_name("a.b"), 12, Bytes(40, 0));
  ptr.resize(ptr.size() - 40);
  append(&ptr, encoded_name("t.a.b"));
  append(&message, ptr);
  append(&message, srv_record("t.a.b", 99));
  const AnswerOutcome outcome = decode(message);
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.port, 99);
  EXPECT_EQ(outcome.name, "t.a.b");
}

TEST(AnswerDecoder, TreatsBrokenBoundsAsAnUnusableAnswer) {
  Bytes good = answer_header(0x4242, 2, "a.b");
  append(&good, ptr_record("a.b", "t.a.b"));
  append(&good, srv_record("t.a.b", 8080));
  ASSERT_TRUE(decode(good).ok);

  // Every truncation of a good answer is unusable but keeps its ID.
  for (std::size_t length = 2; length < good.size(); ++length) {
    const AnswerOutcome cut = decode_answer(good.data(), length, 5, 0xBEEF);
    EXPECT_FALSE(cut.ok) << length;
    EXPECT_EQ(cut.id, 0x4242) << length;
  }
  EXPECT_EQ(decode_answer(good.data(), 1, 5, 0xBEEF).id, 0xBEEF);

  // Answer counts larger than the message holds.
  Bytes more_counted = good;
  more_counted[7] = 3;
  EXPECT_FALSE(decode(more_counted).ok);
  more_counted[6] = 0xFF;
  more_counted[7] = 0xFF;
  EXPECT_FALSE(decode(more_counted).ok);

  Bytes short_srv = answer_header(1, 2, "a.b");
  append(&short_srv, ptr_record("a.b", "t.a.b"));
  append(&short_srv, record(encoded_name("t.a.b"), 33, Bytes{0, 0, 0, 0}));
  EXPECT_FALSE(decode(short_srv).ok);

  Bytes rdata_past_end = good;
  rdata_past_end[rdata_past_end.size() - 20] = 0x7F;  // SRV RDLENGTH high byte
  EXPECT_FALSE(decode(rdata_past_end).ok);

  Bytes looping_target = answer_header(1, 2, "a.b");
  append(&looping_target, srv_record("t.a.b", 5));
  const auto loop_at = static_cast<uint8_t>(looping_target.size() + 12);
  append(&looping_target, record({0xC0, 0x0C}, 12, Bytes{0xC0, loop_at}));
  EXPECT_FALSE(decode(looping_target).ok);
}

}  // namespace
}  // namespace sorvalen::test
