#include "dns_builder.h"

#include <arpa/inet.h>

#include <cctype>
#include <stdexcept>
#include <utility>

namespace sorvalen::test {
namespace {

constexpr std::pair<const char*, uint16_t> kTypes[] = {{"A", 1},     {"NS", 2},   {"CNAME", 5}, {"SOA", 6},
                                                       {"PTR", 12},  {"TXT", 16}, {"AAAA", 28}, {"SRV", 33},
                                                       {"NSEC", 47}, {"ANY", 255}};

void append(Bytes& out, const Bytes& more) {
  out.insert(out.end(), more.begin(), more.end());
}

}  // namespace

void append_u16(Bytes& out, unsigned value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

Bytes wire_name(const std::string& dotted) {
  Bytes out;
  Bytes label;
  for (size_t i = 0; i <= dotted.size(); ++i) {
    const char c = i < dotted.size() ? dotted[i] : '.';
    if (c == '\\' && i + 3 < dotted.size() && isdigit(static_cast<unsigned char>(dotted[i + 1]))) {
      label.push_back(static_cast<uint8_t>(std::stoi(dotted.substr(i + 1, 3))));
      i += 3;
    } else if (c == '\\' && i + 1 < dotted.size()) {
      label.push_back(static_cast<uint8_t>(dotted[++i]));
    } else if (c != '.') {
      label.push_back(static_cast<uint8_t>(c));
    } else if (!label.empty()) {
      if (label.size() > 63)
        throw std::invalid_argument("label over 63 bytes in " + dotted);
      out.push_back(static_cast<uint8_t>(label.size()));
      append(out, label);
      label.clear();
    }
  }
  out.push_back(0);
  return out;
}

uint16_t type_code(const std::string& mnemonic) {
  for (const auto& [name, code] : kTypes) {
    if (mnemonic == name)
      return code;
  }
  if (mnemonic.rfind("TYPE", 0) == 0)
    return static_cast<uint16_t>(std::stoul(mnemonic.substr(4)));
  throw std::invalid_argument("unknown record type " + mnemonic);
}

std::string type_name(uint16_t code) {
  for (const auto& [name, known] : kTypes) {
    if (code == known)
      return name;
  }
  return "TYPE" + std::to_string(code);
}

Bytes record_data(uint16_t type, const std::vector<std::string>& fields) {
  Bytes out;
  if (!fields.empty() && fields[0] == "hex") {
    for (size_t i = 1; i < fields.size(); ++i) {
      for (size_t j = 0; j + 1 < fields[i].size(); j += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(fields[i].substr(j, 2), nullptr, 16)));
    }
  } else if (type == 1 || type == 28) {
    out.resize(type == 1 ? 4 : 16);
    if (inet_pton(type == 1 ? AF_INET : AF_INET6, fields.at(0).c_str(), out.data()) != 1)
      throw std::invalid_argument("bad address: " + fields[0]);
  } else if (type == 5 || type == 12) {
    out = wire_name(fields.at(0));
  } else if (type == 33) {
    for (size_t i = 0; i < 3; ++i)
      append_u16(out, static_cast<unsigned>(std::stoul(fields.at(i), nullptr, 0)));
    append(out, wire_name(fields.at(3)));
  } else if (type == 16) {
    for (const std::string& s : fields) {
      out.push_back(static_cast<uint8_t>(s.size()));
      out.insert(out.end(), s.begin(), s.end());
    }
  } else {
    throw std::invalid_argument("data of type " + type_name(type) + " must be given as: hex DIGITS");
  }
  return out;
}

DnsMessage& DnsMessage::question(const std::string& name, uint16_t type, bool unicast_response) {
  append(questions_, wire_name(name));
  append_u16(questions_, type);
  append_u16(questions_, unicast_response ? 0x8001 : 1);
  ++counts_[0];
  return *this;
}

DnsMessage& DnsMessage::add(Section section, const Record& r) {
  Bytes& out = sections_[section];
  append(out, wire_name(r.name));
  for (unsigned field : {unsigned{r.type}, r.cache_flush ? 0x8001u : 1u, r.ttl >> 16, r.ttl & 0xFFFF,
                         static_cast<unsigned>(r.data.size())})
    append_u16(out, field);
  append(out, r.data);
  ++counts_[1 + section];
  return *this;
}

Bytes DnsMessage::bytes() const {
  Bytes out;
  for (uint16_t field : {id_, flags_, counts_[0], counts_[1], counts_[2], counts_[3]})
    append_u16(out, field);
  append(out, questions_);
  for (const Bytes& section : sections_)
    append(out, section);
  return out;
}

}  // namespace sorvalen::test
