// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/json.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace zr::halden::tool {
namespace {

using Json = nlohmann::ordered_json;

/// Its keys, and those of objects in it, in their order.
std::string Keys(const Json& json) {
  std::string keys;
  for (const auto& [key, value] : json.items()) {
    keys += ' ' + key;
    if (value.is_object() && key != "attributes") keys += " {" + Keys(value) + " }";
  }
  return keys;
}

std::map<std::string, std::string> KeysByType(const std::vector<std::string>& lines) {
  std::map<std::string, std::string> keys;
  for (const auto& line : lines) {
    const Json json = Json::parse(line);
    keys[json["type"]] = Keys(json);
  }
  return keys;
}

std::vector<std::string> DocumentedLines() {
  std::vector<std::string> lines;
  std::ifstream file(HALDEN_JSON_DOCUMENT);
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("{\"type\"")) lines.push_back(line);
  }
  return lines;
}

TEST(Json, IsAsDocumentedKeyForKey) {
  const ServiceId id{};
  const ServiceInstanceData data;
  NodeFacts node;
  node.data = data;
  node.writer = messaging::halden::User();
  const std::vector<std::string> printed{EventLine({}, "dc", InstanceChange::Added, id, &data),
                                         EventLine({}, "dc", InstanceChange::Removed, id, nullptr),
                                         StateLine({}),
                                         InstanceLine({"dc", id, data, false}),
                                         NodeLine(node),
                                         ServiceLine({}),
                                         CheckLine({}),
                                         PublishedLine("dc", id),
                                         FaultLine({}, true)};
  EXPECT_EQ(KeysByType(printed), KeysByType(DocumentedLines()));
}

}  // namespace
}  // namespace zr::halden::tool
