// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace zr::halden::agent {

/// Which instances a reader asks for. What is not said does not limit.
class Filter {
 public:
  void AddDataCenter(std::string name) { m_dataCenters.insert(std::move(name)); }
  void AddStatus(std::string_view status);
  /// All that are added must be there.
  void AddAttribute(std::string_view key, std::string_view value);

  bool TakesAll() const { return m_dataCenters.empty() && m_statuses.empty() && m_attributes.empty(); }
  bool TakesDataCenter(std::string_view name) const {
    return m_dataCenters.empty() || m_dataCenters.contains(name);
  }
  /// `text`: the object's keys behind "held", as render/json.h writes them.
  bool Takes(std::string_view text) const;

 private:
  // What is looked for in an object's text: no part of a value reads so, since quotes in it are escaped.
  std::set<std::string, std::less<>> m_dataCenters;
  std::set<std::string> m_statuses;
  std::set<std::string> m_attributes;
};

}  // namespace zr::halden::agent
