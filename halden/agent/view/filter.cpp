// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/view/filter.h"

#include <algorithm>

#include "render/json.h"

namespace zr::halden::agent {

namespace {

bool HasAttribute(std::string_view attributes, std::string_view wanted) {
  for (auto at = attributes.find(wanted); at != std::string_view::npos;
       at = attributes.find(wanted, at + 1)) {
    const char before =
        attributes[at - 1];  // there is one: wanted begins with a quote, the text with a brace
    if (before == '{' || before == ',') return true;
  }
  return false;
}

}  // namespace

void Filter::AddStatus(std::string_view status) {
  m_statuses.insert(",\"status\":" + tool::JsonText(status) + ',');
}

void Filter::AddAttribute(std::string_view key, std::string_view value) {
  m_attributes.insert(tool::JsonText(key) + ':' + tool::JsonText(value));
}

bool Filter::Takes(std::string_view text) const {
  constexpr std::string_view begin = "\"attributes\":{";
  const auto place = text.find(begin);
  const auto before = text.substr(0, place);  // an attribute may be called "status"
  const auto has = [before](const std::string& status) {
    return before.find(status) != std::string_view::npos;
  };
  if (!m_statuses.empty() && std::none_of(m_statuses.begin(), m_statuses.end(), has)) return false;
  if (m_attributes.empty()) return true;
  const auto attributes = text.substr(place + begin.size() - 1);
  return std::all_of(m_attributes.begin(), m_attributes.end(),
                     [attributes](const std::string& wanted) { return HasAttribute(attributes, wanted); });
}

}  // namespace zr::halden::agent
