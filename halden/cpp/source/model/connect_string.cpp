// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/connect_string.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "model/access_list.h"
#include "model/percent.h"
#include "zrstl/utf8.h"

namespace zr::halden::details {

namespace {

constexpr std::size_t kMaxHostBytes = 253;
constexpr std::size_t kMaxLabelBytes = 63;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsNameCharacter(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
}

template <typename Address>
bool IsAddress(int family, std::string_view text) {
  Address address;
  return inet_pton(family, zr::String(text).c_str(), &address) == 1;
}

/// A link-local address may name its interface: "fe80::1%eth0".
bool IsIpv6Address(std::string_view text) {
  const auto percent = text.find('%');
  if (percent != std::string_view::npos) {
    const auto zone = text.substr(percent + 1);
    if (zone.empty() || !std::all_of(zone.begin(), zone.end(), IsNameCharacter)) return false;
  }
  return IsAddress<in6_addr>(AF_INET6, text.substr(0, percent));
}

/// Only what has a meaning of its own is decoded: a chroot of before may have any other "%".
zr::String DecodedChroot(std::string_view chroot) {
  zr::String decoded;
  while (!chroot.empty()) {
    const auto code = chroot.substr(0, 3);
    const bool isEncoded = code == "%3F" || code == "%3f" || code == "%25";
    decoded += !isEncoded ? chroot.front() : code == "%25" ? '%' : '?';
    chroot.remove_prefix(isEncoded ? code.size() : 1);
  }
  return decoded;
}

/// Goes through the text once; the first fault ends it. Its steps return whether all was well so far.
class ConnectStringParser {
 public:
  explicit ConnectStringParser(std::string_view text)
      : m_text(text), m_ensemble(text.substr(0, text.find('?'))) {}

  ParsedConnectString Parse() {
    if (!CheckBlanks() || !ParseServers() || !ParseChroot() || !ParseOptions()) m_parsed.value = {};
    return std::move(m_parsed);
  }

 private:
  bool Fail(std::size_t offset, zr::String error) {
    m_parsed.offset = offset;
    m_parsed.error = std::move(error);
    return false;
  }

  bool CheckBlanks() {
    if (m_text.empty()) return Fail(0, "empty: expected host:port[,host:port...][/chroot][?options]");
    const auto isBlank = [](unsigned char c) { return c <= ' ' || c == 0x7F; };
    const auto blank = std::find_if(m_text.begin(), m_text.end(), isBlank);
    if (blank == m_text.end()) return true;
    return Fail(static_cast<std::size_t>(blank - m_text.begin()),
                "blank or control character: expected none anywhere");
  }

  bool ParseServers() {
    const auto servers = m_ensemble.substr(0, m_ensemble.find('/'));
    for (std::size_t begin = 0; begin <= servers.size();) {
      const auto end = std::min(servers.find(',', begin), servers.size());
      if (!ParseServer(begin, end)) return false;
      begin = end + 1;
    }
    return true;
  }

  bool ParseServer(std::size_t begin, std::size_t end) {
    const auto server = m_text.substr(begin, end - begin);
    if (server.empty()) return Fail(begin, "host missing: expected host:port");
    std::size_t hostBytes = 0;
    zr::String host;
    if (server.front() == '[') {
      const auto close = server.find(']');
      if (close == std::string_view::npos) return Fail(begin, "\"[\" is not closed: expected [IPv6]:port");
      host = server.substr(1, close - 1);
      if (!IsIpv6Address(host)) return Fail(begin + 1, "not an IPv6 address: expected one in the brackets");
      hostBytes = close + 1;
    } else {
      hostBytes = std::min(server.find(':'), server.size());
      host = server.substr(0, hostBytes);
      if (!CheckHost(host, begin)) return false;
    }
    std::uint16_t port = 0;
    if (!ParsePort(begin + hostBytes, end, port)) return false;
    m_parsed.value.hosts.push_back({std::move(host), port});
    return true;
  }

  bool CheckHost(std::string_view host, std::size_t begin) {
    if (host.empty()) return Fail(begin, "host missing: expected host:port");
    if (host.size() > kMaxHostBytes)
      return Fail(begin, "host name too long: expected at most 253 characters");
    std::size_t label = 0;
    for (std::size_t i = 0; i < host.size(); ++i) {
      if (host[i] != '.' && !IsNameCharacter(host[i])) {
        return Fail(begin + i,
                    "not a character of a host name: expected letters, digits, \"-\", \"_\", \".\"");
      }
      label = host[i] == '.' ? 0 : label + 1;
      if (label > kMaxLabelBytes)
        return Fail(begin + i, "host name: more than 63 characters between two dots");
      if (label == 0 && (i == 0 || host[i - 1] == '.'))
        return Fail(begin + i, "host name: nothing before a dot");
    }
    // The resolver takes "10.0.0" for 10.0.0.0, and "10.0.0.256" for a name.
    const auto isNumeric =
        std::all_of(host.begin(), host.end(), [](char c) { return IsDigit(c) || c == '.'; });
    if (!isNumeric || IsAddress<in_addr>(AF_INET, host)) return true;
    return Fail(begin, "not an IPv4 address: expected four numbers from 0 to 255");
  }

  bool ParsePort(std::size_t colon, std::size_t end, std::uint16_t& port) {
    const auto begin = colon + 1;
    if (colon >= end || m_text[colon] != ':' || begin == end) {
      return Fail(std::min(colon, end), "port missing: expected host:port");
    }
    const auto digits = m_text.substr(begin, end - begin);
    const auto odd = std::find_if_not(digits.begin(), digits.end(), IsDigit);
    if (odd != digits.end()) {
      const auto offset = begin + static_cast<std::size_t>(odd - digits.begin());
      if (*odd == ':') return Fail(offset, "second \":\": expected host:port, an IPv6 address in brackets");
      return Fail(offset, "not a digit of a port: expected host:port, and commas between hosts");
    }
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (result.ec == std::errc() && port != 0) return true;
    return Fail(begin, "port out of range: expected 1 to 65535");
  }

