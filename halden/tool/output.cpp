// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>

namespace zr::halden::tool {

namespace {

using Json = nlohmann::ordered_json;  // keys in the order written here, in every line

std::string Line(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::time_t Seconds(TimePoint time) {
  return std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
}

std::int64_t Milliseconds(TimePoint time) {
  const auto part = time - std::chrono::floor<std::chrono::seconds>(time);
  return std::chrono::duration_cast<std::chrono::milliseconds>(part).count();
}

std::string LocalTime(TimePoint time) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}", fmt::localtime(Seconds(time)), Milliseconds(time));
}

std::string UtcTime(TimePoint time) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(Seconds(time)), Milliseconds(time));
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

/// A value that would not read as one word is put in quotes.
std::string Word(const std::string& text) {
  std::string safe = EscapeControls(text);
  if (!safe.empty() && safe.find_first_of(" \"=") == std::string::npos) return safe;
  std::string quoted = "\"";
  for (const char c : safe) {
    if (c == '"') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

std::string AttributeText(const ServiceInstanceData& data) {
  std::string text;
  for (const auto& attribute : data.attributes()) {
    text += fmt::format("{}{}={}", text.empty() ? "" : " ", Word(attribute.key()), Word(attribute.value()));
  }
  return text;
}

void AddInstance(Json& json, const ServiceInstanceData& data) {
  json["host"] = data.host();
  Json& ports = json["ports"] = Json::array();
  for (const auto& port : data.ports()) ports.push_back(Json{{"name", port.name()}, {"port", port.port()}});
  json["status"] = StatusText(data);
  json["version"] = data.version();
  json["weight"] = data.weight();
  json["start_time_ms"] = data.start_time_ms();
  Json& attributes = json["attributes"] = Json::object();
  for (const auto& attribute : data.attributes()) attributes[attribute.key()] = attribute.value();
}

std::string_view ChangeText(Change change) {
  constexpr std::array<std::string_view, 3> texts{"added", "modified", "removed"};
  return texts.at(static_cast<std::size_t>(change));
}

std::string Padded(std::string_view text, std::size_t width) {
  const std::size_t taken = Width(text);
  return std::string(text) + std::string(width > taken ? width - taken : 0, ' ');
}

Json EventHead(TimePoint time, std::string_view event, std::string_view dataCenter) {
  Json json;
  json["time"] = UtcTime(time);
  json["event"] = event;
  json["data_center"] = dataCenter;
  return json;
}

}  // namespace

std::optional<Status> StatusNamed(std::string_view name) {
  if (name == kStatusOk) return messaging::halden::STATUS_EXT_NONE;
  if (name == kStatusDegraded) return messaging::halden::STATUS_EXT_DEGRADED;
  return std::nullopt;
}

std::string EscapeControls(std::string_view text) {
  constexpr unsigned char space = 0x20;
  constexpr unsigned char del = 0x7f;
  constexpr unsigned char c1Lead = 0xc2;  // followed by less than 0xa0: a control character beyond ASCII
  constexpr unsigned char c1End = 0xa0;
  std::string safe;
  unsigned char before = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool c1 = before == c1Lead && byte >= 0x80 && byte < c1End;
    if (c1) safe.pop_back();
    if (byte < space || byte == del || c1) {
      safe += fmt::format("\\x{:02x}", byte);
    } else {
      safe += c;
    }
    before = byte;
  }
  return safe;
}

bool IsUtf8(const std::string& text) try {
  static_cast<void>(Json(text).dump());
  return true;
} catch (const Json::type_error&) {
  return false;
}

std::size_t Width(std::string_view text) {
  // Bytes that continue a UTF-8 character do not count.
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & '\xc0') != '\x80'; }));
}

std::string Endpoint(const ServiceInstanceData& data) {
  const std::string host = EscapeControls(data.host());
  const bool bare = host.find(':') == std::string::npos || host.front() == '[';
  return fmt::format("{}:{}", bare ? host : '[' + host + ']', PortText(data));
}

