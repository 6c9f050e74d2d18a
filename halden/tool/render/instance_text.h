// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "halden/service_id.h"
#include "halden/service_watcher.h"

/// What an instance publishes, as words for people. Pure.
namespace zr::halden::tool {

using Status = messaging::halden::StatusExt;

inline constexpr std::string_view kStatusOk = "ok";
inline constexpr std::string_view kStatusDegraded = "degraded";

/// The status of that name, as the command line takes it.
std::optional<Status> StatusNamed(std::string_view name);
std::string StatusText(const ServiceInstanceData& data);

/// "8080,admin=8081"; "-" for none.
std::string PortText(const ServiceInstanceData& data);
/// "host:8080,admin=8081"; an IPv6 address is put in brackets.
std::string Endpoint(const ServiceInstanceData& data);
/// "zone=a owner="the team""
std::string AttributeText(const ServiceInstanceData& data);

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
