// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/short_ids.h"

#include <algorithm>
#include <iterator>

namespace zr::halden::tool {

namespace {

/// Characters that tell the two apart. Hyphens stand in the same places, so none is the last of them.
std::size_t LengthToTell(const ServiceId& one, const ServiceId& other) {
  const zr::String text = ToString(one);
  const zr::String otherText = ToString(other);
  const auto differs = std::mismatch(text.begin(), text.end(), otherText.begin()).first;
  return static_cast<std::size_t>(differs - text.begin()) + 1;
}

}  // namespace

/// Ids are in the order of their texts: the most alike stand beside each other.
void ShortIds::Add(const ServiceId& id) {
  if (m_whole) return;
  const auto [place, isNew] = m_ids.insert(id);
  if (!isNew) return;
  if (place != m_ids.begin()) m_length = std::max(m_length, LengthToTell(id, *std::prev(place)));
  if (std::next(place) != m_ids.end()) m_length = std::max(m_length, LengthToTell(id, *std::next(place)));
}

std::string ShortIds::Text(const ServiceId& id) const {
  const zr::String text = ToString(id);
  return m_whole ? text : text.substr(0, m_length);
}

}  // namespace zr::halden::tool