  bool ParseChroot() {
    const auto chroot = m_ensemble.find('/');
    if (chroot == std::string_view::npos) return true;
    for (std::size_t begin = chroot + 1; begin <= m_ensemble.size();) {
      const auto end = std::min(m_ensemble.find('/', begin), m_ensemble.size());
      if (!CheckChrootElement(m_ensemble.substr(begin, end - begin), begin)) return false;
      begin = end + 1;
    }
    m_parsed.value.chroot = DecodedChroot(m_ensemble.substr(chroot));
    return true;
  }

  bool CheckChrootElement(std::string_view element, std::size_t begin) {
    if (element.empty()) {
      if (begin == m_ensemble.size())
        return Fail(begin - 1, "\"/\" at the end: expected a chroot without it, or none");
      return Fail(begin, "empty element in the chroot: expected one \"/\" between two");
    }
    if (element == "." || element == "..")
      return Fail(begin, "relative chroot: expected no \".\" and \"..\"");
    // ZooKeeper would take the comma, and all behind it as more of the path.
    const auto comma = element.find(',');
    if (comma != std::string_view::npos) {
      return Fail(begin + comma, "\",\" in the chroot: expected one chroot, behind the last host");
    }
    const auto bad = FindBadPathCharacter(element);
    if (bad == std::string_view::npos) return true;
    return Fail(begin + bad, "character in the chroot that ZooKeeper refuses: expected printable UTF-8");
  }

  bool ParseOptions() {
    if (m_ensemble.size() == m_text.size()) return true;
    for (std::size_t begin = m_ensemble.size() + 1; begin <= m_text.size();) {
      const auto end = std::min(m_text.find('&', begin), m_text.size());
      if (!ParseOption(begin, end)) return false;
      begin = end + 1;
    }
    return true;
  }

  /// What follows the "=" is not repeated: somebody may have written a password there.
  bool ParseOption(std::size_t begin, std::size_t end) {
    const auto option = m_text.substr(begin, end - begin);
    const auto name = option.substr(0, option.find('='));
    auto& value = m_parsed.value;
    auto* const target = name == kAuthFileOption ? &value.authFile
                         : name == kAclOption    ? &value.acl
                                                 : nullptr;
    if (target == nullptr)
      return Fail(begin, "not an option: expected \"auth_file=\" or \"acl=\" behind the \"?\"");
    if (!target->empty()) return Fail(begin, "option is given twice: expected once");
    const auto encoded = option.substr(std::min(name.size() + 1, option.size()));
    const auto place = end - encoded.size();
    auto decoded = DecodePercent(encoded);
    if (decoded.bad != std::string_view::npos)
      return Fail(place + decoded.bad,
                  "\"%\" without two hexadecimal digits: expected \"%25\" for the sign itself");
    *target = std::move(decoded.text);
    return target == &value.acl ? CheckAcl(encoded, place) : CheckAuthFile(encoded, place);
  }

  bool CheckAcl(std::string_view encoded, std::size_t place) {
    auto parsed = ParseAccessList(m_parsed.value.acl);
    if (parsed.error.empty()) return true;
    return Fail(place + OffsetInEncoded(encoded, parsed.offset), std::move(parsed.error));
  }

  bool CheckAuthFile(std::string_view encoded, std::size_t place) {
    const auto& file = m_parsed.value.authFile;
    if (!file.starts_with('/')) return Fail(place, "not the name of a file: expected its absolute path");
    const auto odd =
        std::find_if(file.begin(), file.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; });
    if (odd == file.end()) return true;
    return Fail(place + OffsetInEncoded(encoded, static_cast<std::size_t>(odd - file.begin())),
                "control character in the name of a file: expected printable text");
  }

  std::string_view m_text;
  std::string_view m_ensemble;  // of it, what stands before the options
  ParsedConnectString m_parsed;
};

}  // namespace

ParsedConnectString ParseConnectString(const zr::String& text) {
  return ConnectStringParser(text).Parse();
}

void AddTo(ConnectString& all, ConnectString&& more) {
  all.hosts.insert(all.hosts.end(), more.hosts.begin(), more.hosts.end());
  all.chroot = std::move(more.chroot);
  if (!more.authFile.empty()) all.authFile = std::move(more.authFile);
  if (!more.acl.empty()) all.acl = std::move(more.acl);
}

zr::String WithOption(zr::String text, std::string_view option, std::string_view value) {
  text += text.find('?') == zr::String::npos ? '?' : '&';
  text += option;
  text += '=';
  text += EncodePercent(value);
  return text;
}

zr::String WithoutOptions(const zr::String& text) {
  return text.substr(0, text.find('?'));
}

std::size_t FindBadPathCharacter(std::string_view text) {
  for (std::string_view rest = text; !rest.empty();) {
    const auto offset = text.size() - rest.size();
    const auto point = TakeCodePoint(rest);
    if (!point) return offset;
    // Servers look at UTF-16: what takes a pair of surrogates there falls under their ban of U+D800 to
    // U+F8FF.
    if (IsControl(*point) || (*point >= 0xD800 && *point <= 0xF8FF) || *point >= 0xFFF0) return offset;
  }
  return std::string_view::npos;
}

}  // namespace zr::halden::details
