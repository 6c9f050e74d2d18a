// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "json.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

constexpr std::size_t kLeast = 4;       // columns of what is cut
constexpr std::size_t kLeastName = 12;  // of a data centre's name, which rows are told apart by

std::string ReadErrorText(const DataCenterStatus& status) {
  const int error = status.watcher.lastError;
  return error == 0 ? std::string() : zerror(error);
}

Cell FreshnessCell(const DataCenterStatus& status) {
  const Freshness freshness = status.watcher.freshness;
  return {std::string(halden::ToString(freshness)),
          freshness == Freshness::Live ? Tone::Good : Tone::Doubtful};
}

Cell NumberCell(std::uint64_t number, Tone toneIfAny = Tone::Plain) {
  return {std::to_string(number), number == 0 ? Tone::Plain : toneIfAny};
}

/// What a row of the state table has no column for.
std::string StateNote(const DataCenterStatus& status, TimePoint now) {
  std::string note;
  const auto add = [&note](const std::string& part) { note += (note.empty() ? "" : "; ") + part; };
  if (const auto since = status.watcher.staleSince) {
    add(fmt::format("stale since {} ({})", ShortTime(*since, now), Age(*since, now)));
  }
  const zr::String& error = status.connection.lastErrorText;
  if (!error.empty()) add("last error: " + EscapeControls(error));
  if (const auto text = ReadErrorText(status); !text.empty()) add("last read error: " + text);
  return note;
}

Tone ChangeTone(Change change) {
  constexpr std::array<Tone, 3> tones{Tone::Good, Tone::Plain, Tone::Bad};
  return tones.at(static_cast<std::size_t>(change));
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

std::string_view ChangeText(Change change) {
  constexpr std::array<std::string_view, 3> texts{"added", "modified", "removed"};
  return texts.at(static_cast<std::size_t>(change));
}

std::string_view Condition(const DataCenterStatus& status) {
  switch (status.connection.state) {
    case ConnectionState::Connected:
      switch (status.watcher.freshness) {
        case Freshness::Live:
          return "live";
        case Freshness::Stale:
          return "connected again, reading";
        case Freshness::NeverSynchronized:
          return "connected, reading";
      }
      break;
    case ConnectionState::Connecting:
      return status.watcher.freshness == Freshness::NeverSynchronized ? "connecting" : "connection lost";
    case ConnectionState::Suspended:
      return "connection lost";
    case ConnectionState::Expired:
      return "session expired";
    case ConnectionState::AuthFailed:
      return "authentication refused";
    case ConnectionState::Stopped:
      return "stopped";
  }
  return "unknown";
}

Tone ConditionTone(const DataCenterStatus& status) {
  if (status.connection.state == ConnectionState::Connected) {
    return status.watcher.freshness == Freshness::Live ? Tone::Good : Tone::Doubtful;
  }
  const bool connecting = status.connection.state == ConnectionState::Connecting;
  return connecting && status.watcher.freshness == Freshness::NeverSynchronized ? Tone::Doubtful : Tone::Bad;
}

std::string StateText(const DataCenterStatus& status) {
  const std::size_t count = status.watcher.instances;
  const bool live = Condition(status) == "live";
  std::string text(Condition(status));
  const bool first = status.watcher.freshness == Freshness::NeverSynchronized;
  if (live || count > 0) {
    text += fmt::format(", {}{}", Counted(count, "instance"), live ? "" : first ? " so far" : " kept");
  }
  if (status.watcher.held > 0) text += fmt::format(", {} of them held", status.watcher.held);
  if (status.watcher.quarantined > 0) text += fmt::format(", {} unreadable", status.watcher.quarantined);
  const bool connected = status.connection.state == ConnectionState::Connected;
  const std::string error =
      connected ? ReadErrorText(status) : EscapeControls(status.connection.lastErrorText);
  if (!live && !error.empty() && error != Condition(status)) text += fmt::format(" ({})", error);
  return text;
}

std::string EventFormat::Row(TimePoint time, std::string_view dataCenter, std::string_view kind, Tone tone,
                             std::string_view rest) const {
  constexpr std::size_t kindWidth = 8;
  return fmt::format("{}  {}  {}  {}\n", LocalTime(time),
                     Padded(EscapeControls(dataCenter), m_dataCenterWidth),
                     Coloured(Padded(kind, kindWidth), tone, m_look.colour), rest);
}

std::string EventFormat::Event(TimePoint time, std::string_view dataCenter, Change change,
                               const ServiceId& id, const ServiceInstanceData* data) const {
  if (m_json) return EventLine(time, dataCenter, change, id, data);
  std::string rest = halden::ToString(id);
  if (data != nullptr) {
    rest += fmt::format("  {}  {}", Endpoint(*data), StatusText(*data));
    if (data->attributes_size() > 0) rest += "  " + AttributeText(*data);
  }
  return Row(time, dataCenter, ChangeText(change), ChangeTone(change), rest);
}

std::string EventFormat::State(TimePoint time, const DataCenterStatus& status) const {
  if (m_json) return StateLine(status, time);
  return Row(time, status.name, "state", ConditionTone(status), StateText(status));
}

std::string InstanceTable(const std::vector<Instance>& instances, const Look& look, TimePoint now) {
  Table table({{"DC", kLeastName}, {"ID"}, {"HOST", kLeast}, {"PORTS", kLeast}, {"STATUS"}, {"AGE"}});
  for (const auto& [dataCenter, id, data, held] : instances) {
    const std::string status = StatusText(data) + (held ? ", held" : "");
    table.AddRow({{EscapeControls(dataCenter)},
                  {halden::ToString(id)},
                  {EscapeControls(data.host())},
                  {PortText(data)},
                  {status, status == kStatusOk ? Tone::Plain : Tone::Doubtful},
                  {Age(data.start_time_ms(), now)}});
  }
  return table.Text(look);
}

std::string StateLines(const std::vector<DataCenterStatus>& states, const Look& look) {
  std::size_t width = 0;
  for (const auto& state : states) width = std::max(width, Width(EscapeControls(state.name)));
  std::string text;
  for (const auto& state : states) {
    const std::string name = Padded(EscapeControls(state.name), width) + "  ";
    std::string rest = StateText(state);
    if (look.width != 0) rest = Cut(rest, std::max(look.width, Width(name)) - Width(name));
    text += name + Coloured(rest, ConditionTone(state), look.colour) + '\n';
  }
  return text;
}

std::string StateTable(const std::vector<DataCenterStatus>& states, const Look& look, TimePoint now) {
  Table table({{"DC", kLeastName},
               {"SESSION", kLeast},
               {"FRESHNESS", kLeast},
               {"INST", 0, true},
               {"HELD", 0, true},
               {"BAD", 0, true},
               {"RECONN", 0, true},
               {"EXPIRED", 0, true},
               {"RESYNC", 0, true}});
  for (const auto& state : states) {
    const auto counters = state.Counters();
    const bool connected = state.connection.state == ConnectionState::Connected;
    table.AddRow({{EscapeControls(state.name)},
                  {std::string(halden::ToString(state.connection.state)),
                   connected ? Tone::Good : ConditionTone(state)},
                  FreshnessCell(state),
                  NumberCell(counters.instances),
                  NumberCell(counters.held, Tone::Doubtful),
                  NumberCell(counters.quarantined, Tone::Bad),
                  NumberCell(counters.reconnects),
                  NumberCell(counters.expiries),
                  NumberCell(counters.resyncs)});
    if (const auto note = StateNote(state, now); !note.empty()) table.AddNote(note);
  }
  return table.Text(look);
}

}  // namespace zr::halden::tool
