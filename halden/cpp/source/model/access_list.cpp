// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/access_list.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace zr::halden::details {

namespace {

constexpr std::string_view kWorld = "world";
constexpr std::string_view kAnyone = "anyone";
constexpr std::string_view kAuth = "auth";
constexpr std::string_view kDigest = "digest";
constexpr std::string_view kLetters = "rwcda";  // in the order of their bits

bool IsWordCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsBlank(unsigned char c) {
  return c <= ' ' || c == 0x7F;
}

/// "user:" and the base64 text of a hash, which is a SHA-1 unless servers are told otherwise. A password in its place
/// would not only be in the clear, but also give nobody any right.
bool IsDigest(std::string_view id) {
  constexpr std::size_t least = 24;
  const auto colon = id.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const auto hash = id.substr(colon + 1);
  const auto isBase64 = [](char c) { return IsWordCharacter(c) || c == '+' || c == '/' || c == '='; };
  return hash.size() >= least && hash.size() % 4 == 0 && hash.back() == '=' &&
         std::all_of(hash.begin(), hash.end(), isBase64);
}

/// What is wrong with the id; empty for nothing.
zr::String WhyBadId(std::string_view scheme, std::string_view id) {
  if (scheme == kWorld && id != kAnyone) return "not who there is in \"world\": expected world:anyone";
  if (scheme == kAuth && !id.empty()) return "id behind \"auth\": expected none, auth::permissions";
  if (scheme == kDigest && !IsDigest(id))
    return "not a digest: expected user:hash, the hash as ZooKeeper makes it";
  if (std::any_of(id.begin(), id.end(), IsBlank)) return "blank or control character in an id";
  return {};
}

class AccessListParser {
 public:
  explicit AccessListParser(std::string_view text) : m_text(text) {}

  ParsedAccessList Parse() {
    for (std::size_t begin = 0; begin <= m_text.size();) {
      const auto end = std::min(m_text.find(',', begin), m_text.size());
      if (!ParseEntry(begin, end)) break;
      begin = end + 1;
    }
    if (!m_parsed.error.empty()) m_parsed.value = {};
    return std::move(m_parsed);
  }

 private:
  bool Fail(std::size_t offset, zr::String error) {
    m_parsed.offset = offset;
    m_parsed.error = std::move(error);
    return false;
  }

  bool ParseEntry(std::size_t begin, std::size_t end) {
    const auto entry = m_text.substr(begin, end - begin);
    const auto first = entry.find(':');
    const auto last = entry.rfind(':');
    if (first == last)
      return Fail(begin, "not an entry: expected \"creator\", or scheme:id:permissions[,...]");
    const auto scheme = entry.substr(0, first);
    const auto id = entry.substr(first + 1, last - first - 1);
    if (scheme.empty() || !std::all_of(scheme.begin(), scheme.end(), IsWordCharacter))
      return Fail(begin, "not a scheme: expected letters and digits, as in \"world\", \"auth\", \"digest\"");
    if (auto why = WhyBadId(scheme, id); !why.empty()) return Fail(begin + first + 1, std::move(why));
    std::int32_t permissions = 0;
    for (std::size_t i = last + 1; i < entry.size(); ++i) {
      const auto bit = kLetters.find(entry[i]);
      if (bit == std::string_view::npos || (permissions & (1 << bit)) != 0)
        return Fail(begin + i, "not a permission: expected letters of \"cdrwa\", each once");
      permissions |= 1 << bit;
    }
    if (permissions == 0) return Fail(end, "no permission: expected letters of \"cdrwa\"");
    m_parsed.value.push_back({zr::String(scheme), zr::String(id), permissions});
    return true;
  }

  std::string_view m_text;
  ParsedAccessList m_parsed;
};

bool IsAnyone(const AccessEntry& entry) {
  return entry.scheme == kWorld && entry.id == kAnyone;
}

}  // namespace

ParsedAccessList ParseAccessList(std::string_view text) {
  if (text == "creator") {
    return {
        {{zr::String(kAuth), {}, kAllPermissions}, {zr::String(kWorld), zr::String(kAnyone), kRead}}, {}, 0};
  }
  return AccessListParser(text).Parse();
}

AccessList AboveAccess(const AccessList& list) {
  AccessList above = list;
  auto anyone = std::find_if(above.begin(), above.end(), IsAnyone);
  if (anyone == above.end()) anyone = above.insert(above.end(), {zr::String(kWorld), zr::String(kAnyone), 0});
  anyone->permissions |= kRead | kCreate;
  return above;
}

bool NeedsCredential(const AccessList& list) {
  return std::any_of(list.begin(), list.end(), [](const auto& entry) { return entry.scheme == kAuth; });
}

std::int32_t PermissionsOfAnyone(const AccessList& list) {
  std::int32_t permissions = 0;
  for (const auto& entry : list) {
    if (IsAnyone(entry)) permissions |= entry.permissions;
  }
  return permissions;
}

}  // namespace zr::halden::details
