// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/render/template_data.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "agent/render/options.h"

namespace zr::halden::agent {

namespace {

using Json = nlohmann::json;
using kainjow::mustache::data;

std::string NameOf(std::string text) {
  std::replace(text.begin(), text.end(), '.', '_');
  return text;
}

/// Whoever publishes an instance chooses its texts: none of them may begin a line of its own.
std::string OneLine(std::string text) {
  constexpr unsigned char firstPrintable = ' ';
  constexpr char del = 0x7F;
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < firstPrintable || c == del; }, '_');
  return text;
}

data ToData(const Json& json);

data ObjectData(const Json& json) {
  data object(data::type::object);
  for (const auto& [name, value] : json.items()) object[NameOf(name)] = ToData(value);
  return object;
}

data ListData(const Json& json) {
  data list(data::type::list);
  for (std::size_t i = 0; i < json.size(); ++i) {
    data item = ToData(json[i]);
    if (item.is_object()) item["last"] = data(i + 1 == json.size());
    list.push_back(item);
  }
  return list;
}

/// An empty text counts as absent, so that a section can ask for it; written out, both are nothing.
data ToData(const Json& json) {
  if (json.is_object()) return ObjectData(json);
  if (json.is_array()) return ListData(json);
  if (json.is_boolean()) return {json.get<bool>()};
  if (json.is_null()) return {false};
  if (!json.is_string()) return {json.dump()};
  const auto& text = json.get_ref<const std::string&>();
  return text.empty() ? data(false) : data(OneLine(text));
}

/// Adds what a template, which cannot compare or search, needs to know of an instance.
void Complete(const Json& instance, data& item) {
  data ports(data::type::object);
  item["port"] = data(false);
  const auto given = instance.value("ports", Json::array());
  if (!given.empty())
    item["port"] = ToData(given.front().value("port", Json()));  // the main one, if all have names
  for (const auto& port : given) {
    const auto name = port.value("name", std::string());
    (name.empty() ? item["port"] : ports[NameOf(name)]) = ToData(port.value("port", Json()));
  }
  item["named_ports"] = std::move(ports);
  item["address"] = data(false);
  const auto host = OneLine(instance.value("host", std::string()));
  if (const auto* const port = item.get("port"); port->is_string() && !host.empty()) {
    const bool isBareIPv6 = host.find(':') != std::string::npos && host.front() != '[';
    item["address"] = data((isBareIPv6 ? "[" + host + "]" : host) + ":" + port->string_value());
  }
  item["status_is"] = data(NameOf(instance.value("status", std::string())), data(true));
  if (instance.value("weight", 0) == 0) item["weight"] = data(false);
  data attributes(data::type::list);
  const auto& pairs = instance.value("attributes", Json::object());
  for (const auto& [name, value] : pairs.items()) {
    data attribute(data::type::object);
    attribute["name"] = data(OneLine(name));
    attribute["value"] = ToData(value);
    attributes.push_back(attribute);
  }
  item["attribute_list"] = std::move(attributes);
}

data ServiceData(const Json& json) {
  data service(data::type::object);
  for (const auto& [name, value] : json.items()) {
    if (name != "instances") service[NameOf(name)] = ToData(value);
  }
  data placeholders(data::type::list);
  for (std::size_t i = 0; i < json.at("instances").size(); ++i) placeholders.push_back(data(true));
  service["instances"] = std::move(placeholders);
  return service;
}

const std::vector<data>& ServicesOf(const TemplateData& templateData) {
  return templateData.root.get("services")->list_value();
}

}  // namespace

TemplateData ReadLists(const std::vector<std::string>& lists) try {
  TemplateData result;
  data services(data::type::list);
  for (std::size_t i = 0; i < lists.size(); ++i) {
    const Json& json = result.lists.emplace_back(Json::parse(lists[i]));
    const auto name = json.at("service").get<std::string>();
    const auto count = json.at("instances").size();
    result.instances += count;
    if (count == 0) result.empty.push_back(name);
    result.names.push_back(NameOf(name));
    data service = ServiceData(json);
    service["last"] = data(i + 1 == lists.size());
    services.push_back(service);
  }
  result.root["services"] = std::move(services);
  return result;
} catch (const Json::exception& e) {
  throw RenderError(std::string("a service's list cannot be read: ") + e.what());
}

NameContext::NameContext(const TemplateData& data) : context(&data.root), m_data(data) {
  const auto& services = ServicesOf(data);
  if (services.size() == 1) context::push(&services.front());
}

void NameContext::push(const data* entered) {
  m_instances.push_back(InstanceAt(entered));
  context::push(m_instances.back() ? m_instances.back().get() : entered);
}

void NameContext::pop() {
  context::pop();
  m_instances.pop_back();
}

std::unique_ptr<data> NameContext::InstanceAt(const data* entered) const {
  const auto& services = ServicesOf(m_data);
  for (std::size_t i = 0; i < services.size(); ++i) {
    const auto& placeholders = services[i].get("instances")->list_value();
    const auto* const begin = placeholders.data();
    const auto* const end = begin + placeholders.size();
    if (std::less<>()(entered, begin) || !std::less<>()(entered, end)) continue;
    const Json& instance = m_data.lists[i]["instances"][static_cast<std::size_t>(entered - begin)];
    auto made = std::make_unique<data>(ObjectData(instance));
    Complete(instance, *made);
    (*made)["last"] = data(entered + 1 == end);
    return made;
  }
  return nullptr;
}

const data* NameContext::get(const std::string& name) const {
  constexpr std::string_view prefix = "by_name.";
  if (!name.starts_with(prefix)) return context::get(name);
  const auto dot = name.find('.', prefix.size());
  const auto service = name.substr(prefix.size(), dot - prefix.size());
  const auto found = std::find(m_data.names.begin(), m_data.names.end(), service);
  if (found == m_data.names.end()) return nullptr;
  const auto index = static_cast<std::size_t>(found - m_data.names.begin());
  const data* value = &ServicesOf(m_data)[index];
  return dot == std::string::npos ? value : context(value).get(name.substr(dot + 1));
}

const std::set<std::string, std::less<>>& KnownNames() {
  static const auto& names = *new std::set<std::string, std::less<>>{
      // of a service
      "services", "by_name", "service", "revision", "data_centers", "instances", "last",
      // of an instance
      "type", "data_center", "id", "held", "host", "ports", "name", "port", "address", "named_ports",
      "status", "status_is", "version", "weight", "start_time_ms", "attributes", "attribute_list", "value",
      // of a data centre
      "connection", "session_id", "freshness", "stale_since", "unreadable", "sessions", "reconnects",
      "expiries", "resyncs", "drifts", "last_error", "last_read_error", "restored_as_of", "snapshot_errors"};
  return names;
}

const std::set<std::string, std::less<>>& OpenNames() {
  static const auto& names =
      *new std::set<std::string, std::less<>>{"by_name", "named_ports", "status_is", "attributes"};
  return names;
}

}  // namespace zr::halden::agent
