// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/json.h"

#include <fmt/format.h>

#include <cstddef>
#include <iterator>
#include <nlohmann/json.hpp>
#include <unordered_set>

#include "render/findings.h"
#include "render/instance_text.h"

namespace zr::halden::tool {

namespace {

using Json = nlohmann::ordered_json;  // keys in the order written here, in every line

std::string Text(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Line(const Json& json) {
  return Text(json) + '\n';
}

/// Not as a number: some readers keep those as doubles, which do not hold it.
std::string HexText(std::int64_t number) {
  return fmt::format("{:#x}", static_cast<std::uint64_t>(number));
}

/// Of a key that comes twice the first value counts. The object by itself would look for each key among all before it, and
/// who publishes chooses how many there are.
void AddAttributes(Json& json, const ServiceInstanceData& data) {
  auto& attributes = json.get_ref<Json::object_t&>();
  std::unordered_set<std::string_view> known;
  for (const auto& attribute : data.attributes()) {
    if (known.insert(attribute.key()).second) attributes.emplace_back(attribute.key(), attribute.value());
  }
}

void AddData(Json& json, const ServiceInstanceData& data) {
  json["host"] = data.host();
  Json& ports = json["ports"] = Json::array();
  for (const auto& port : data.ports()) ports.push_back(Json{{"name", port.name()}, {"port", port.port()}});
  json["status"] = StatusText(data);
  json["version"] = data.version();
  json["weight"] = data.weight();
  json["start_time_ms"] = data.start_time_ms();
  AddAttributes(json["attributes"] = Json::object(), data);
}

}  // namespace

std::string EventLine(TimePoint time, std::string_view dataCenter, InstanceChange change, const ServiceId& id,
                      const ServiceInstanceData* data) {
  Json json{{"type", halden::ToString(change)},
            {"time", UtcTime(time)},
            {"data_center", dataCenter},
            {"id", halden::ToString(id)}};
  if (data != nullptr) AddData(json, *data);
  return Line(json);
}

std::string StateLine(const DataCenterStatus& status, std::optional<TimePoint> time) {
  const auto counters = status.Counters();
  const auto& since = status.watcher.staleSince;
  const auto& asOf = status.watcher.restoredAsOf;
  Json json{{"type", "state"}};
  if (time) json["time"] = UtcTime(*time);
  json["data_center"] = status.name;
  json["connection"] = halden::ToString(status.connection.state);
  json["session_id"] = HexText(status.connection.sessionId);
  json["freshness"] = halden::ToString(status.watcher.freshness);
  json["stale_since"] = since ? Json(UtcTime(*since)) : Json();
  json["restored_as_of"] = asOf ? Json(UtcTime(*asOf)) : Json();
  json["instances"] = counters.instances;
  json["held"] = counters.held;
  json["unreadable"] = counters.quarantined;
  json["sessions"] = counters.sessions;
  json["reconnects"] = counters.reconnects;
  json["expiries"] = counters.expiries;
  json["resyncs"] = counters.resyncs;
  json["drifts"] = counters.drifts;
  json["snapshot_errors"] = counters.snapshotErrors;
  json["last_error"] = status.connection.lastErrorText;
  json["last_read_error"] = status.watcher.lastError == 0 ? "" : zerror(status.watcher.lastError);
  return Line(json);
}

std::string InstanceLine(const Instance& instance) {
  Json json{{"type", "instance"},
            {"data_center", instance.dataCenter},
            {"id", halden::ToString(instance.id)},
            {"held", instance.held}};
  AddData(json, instance.data);
  return Line(json);
}

std::string NodeLine(const NodeFacts& facts) {
  Json json{{"type", "node"},
            {"data_center", facts.dataCenter},
            {"id", halden::ToString(facts.id)},
            {"path", facts.path},
            {"error", facts.error}};
  Json& instance = json["instance"] = nullptr;
  if (facts.data) AddData(instance, *facts.data);
  Json& writer = json["writer"] = nullptr;
  if (facts.writer) {
    writer = {{"name", facts.writer->name()},
              {"host", facts.writer->host()},
              {"pid", facts.writer->pid()},
              {"program", facts.writer->writer()}};
  }
  json["created_ms"] = facts.createdMs;
  json["written_ms"] = facts.writtenMs;
  json["writes"] = facts.writes;
  json["bytes"] = facts.bytes;
  json["compressed"] = facts.compressed;
  json["session_id"] = HexText(facts.sessionId);
  return Line(json);
}

std::string ServiceLine(const ServiceCount& service) {
  return Line(Json{{"type", "service"},
                   {"data_center", service.dataCenter},
                   {"service", service.name},
                   {"instances", service.instances ? Json(*service.instances) : Json()}});
}

std::string FaultLine(const ConfigFault& fault, bool isError) {
  return Line(Json{{"type", isError ? "error" : "warning"},
                   {"file", fault.file},
                   {"line", fault.line},
                   {"column", fault.column},
                   {"message", fault.message}});
}

std::string CheckLine(const Check& check) {
  return Line(Json{{"type", "check"},
                   {"data_center", check.dataCenter},
                   {"check", check.subject},
                   {"verdict", VerdictText(check.verdict)},
                   {"finding", check.finding},
                   {"advice", check.advice}});
}

std::string DataObject(const ServiceInstanceData& data) {
  Json json;
  AddData(json, data);
  return Text(json);
}

std::string JsonText(std::string_view text) {
  return Text(Json(text));
}

std::string PublishedLine(std::string_view dataCenter, const ServiceId& id) {
  return Line(Json{{"type", "published"}, {"data_center", dataCenter}, {"id", halden::ToString(id)}});
}

}  // namespace zr::halden::tool
