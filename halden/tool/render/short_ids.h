// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "halden/service_id.h"

namespace zr::halden::tool {

/// Ids as people read them: no longer than it takes to tell those apart that were added, and never less than eight
/// characters. The length only grows, and is the same for all.
class ShortIds {
 public:
  /// `whole`: nothing is shortened.
  explicit ShortIds(bool whole) : m_whole(whole) {}

  void Add(const ServiceId& id);
  std::string Text(const ServiceId& id) const;

 private:
  static constexpr std::size_t kLeast = 8;

  const bool m_whole;
  std::set<ServiceId> m_ids;
  std::size_t m_length = kLeast;
};

}  // namespace zr::halden::tool