std::string Age(std::int64_t startTimeMs, TimePoint now) {
  if (startTimeMs <= 0) return "-";
  const auto nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  std::int64_t seconds =
      std::max<std::int64_t>(nowMs - startTimeMs, 0) / 1000;  // clocks differ between hosts
  constexpr std::array<std::pair<std::int64_t, char>, 4> units{
      {{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}}};
  for (std::size_t i = 0; i + 1 < units.size(); ++i) {
    if (seconds < units[i].first) continue;
    return fmt::format("{}{} {}{}", seconds / units[i].first, units[i].second,
                       seconds % units[i].first / units[i + 1].first, units[i + 1].second);
  }
  return fmt::format("{}s", seconds);
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

std::string StateText(const DataCenterStatus& status) {
  const std::size_t count = status.watcher.instances;
  const bool live = Condition(status) == "live";
  std::string text(Condition(status));
  if (live || count > 0) {
    text += fmt::format(", {} instance{}{}", count, count == 1 ? "" : "s", live ? "" : " kept");
  }
  if (status.watcher.quarantined > 0) text += fmt::format(", {} unreadable", status.watcher.quarantined);
  const zr::String& error = status.connection.lastErrorText;
  if (status.connection.state != ConnectionState::Connected && !error.empty() && error != Condition(status)) {
    text += fmt::format(" ({})", EscapeControls(error));
  }
  return text;
}

std::string EventFormat::Row(TimePoint time, std::string_view dataCenter, std::string_view kind,
                             std::string_view rest) const {
  return fmt::format("{}  {}  {:<8}  {}\n", LocalTime(time),
                     Padded(EscapeControls(dataCenter), m_dataCenterWidth), kind, rest);
}

std::string EventFormat::Event(TimePoint time, std::string_view dataCenter, Change change,
                               const ServiceId& id, const ServiceInstanceData* data) const {
  if (m_json) {
    Json json = EventHead(time, ChangeText(change), dataCenter);
    json["id"] = halden::ToString(id);
    if (data != nullptr) AddInstance(json, *data);
    return Line(json);
  }
  std::string rest = halden::ToString(id);
  if (data != nullptr) {
    rest += fmt::format("  {}  {}", Endpoint(*data), StatusText(*data));
    if (data->attributes_size() > 0) rest += "  " + AttributeText(*data);
  }
  return Row(time, dataCenter, ChangeText(change), rest);
}

std::string EventFormat::State(TimePoint time, const DataCenterStatus& status) const {
  if (!m_json) return Row(time, status.name, "state", StateText(status));
  Json json = EventHead(time, "state", status.name);
  json["connection"] = halden::ToString(status.connection.state);
  json["freshness"] = halden::ToString(status.watcher.freshness);
  json["instances"] = status.watcher.instances;
  json["unreadable"] = status.watcher.quarantined;
  json["last_error"] = status.connection.lastErrorText;
  return Line(json);
}

std::string InstanceTable(std::vector<Instance> instances, bool json, TimePoint now) {
  std::sort(instances.begin(), instances.end(), [](const Instance& a, const Instance& b) {
    return std::tie(a.dataCenter, a.id) < std::tie(b.dataCenter, b.id);
  });
  std::string text;
  if (json) {
    for (const auto& instance : instances) {
      Json line{{"data_center", instance.dataCenter}, {"id", halden::ToString(instance.id)}};
      AddInstance(line, instance.data);
      text += Line(line);
    }
    return text;
  }
  constexpr std::size_t columns = 6;
  using Cells = std::array<std::string, columns>;
  std::vector<Cells> rows{{"DATA CENTRE", "ID", "HOST", "PORTS", "STATUS", "AGE"}};
  for (const auto& [dataCenter, id, data] : instances) {
    rows.push_back({EscapeControls(dataCenter), halden::ToString(id), EscapeControls(data.host()),
                    PortText(data), StatusText(data), Age(data.start_time_ms(), now)});
  }
  std::array<std::size_t, columns> widths{};
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < columns; ++i) widths[i] = std::max(widths[i], Width(row[i]));
  }
  for (const auto& row : rows) {
    for (std::size_t i = 0; i + 1 < columns; ++i) text += Padded(row[i], widths[i]) + "  ";
    text += row.back() + '\n';
  }
  return text;
}

}  // namespace zr::halden::tool
