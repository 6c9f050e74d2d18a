// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/instance_text.h"

#include <fmt/format.h>

#include "render/text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

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

}  // namespace zr::halden::tool
