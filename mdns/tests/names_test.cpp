// Wire names and their text forms.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mdns/mdns.h"
#include "names.h"

namespace {

using mdns::name_length;

domainname from_text(const std::string& text) {
  domainname n;
  std::memset(&n, 0xAA, sizeof n);
  EXPECT_NE(MakeDomainNameFromDNSNameString(&n, text.c_str()), nullptr) << text;
  return n;
}

std::string wire(const domainname& n) {
  return std::string(reinterpret_cast<const char*>(n.c), name_length(n));
}

std::string name_text(const domainname& n, char esc) {
  char buf[MAX_ESCAPED_DOMAIN_NAME + 16];
  std::memset(buf, 'Z', sizeof buf);
  char* end = ConvertDomainNameToCString_withescape(&n, buf, esc);
  EXPECT_EQ(*end, '\0');
  EXPECT_LT(end - buf, MAX_ESCAPED_DOMAIN_NAME);
  return std::string(buf, static_cast<size_t>(end - buf));
}

std::string label_text(const domainlabel& l, char esc) {
  char buf[MAX_ESCAPED_DOMAIN_LABEL + 16];
  char* end = ConvertDomainLabelToCString_withescape(&l, buf, esc);
  EXPECT_EQ(*end, '\0');
  EXPECT_LT(end - buf, MAX_ESCAPED_DOMAIN_LABEL);
  return std::string(buf, static_cast<size_t>(end - buf));
}

// A name of `labels` labels of `size` bytes each.
std::string dotted(int labels, int size, char c = 'a') {
  std::string s;
  for (int i = 0; i < labels; ++i)
    s += std::string(static_cast<size_t>(size), c) + ".";
  return s;
}

TEST(NameFromText, AcceptedTexts) {
  struct Case {
    const char* text;
    std::string wire;
  };
  const Case cases[] = {
      {"", std::string(1, '\0')},
      {".", std::string(1, '\0')},
      {"local", std::string("\5local\0", 7)},
      {"local.", std::string("\5local\0", 7)},
      {"_http._tcp.local", std::string("\5_http\4_tcp\5local\0", 18)},
      {"a\\.b.c", std::string("\3a.b\1c\0", 7)},
      {"a\\\\b", std::string("\3a\\b\0", 5)},
      {"\\065\\000x", std::string("\3A\0x\0", 5)},
      {"\\255", std::string("\1\xff\0", 3)},
      {"My Printer\\046lab", std::string("\016My Printer.lab\0", 16)},
      {"\\q", std::string("\1q\0", 3)},
  };
  for (const auto& c : cases) {
    domainname n;
    const mDNSu8* end = MakeDomainNameFromDNSNameString(&n, c.text);
    ASSERT_NE(end, nullptr) << c.text;
    EXPECT_EQ(wire(n), c.wire) << c.text;
    EXPECT_EQ(end, n.c + c.wire.size()) << c.text;
  }
}

TEST(NameFromText, RejectedTexts) {
  const std::string rejected[] = {
      "a..b",
      ".a",
      "a..",
      "..",
      "a\\",
      "\\25",
      "\\2x5",
      "\\256",
      "\\999",
      std::string(64, 'x') + ".local",       // label of 64
      dotted(3, 63) + std::string(62, 'b'),  // 64*3 + 63 + 1 = 256 wire bytes
      dotted(128, 1),                        // 257 wire bytes
  };
  for (const auto& text : rejected) {
    domainname n;
    EXPECT_EQ(MakeDomainNameFromDNSNameString(&n, text.c_str()), nullptr) << text;
  }
  domainname n;
  EXPECT_EQ(MakeDomainNameFromDNSNameString(&n, nullptr), nullptr);
  EXPECT_EQ(MakeDomainNameFromDNSNameString(nullptr, "a"), nullptr);
}

TEST(NameFromText, LimitsAreInclusive) {
  EXPECT_EQ(name_length(from_text(std::string(63, 'x'))), 65u);
  // 3 * 64 + 62 + 1 = 255 bytes: the longest name.
  EXPECT_EQ(name_length(from_text(dotted(3, 63) + std::string(61, 'b'))), 255u);
  EXPECT_EQ(name_length(from_text(dotted(127, 1))), 255u);
  // Escapes count as one byte each.
  EXPECT_EQ(name_length(from_text(std::string(21, 'x') + std::string("\\046\\046") + std::string(40, 'y'))),
            65u);
}

TEST(NameToText, EscapeCharacterZeroCopiesBytes) {
  domainname n = from_text("My\\.Dev ice\\\\.local");
  EXPECT_EQ(name_text(n, 0), "My.Dev ice\\.local.");
  EXPECT_EQ(name_text(n, '\\'), "My\\.Dev\\032ice\\\\.local.");
  EXPECT_EQ(name_text(n, '%'), "My%.Dev%032ice\\.local.");
}

TEST(NameToText, NonPrintingBytesAsDecimal) {
  domainname n = from_text("\\000\\031\\127\\200\\255!~");
  EXPECT_EQ(name_text(n, '\\'), "\\000\\031\\127\\200\\255!~.");
}

TEST(NameToText, RootAndRoundTrip) {
  domainname root;
  mdns::set_root(root);
  EXPECT_EQ(name_text(root, '\\'), ".");
  EXPECT_EQ(name_text(root, 0), ".");
  const char* texts[] = {"a\\.b.\\\\c.\\000\\255.local.", "x.y."};
  for (const char* t : texts) {
    domainname back;
    ASSERT_NE(MakeDomainNameFromDNSNameString(&back, name_text(from_text(t), '\\').c_str()), nullptr);
    EXPECT_TRUE(mdns::names_equal(back, from_text(t))) << t;
  }
}

TEST(NameToText, LongestNamesFitTheDocumentedBounds) {
  // 255 wire bytes in four labels of bytes that all escape to \DDD: the longest text.
  std::string text;
  const int sizes[] = {63, 63, 63, 61};
  for (int s : sizes) {
    for (int i = 0; i < s; ++i)
      text += "\\001";
    text += ".";
  }
  domainname n = from_text(text);
  ASSERT_EQ(name_length(n), 255u);
  EXPECT_EQ(name_text(n, '\\').size(), 250u * 4 + 4);
  domainlabel l;
  l.c[0] = 63;
  std::memset(l.c + 1, 0x7F, 63);
  EXPECT_EQ(label_text(l, '\\').size(), 63u * 4);
}

TEST(NameToText, MalformedNamesStopSafely) {
  domainname n;
  std::memset(n.c, 'q', sizeof n.c);
  n.c[0] = 1;
  n.c[2] = 64;  // label too long after "q"
  EXPECT_EQ(name_text(n, 0), "q.");
  // Only labels of 63 chained past 255 bytes without a root.
  for (size_t i = 0; i < 256; i += 64)
    n.c[i] = 63;
  EXPECT_EQ(name_text(n, 0).size(), 3u * 64);
  n.c[0] = 0xC0;  // a compression pointer has no place in a stored name
  EXPECT_EQ(name_text(n, 0), "");
}

TEST(LabelToText, Escapes) {
  domainlabel l;
  l.c[0] = 5;
  std::memcpy(l.c + 1, "a.b\\ ", 5);
  EXPECT_EQ(label_text(l, 0), "a.b\\ ");
  EXPECT_EQ(label_text(l, '\\'), "a\\.b\\\\\\032");
  l.c[0] = 64;
  EXPECT_EQ(label_text(l, 0), "");
}

TEST(DeconstructServiceName, Splits) {
  domainname fqdn = from_text("Living Room\\.TV._airplay._TCP.example.local");
  domainlabel label;
  domainname type;
  domainname domain;
  ASSERT_TRUE(DeconstructServiceName(&fqdn, &label, &type, &domain));
  EXPECT_EQ(label_text(label, 0), "Living Room.TV");
  EXPECT_EQ(name_text(type, 0), "_airplay._TCP.");
  EXPECT_EQ(name_text(domain, 0), "example.local.");

  fqdn = from_text("x._ipp._udp.local.");
  ASSERT_TRUE(DeconstructServiceName(&fqdn, &label, &type, &domain));
  EXPECT_EQ(name_text(domain, 0), "local.");
}

TEST(DeconstructServiceName, RejectsOtherShapesWithEmptyOutputs) {
  const char* rejected[] = {"",
                            "local",
                            "_http._tcp.local",
                            "x._http._tcpx.local",
                            "x._http._sctp.local",
                            "x._http._tcp",
                            "x.y._http._tcp.local"};
  for (const char* t : rejected) {
    domainname fqdn = from_text(t);
    domainlabel label;
    domainname type;
    domainname domain;
    std::memset(&label, 7, sizeof label);
    std::memset(&type, 7, sizeof type);
    std::memset(&domain, 7, sizeof domain);
    EXPECT_FALSE(DeconstructServiceName(&fqdn, &label, &type, &domain)) << t;
    EXPECT_EQ(label.c[0], 0) << t;
    EXPECT_EQ(type.c[0], 0) << t;
    EXPECT_EQ(domain.c[0], 0) << t;
  }
}

TEST(WireNames, LengthRejectsMalformed) {
  domainname n;
  std::memset(n.c, 0, sizeof n.c);
  EXPECT_EQ(name_length(n), 1u);
  n.c[0] = 0x40;
  EXPECT_EQ(name_length(n), 0u);
  n.c[0] = 0x80;
  EXPECT_EQ(name_length(n), 0u);
  std::memset(n.c, 1, sizeof n.c);  // 128 one-byte labels, no root within 255
  EXPECT_EQ(name_length(n), 0u);
}

TEST(WireNames, CaseInsensitiveEqualityAndHash) {
  domainname a = from_text("Printer._IPP._tcp.LOCAL");
  domainname b = from_text("printer._ipp._TCP.local");
  EXPECT_TRUE(mdns::names_equal(a, b));
  EXPECT_EQ(mdns::name_hash(a), mdns::name_hash(b));
  // Only ASCII letters fold: bytes 0xC0 and 0xE0 differ.
  EXPECT_FALSE(mdns::names_equal(from_text("\\192"), from_text("\\224")));
  EXPECT_FALSE(mdns::names_equal(from_text("ab.c"), from_text("a.bc")));
  EXPECT_FALSE(mdns::names_equal(from_text("a["), from_text("a{")));
}

TEST(WireNames, AppendAndPrepend) {
  domainname head = from_text("_http._tcp");
  ASSERT_TRUE(mdns::append_name(head, from_text("local")));
  EXPECT_TRUE(mdns::names_equal(head, from_text("_http._tcp.local")));

  domainlabel l;
  l.c[0] = 3;
  std::memcpy(l.c + 1, "a.b", 3);
  ASSERT_TRUE(mdns::prepend_label(head, l, head));  // in place
  EXPECT_EQ(name_text(head, '\\'), "a\\.b._http._tcp.local.");

  domainname big = from_text(dotted(3, 63) + std::string(61, 'b'));
  domainname one = from_text("x");
  EXPECT_FALSE(mdns::append_name(big, one));
  EXPECT_FALSE(mdns::prepend_label(big, l, big));
  EXPECT_EQ(name_length(big), 255u);  // untouched
  domainname root;
  mdns::set_root(root);
  EXPECT_TRUE(mdns::append_name(root, one));
  EXPECT_TRUE(mdns::names_equal(root, one));
}

}  // namespace
