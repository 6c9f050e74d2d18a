// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/event_format.h"

#include <fmt/format.h>

#include <array>

#include "render/instance_text.h"
#include "render/json.h"
#include "render/state_text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

Tone ChangeTone(InstanceChange change) {
  constexpr std::array<Tone, 3> tones{Tone::Good, Tone::Plain, Tone::Bad};
  return tones.at(static_cast<std::size_t>(change));
}

}  // namespace

std::string EventFormat::Row(TimePoint time, std::string_view dataCenter, std::string_view kind, Tone tone,
                             std::string_view rest) const {
  constexpr std::size_t kindWidth = 8;
  return fmt::format("{}  {}  {}  {}\n", LocalTime(time),
                     Padded(EscapeControls(dataCenter), m_dataCenterWidth),
                     Coloured(Padded(kind, kindWidth), tone, m_look.colour), rest);
}

std::string EventFormat::Event(TimePoint time, std::string_view dataCenter, InstanceChange change,
                               const ServiceId& id, std::string_view shortId,
                               const ServiceInstanceData* data) const {
  if (m_json) return EventLine(time, dataCenter, change, id, data);
  std::string rest(shortId);
  if (data != nullptr) {
    rest += fmt::format("  {}  {}", Endpoint(*data), StatusText(*data));
    if (data->attributes_size() > 0) rest += "  " + AttributeText(*data);
  }
  return Row(time, dataCenter, halden::ToString(change), ChangeTone(change), rest);
}

std::string EventFormat::State(TimePoint time, const DataCenterStatus& status) const {
  if (m_json) return StateLine(status, time);
  return Row(time, status.name, "state", ConditionTone(status), StateText(status, time));
}

}  // namespace zr::halden::tool
