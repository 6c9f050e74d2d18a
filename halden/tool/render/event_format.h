// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "halden/global_service_watcher.h"
#include "halden/instance_change.h"
#include "halden/service_id.h"
#include "render/table.h"
#include "render/text.h"

namespace zr::halden::tool {

/// The lines of `halden watch`, each with its line end.
class EventFormat {
 public:
  /// `dataCenterWidth`: columns to leave for the data centre's name.
  EventFormat(bool json, std::size_t dataCenterWidth, const Look& look)
      : m_json(json), m_dataCenterWidth(dataCenterWidth), m_look(look) {}

  /// `shortId`: the id as people are to read it. `data` is null for what was removed.
  std::string Event(TimePoint time, std::string_view dataCenter, InstanceChange change, const ServiceId& id,
                    std::string_view shortId, const ServiceInstanceData* data) const;
  std::string State(TimePoint time, const DataCenterStatus& status) const;

 private:
  std::string Row(TimePoint time, std::string_view dataCenter, std::string_view kind, Tone tone,
                  std::string_view rest) const;

  bool m_json;
  std::size_t m_dataCenterWidth;
  Look m_look;
};

}  // namespace zr::halden::tool
