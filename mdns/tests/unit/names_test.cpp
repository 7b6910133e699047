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

// The text of a name, checking that it ends within the documented bound.
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
std::string dotted(int labels, int size) {
  std::string s;
  for (int i = 0; i < labels; ++i) {
    s += std::string(static_cast<size_t>(size), 'a') + ".";
  }
  return s;
}

TEST(NameFromText, AcceptedTextsUpToTheLimits) {
  struct Case {
    std::string text;
    std::string wire;
  };
  const Case cases[] = {
      {"", std::string(1, '\0')},
      {".", std::string(1, '\0')},
      {"local", std::string("\5local\0", 7)},
      {"_http._tcp.local.", std::string("\5_http\4_tcp\5local\0", 18)},
      {"a\\.b.c", std::string("\3a.b\1c\0", 7)},
      {"a\\\\b", std::string("\3a\\b\0", 5)},
      {"\\065\\000x", std::string("\3A\0x\0", 5)},
      {"\\255", std::string("\1\xff\0", 3)},
      {"\\q", std::string("\1q\0", 3)},
      {std::string(63, 'x'), "\x3f" + std::string(63, 'x') + std::string(1, '\0')},
  };
  for (const auto& c : cases) {
    domainname n;
    const mDNSu8* end = MakeDomainNameFromDNSNameString(&n, c.text.c_str());
    ASSERT_NE(end, nullptr) << c.text;
    EXPECT_EQ(wire(n), c.wire) << c.text;
    EXPECT_EQ(end, n.c + c.wire.size()) << c.text;
  }
  // 255 wire bytes is the longest name; escapes count as one byte each.
  EXPECT_EQ(name_length(from_text(dotted(3, 63) + std::string(61, 'b'))), 255u);
  EXPECT_EQ(name_length(from_text(dotted(127, 1))), 255u);
  EXPECT_EQ(name_length(from_text(std::string(61, 'x') + "\\046\\046")), 65u);
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
      std::string(62, 'x') + "\\046\\046",   // 64 bytes through escapes
      dotted(3, 63) + std::string(62, 'b'),  // 256 wire bytes
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

TEST(NameToText, EscapesAndRoundTrip) {
  struct Case {
    const char* name;
    char esc;
    const char* text;
  };
  const Case cases[] = {
      {"My\\.Dev ice\\\\.local", 0, "My.Dev ice\\.local."},
      {"My\\.Dev ice\\\\.local", '\\', "My\\.Dev\\032ice\\\\.local."},
      {"My\\.Dev ice\\\\.local", '%', "My%.Dev%032ice\\.local."},
      {"\\000\\031\\127\\200\\255!~", '\\', "\\000\\031\\127\\200\\255!~."},
      {".", '\\', "."},
      {".", 0, "."},
  };
  for (const auto& c : cases) {
    const std::string text = name_text(from_text(c.name), c.esc);
    EXPECT_EQ(text, c.text) << c.name;
    if (c.esc == '\\') {
      EXPECT_TRUE(mdns::names_equal(from_text(text), from_text(c.name))) << "round trip of " << c.name;
    }
  }
  domainlabel l;
  l.c[0] = 5;
  std::memcpy(l.c + 1, "a.b\\ ", 5);
  EXPECT_EQ(label_text(l, 0), "a.b\\ ");
  EXPECT_EQ(label_text(l, '\\'), "a\\.b\\\\\\032");
}

TEST(NameToText, LongestAndMalformedNamesStayInBounds) {
  // 255 wire bytes in four labels of bytes that all escape to \DDD: the longest text.
  std::string text;
  for (int size : {63, 63, 63, 61}) {
    for (int i = 0; i < size; ++i) {
      text += "\\001";
    }
    text += ".";
  }
  const domainname longest = from_text(text);
  ASSERT_EQ(name_length(longest), 255u);
  EXPECT_EQ(name_text(longest, '\\').size(), 250u * 4 + 4);
  domainlabel l;
  l.c[0] = 63;
  std::memset(l.c + 1, 0x7F, 63);
  EXPECT_EQ(label_text(l, '\\').size(), 63u * 4);
  l.c[0] = 64;
  EXPECT_EQ(label_text(l, 0), "");

  domainname n;
  std::memset(n.c, 'q', sizeof n.c);
  n.c[0] = 1;
  n.c[2] = 64;  // label too long after "q"
  EXPECT_EQ(name_text(n, 0), "q.");
  EXPECT_EQ(name_length(n), 0u);
  for (size_t i = 0; i < 256; i += 64) {
    n.c[i] = 63;  // labels of 63 chained past 255 bytes without a root
  }
  EXPECT_EQ(name_text(n, 0).size(), 3u * 64);
  EXPECT_EQ(name_length(n), 0u);
  for (int reserved : {0x40, 0x80, 0xC0}) {
    n.c[0] = static_cast<mDNSu8>(reserved);
    EXPECT_EQ(name_text(n, 0), "") << reserved;
    EXPECT_EQ(name_length(n), 0u) << reserved;
  }
}

TEST(DeconstructServiceName, SplitsServiceNames) {
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
  for (const char* t : {"", "local", "_http._tcp.local", "x._http._tcpx.local", "x._http._sctp.local",
                        "x._http._tcp", "x.y._http._tcp.local"}) {
    domainname fqdn = from_text(t);
    domainlabel label;
    domainname type;
    domainname domain;
    std::memset(&label, 7, sizeof label);
    std::memset(&type, 7, sizeof type);
    std::memset(&domain, 7, sizeof domain);
    EXPECT_FALSE(DeconstructServiceName(&fqdn, &label, &type, &domain)) << t;
    EXPECT_EQ(label.c[0] + type.c[0] + domain.c[0], 0) << t;
  }
}

TEST(WireNames, CaseInsensitiveEqualityAndHash) {
  const domainname a = from_text("Printer._IPP._tcp.LOCAL");
  const domainname b = from_text("printer._ipp._TCP.local");
  EXPECT_TRUE(mdns::names_equal(a, b));
  EXPECT_EQ(mdns::name_hash(a), mdns::name_hash(b));
  // Only ASCII letters fold: 0xC0/0xE0 and '['/'{' differ.
  EXPECT_FALSE(mdns::names_equal(from_text("\\192"), from_text("\\224")));
  EXPECT_FALSE(mdns::names_equal(from_text("a["), from_text("a{")));
  EXPECT_FALSE(mdns::names_equal(from_text("ab.c"), from_text("a.bc")));
}

TEST(WireNames, AppendAndPrependRefuseToPassTheLimit) {
  domainname head = from_text("_http._tcp");
  ASSERT_TRUE(mdns::append_name(head, from_text("local")));
  domainlabel l;
  l.c[0] = 3;
  std::memcpy(l.c + 1, "a.b", 3);
  ASSERT_TRUE(mdns::prepend_label(head, l, head));  // in place
  EXPECT_EQ(name_text(head, '\\'), "a\\.b._http._tcp.local.");

  domainname big = from_text(dotted(3, 63) + std::string(61, 'b'));
  EXPECT_FALSE(mdns::append_name(big, from_text("x")));
  EXPECT_FALSE(mdns::prepend_label(big, l, big));
  EXPECT_EQ(name_length(big), 255u);  // untouched
}

}  // namespace
