// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/query.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <vector>

#include "render/instance_text.h"

namespace zr::halden::agent {

namespace {

[[noreturn]] void Refuse(unsigned status, std::string_view detail) {
  throw Refused{Problem(status, detail)};
}

bool IsRepeatable(std::string_view parameter) {
  return parameter == "data_center" || parameter == "status" || parameter == "attribute" ||
         parameter == "service";
}

/// Those of a newer writer are numbers: see tool::StatusText.
bool IsStatus(std::string_view name) {
  constexpr std::string_view unknown = "status-";
  const auto number = name.substr(std::min(unknown.size(), name.size()));
  return name == tool::kStatusOk || name == tool::kStatusDegraded ||
         (name.starts_with(unknown) && !number.empty() &&
          number.find_first_not_of("0123456789") == std::string_view::npos);
}

}  // namespace

void RequireKnown(const Target& target, std::initializer_list<std::string_view> names) {
  for (const auto& [name, value] : target.query) {
    if (std::find(names.begin(), names.end(), name) != names.end()) {
      const auto isSame = [&name = name](const auto& other) { return other.first == name; };
      const auto count = std::count_if(target.query.begin(), target.query.end(), isSame);
      if (count > 1 && !IsRepeatable(name)) Refuse(400, fmt::format("Give the parameter '{}' once.", name));
      continue;
    }
    if (names.size() == 0) Refuse(400, "Leave the query out: this path takes no parameters.");
    Refuse(400,
           fmt::format("Leave the parameter '{}' out: this path takes {}.", name, fmt::join(names, ", ")));
  }
}

Filter ReadFilter(const Target& target, const ServiceView& view) {
  Filter filter;
  for (const auto& [name, value] : target.query) {
    if (name == "data_center") {
      if (!view.States().contains(value)) {
        Refuse(404,
               fmt::format("Ask for a data centre that the agent follows: '{}' is none of them.", value));
      }
      filter.AddDataCenter(value);
    } else if (name == "status") {
      if (!IsStatus(value)) Refuse(400, "Write status=ok or status=degraded.");
      filter.AddStatus(value);
    } else if (name == "attribute") {
      const auto colon = value.find(':');
      if (colon == std::string::npos) Refuse(400, "Write attribute=KEY:VALUE.");
      filter.AddAttribute(value.substr(0, colon), value.substr(colon + 1));
    }
  }
  return filter;
}

std::optional<std::chrono::seconds> ReadWait(const Target& target) {
  constexpr int most = 60;
  const std::string* word = target.Find("wait");
  if (word == nullptr) return std::nullopt;
  int seconds = 0;
  const auto [end, error] = std::from_chars(word->data(), word->data() + word->size(), seconds);
  if (error != std::errc() || end != word->data() + word->size() || seconds < 1 || seconds > most) {
    Refuse(400, "Give wait as whole seconds from 1 to 60.");
  }
  return std::chrono::seconds(seconds);
}

bool ReadRequireLive(const Target& target) {
  const std::string* word = target.Find("require");
  if (word != nullptr && *word != "live") Refuse(400, "Write require=live, or leave it out.");
  return word != nullptr;
}

bool Matches(std::string_view ifNoneMatch, std::string_view tag) {
  while (!ifNoneMatch.empty()) {
    const auto comma = ifNoneMatch.find(',');
    auto one = ifNoneMatch.substr(0, comma);
    ifNoneMatch.remove_prefix(comma == std::string_view::npos ? ifNoneMatch.size() : comma + 1);
    while (one.starts_with(' ')) one.remove_prefix(1);
    while (one.ends_with(' ')) one.remove_suffix(1);
    if (one.starts_with("W/")) one.remove_prefix(2);  // as caches on the way make of it
    if (one == "*" || (one.size() == tag.size() + 2 && one.substr(1, tag.size()) == tag)) return true;
  }
  return false;
}

std::string HeaderWord(std::string_view name) {
  std::string word;
  for (const char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_' || c == '.';
    word += plain ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return word;
}

}  // namespace zr::halden::agent
