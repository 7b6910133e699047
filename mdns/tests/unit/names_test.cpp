// DNS names: text to wire and back, service names, identity and building.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "mdns/mdns.h"
#include "wire/identity.h"
#include "wire/names.h"

namespace {

domainname dn(const std::string& text) {
  domainname n;
  EXPECT_NE(MakeDomainNameFromDNSNameString(&n, text.c_str()), nullptr) << text;
  return n;
}

// The bounds are what callers size their buffers by.
std::string text_of(const domainname& n, char esc) {
  char buf[MAX_ESCAPED_DOMAIN_NAME + 16];
  const char* end = ConvertDomainNameToCString_withescape(&n, buf, esc);
  EXPECT_LT(end - buf, MAX_ESCAPED_DOMAIN_NAME);
  return std::string(buf, static_cast<size_t>(end - buf));
}

std::string text_of(const domainlabel& l, char esc) {
  char buf[MAX_ESCAPED_DOMAIN_LABEL + 16];
  const char* end = ConvertDomainLabelToCString_withescape(&l, buf, esc);
  EXPECT_LT(end - buf, MAX_ESCAPED_DOMAIN_LABEL);
  return std::string(buf, static_cast<size_t>(end - buf));
}

std::string repeat(const std::string& s, size_t n) {
  return n == 0 ? "" : s + repeat(s, n - 1);
}

TEST(NameText, LabelsUpTo63BytesNamesUpTo255AndEscapesBothWays) {
  const std::string l63x3 = repeat(std::string(63, 'a') + ".", 3);
  const std::string longest = repeat(repeat("\\001", 63) + ".", 3) + repeat("\\001", 61) + ".";
  // text, wire length (0: rejected), the name written back with '\\' escapes
  const std::tuple<std::string, size_t, std::string> cases[] = {
      {"", 1, "."},
      {"_http._tcp.local.", 18, "_http._tcp.local."},
      {"a\\.b.c", 7, "a\\.b.c."},
      {"My\\.Dev ice\\\\.local", 19, "My\\.Dev\\032ice\\\\.local."},
      {"\\065\\000x\\255\\q\\\\!~", 10, "A\\000x\\255q\\\\!~."},
      {std::string(61, 'x') + "\\046\\046", 65, std::string(61, 'x') + "\\.\\.."},
      {l63x3 + std::string(61, 'b'), 255, l63x3 + std::string(61, 'b') + "."},
      {longest, 255, longest},
      {std::string(64, 'x') + ".local", 0, ""},
      {std::string(62, 'x') + "\\046\\046", 0, ""},
      {l63x3 + std::string(62, 'b'), 0, ""},
      {"a..b", 0, ""},
      {".a", 0, ""},
      {"a\\", 0, ""},
      {"\\25", 0, ""},
      {"\\256", 0, ""},
  };
  for (const auto& [text, length, back] : cases) {
    domainname n;
    const mDNSu8* end = MakeDomainNameFromDNSNameString(&n, text.c_str());
    EXPECT_EQ(end == nullptr ? 0 : static_cast<size_t>(end - n.c), length) << text;
    if (end != nullptr) {
      EXPECT_EQ(mdns::name_length(n), length) << text;
      EXPECT_EQ(text_of(n, '\\'), back) << text;
      EXPECT_EQ(text_of(dn(back), '\\'), back) << text;
    }
  }
  const domainname name = dn("My\\.Dev ice\\\\.local");
  EXPECT_EQ(text_of(name, 0) + "|" + text_of(name, '%'), "My.Dev ice\\.local.|My%.Dev%032ice\\.local.");
  domainlabel l;
  std::memcpy(l.c, "\5a.b\\ ", 6);
  EXPECT_EQ(text_of(l, 0) + "|" + text_of(l, '\\'), "a.b\\ |a\\.b\\\\\\032");
  // Malformed names are written up to their last whole, safe label.
  domainname n;
  std::memset(n.c, 63, sizeof n.c);  // no root within 255 bytes
  EXPECT_EQ(text_of(n, 0).size(), 3u * 64);
  n.c[0] = l.c[0] = 64;
  EXPECT_TRUE(text_of(n, 0).empty() && text_of(l, 0).empty() && mdns::name_length(n) == 0);
}

TEST(DeconstructServiceName, SplitsOnlyInstanceAppProtocolDomain) {
  // fqdn, then "instance|type|domain", emptied when rejected
  const std::tuple<const char*, const char*> cases[] = {
      {"Living Room\\.TV._airplay._TCP.example.local", "Living Room.TV|_airplay._TCP.|example.local."},
      {"x._ipp._udp.local.", "x|_ipp._udp.|local."},
      {"_http._tcp.local", "|.|."},
      {"x._http._tcpx.local", "|.|."},
      {"x._http._sctp.local", "|.|."},
      {"x.y._http._tcp.local", "|.|."},
  };
  for (const auto& [fqdn, split] : cases) {
    const domainname in = dn(fqdn);
    domainlabel label;
    domainname out[2];
    std::memset(&label, 7, sizeof label);
    std::memset(out, 7, sizeof out);
    EXPECT_EQ(DeconstructServiceName(&in, &label, &out[0], &out[1]), split[0] != '|') << fqdn;
    EXPECT_EQ(text_of(label, 0) + "|" + text_of(out[0], 0) + "|" + text_of(out[1], 0), split);
  }
}

TEST(NameRelations, EqualityFoldsOnlyAsciiLettersParentsFollowLabelsAndBuildingStopsAt255Bytes) {
  // a, b, a equals b, a is b or under it, a is exactly one label under b
  const std::tuple<const char*, const char*, bool, bool, const char*> cases[] = {
      {"Printer._IPP._tcp.LOCAL", "printer._ipp._TCP.local", true, true, nullptr},
      {"\\192", "\\224", false, false, nullptr},
      {"a[", "a{", false, false, nullptr},
      {"ab.c", "a.bc", false, false, nullptr},
      {"X\\.y._IPP._tcp.local", "_ipp._TCP.local", false, true, "X.y"},
      {"a.x._ipp._tcp.local", "_ipp._tcp.local", false, true, nullptr},
      {"local", ".", false, true, "local"},
      {"xc.local", "c.local", false, false, nullptr},
      {"local", "x.local", false, false, nullptr},
  };
  for (const auto& [a, b, equal, under, first] : cases) {
    EXPECT_EQ(mdns::names_equal(dn(a), dn(b)), equal) << a;
    EXPECT_TRUE(!equal || mdns::name_hash(dn(a)) == mdns::name_hash(dn(b))) << a;
    EXPECT_EQ(mdns::name_is_under(dn(a), dn(b)), under) << a;
    domainlabel l{};
    EXPECT_EQ(mdns::split_first_label(dn(a), dn(b), l), first != nullptr) << a;
    EXPECT_EQ(text_of(l, 0), first != nullptr ? first : "") << a;
  }
  // Appending and prepending stop at 255 bytes.
  domainname head = dn("_http._tcp");
  domainlabel l;
  std::memcpy(l.c, "\3a.b", 4);
  ASSERT_TRUE(mdns::append_name(head, dn("local")));
  ASSERT_TRUE(mdns::prepend_label(head, l, head));  // in place
  EXPECT_EQ(text_of(head, '\\'), "a\\.b._http._tcp.local.");
  domainname big = dn(repeat(std::string(63, 'a') + ".", 3) + std::string(61, 'b'));
  EXPECT_FALSE(mdns::append_name(big, dn("x")) || mdns::prepend_label(big, l, big));
  EXPECT_EQ(mdns::name_length(big), 255u);
}

}  // namespace
