// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/instance_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "render/text.h"
#include "zrstl/utf8.h"

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

std::optional<Status> StatusNamed(std::string_view name) {
  if (name == kStatusOk) return messaging::halden::STATUS_EXT_NONE;
  if (name == kStatusDegraded) return messaging::halden::STATUS_EXT_DEGRADED;
  return std::nullopt;
}

std::string StatusText(const ServiceInstanceData& data) {
  switch (data.status_ext()) {
    case messaging::halden::STATUS_EXT_NONE:
      return std::string(kStatusOk);
    case messaging::halden::STATUS_EXT_DEGRADED:
      return std::string(kStatusDegraded);
    default:
      return fmt::format("status-{}", static_cast<int>(data.status_ext()));  // of a newer writer
  }
}

std::string PortText(const ServiceInstanceData& data) {
  std::string text;
  for (const auto& port : data.ports()) {
    if (!text.empty()) text += ',';
    if (!port.name().empty()) text += EscapeControls(port.name()) + '=';
    text += std::to_string(port.port());
  }
  return text.empty() ? "-" : text;
}

std::string Endpoint(const ServiceInstanceData& data) {
  const std::string host = EscapeControls(data.host());
  const bool bare = host.find(':') == std::string::npos || host.front() == '[';
  return fmt::format("{}:{}", bare ? host : '[' + host + ']', PortText(data));
}

std::string AttributeText(const ServiceInstanceData& data) {
  std::string text;
  for (const auto& attribute : data.attributes()) {
    text += fmt::format("{}{}={}", text.empty() ? "" : " ", Word(attribute.key()), Word(attribute.value()));
  }
  return text;
}

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
