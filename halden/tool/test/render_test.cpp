// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "ensemble/node_facts.h"
#include "model/node_codec.h"
#include "render/event_format.h"
#include "render/instance_text.h"
#include "render/json.h"
#include "render/listing.h"
#include "render/node_text.h"
#include "render/state_text.h"

namespace zr::halden::tool {
namespace {

using testing::HasSubstr;

const TimePoint kNow = FromMilliseconds(1'700'000'000'042);
const std::string kIdText = "00112233-4455-6677-8899-aabbccddeeff";
const ServiceId kId = ParseServiceId(kIdText).value();

ServiceInstanceData Data(const std::string& host = "db1") {
  ServiceInstanceData data;
  google::protobuf::TextFormat::ParseFromString(
      R"(service_name: "orders" ports { port: 80 } ports { name: "admin" port: 81 }
      start_time_ms: 1699999935042 attributes { key: "zone" value: "a b" })",
      &data);
  data.set_host(host);
  return data;
}

DataCenterStatus State(ConnectionState connection, Freshness freshness, std::size_t instances) {
  DataCenterStatus status;
  status.name = "eu-west";
  status.connection.state = connection;
  status.watcher.freshness = freshness;
  status.watcher.instances = instances;
  return status;
}

TEST(EventLine, StaysOneLineAndLeavesTheTerminalAloneWhateverIsPublished) {
  ServiceInstanceData data = Data("a\nb\x1b[2J\xc2\x9b");
  data.mutable_attributes(0)->set_value("\" \r");
  const auto line =
      EventFormat(false, 10, {}).Event(kNow, "eu\twest", InstanceChange::Modified, kId, kIdText, &data);
  EXPECT_EQ(line.substr(line.find('.')), ".042  eu\\x09west  modified  " + kIdText +
                                             "  a\\x0ab\\x1b[2J\\x9b:80,admin=81  ok  zone=\"\\\" \\x0d\"\n");
}

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

TEST(Json, IsAsDocumentedKeyForKey) {
  std::map<std::string, std::string> documented;
  std::map<std::string, std::string> printed;
  std::ifstream file(HALDEN_JSON_DOCUMENT);
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("{\"type\"")) documented[Json::parse(line)["type"]] = Keys(Json::parse(line));
  }
  const ServiceInstanceData data;
  const NodeFacts node{"dc", {}, "/p", data, "", messaging::halden::User()};
  for (const auto& line : {EventLine({}, "dc", InstanceChange::Added, {}, &data),
                           EventLine({}, "dc", InstanceChange::Removed, {}, nullptr), StateLine({}),
                           InstanceLine({"dc", {}, data, false}), NodeLine(node), ServiceLine({}),
                           CheckLine({}), PublishedLine("dc", {}), FaultLine({}, true)}) {
    printed[Json::parse(line)["type"]] = Keys(Json::parse(line));
  }
  EXPECT_EQ(printed, documented);
}

TEST(Json, KeepsItsSyntaxWhateverIsPublished) {
  ServiceInstanceData data = Data();
  data.set_version("1\xff");  // nobody should let it pass, but a line that is no JSON would stop its reader
  EXPECT_THAT(
      EventFormat(true, 0, {}).Event(kNow, "eu", InstanceChange::Added, kId, {}, &data),
      AllOf(HasSubstr(R"("time":"2023-11-14T22:13:20.042Z",)"), HasSubstr("\"version\":\"1\xef\xbf\xbd\""),
            HasSubstr(R"("ports":[{"name":"","port":80},{"name":"admin","port":81}],"status":"ok",)")));
  DataCenterStatus state;
  state.connection.sessionId = -1;  // as a number it would lose digits in readers that keep doubles
  EXPECT_THAT(StateLine(state), HasSubstr(R"("session_id":"0xffffffffffffffff",)"));
}

TEST(StateText, CallsNeitherKeptInstancesLiveNorLiveOnesKept) {
  using enum ConnectionState;
  using enum Freshness;
  EXPECT_EQ(StateText(State(Connecting, NeverSynchronized, 0)), "connecting");
  EXPECT_EQ(StateText(State(Connected, NeverSynchronized, 7)), "connected, reading, 7 instances so far");
  EXPECT_EQ(StateText(State(Connected, Live, 1)), "live, 1 instance");
  EXPECT_EQ(StateText(State(Suspended, Stale, 3)), "connection lost, 3 instances kept");
  EXPECT_EQ(StateText(State(Connected, Stale, 3)), "connected again, reading, 3 instances kept");
  // The connection is gone and the watcher has not heard of it yet.
  EXPECT_EQ(StateText(State(Suspended, Live, 3)), "connection lost, 3 instances kept");
  DataCenterStatus restored = State(Connecting, Restored, 3);
  restored.watcher.restoredAsOf = kNow - std::chrono::seconds(65);
  EXPECT_EQ(StateText(restored, kNow), "restored, connecting, 3 instances as of " +
                                           ShortTime(*restored.watcher.restoredAsOf, kNow) + " (1m 5s ago)");
  DataCenterStatus denied = State(Connected, NeverSynchronized, 0);
  denied.watcher.lastError = ZNOAUTH;
  EXPECT_EQ(StateText(denied), "connected, reading (not authenticated)");
  denied.watcher.staleSince = kNow;
  EXPECT_THAT(StateTable({denied}, {}, kNow), HasSubstr(" (0s); last read error: not authenticated\n"));
  EXPECT_EQ(ProgressText({State(Connected, NeverSynchronized, 7), State(Connected, Live, 3),
                          State(Connecting, NeverSynchronized, 0)}),
            "reading: eu-west 7, eu-west 3 done, eu-west connecting");
}

TEST(InstanceTable, IsCutToTheTerminalButNeverItsIds) {
  const std::vector<Instance> instances{{"eu-west", kId, Data("größe-数据库-a-name.example.com")}};
  for (const std::size_t width : {80U, 76U, 20U}) {
    const std::string table = InstanceTable(instances, ShortIds(true), {false, width}, kNow);
    EXPECT_THAT(table, AllOf(HasSubstr(kIdText), HasSubstr("…")));
    EXPECT_EQ(Width(table.substr(table.find('\n') + 1)), std::max<std::size_t>(width, 72) + 1) << table;
  }
}

TEST(InstanceTable, LeavesPipesWholeAndLinesIndependent) {
  const std::string host(100, 'h');
  const std::string table =
      InstanceTable({{"eu", kId, Data(host)}, {"eu", kId, Data()}}, ShortIds(true), {}, kNow);
  EXPECT_THAT(table, AllOf(HasSubstr("  " + host + "  80,"), HasSubstr("  db1   80,")));
}

TEST(Text, CountsTheColumnsThatCharactersTake) {
  EXPECT_EQ(Width("a数e\u0301\xff"), 5U);
  EXPECT_EQ(Cut("数据库", 5), "数据…");
  EXPECT_EQ(Cut("数据库", 4), "数…");
}

TEST(ShortIds, AreAsLongAsItTakesToTellThemApart) {
  ShortIds ids(false);
  ids.Add(kId);
  EXPECT_EQ(ids.Text(kId), kIdText.substr(0, 8));
  ids.Add(ParseServiceId("00112233-4455-0677-8899-aabbccddeeff").value());
  EXPECT_EQ(ids.Text(kId), kIdText.substr(0, 15));
}

TEST(NodeFacts, TellTheWriterAndSurviveAnyBytes) {
  messaging::halden::User writer;
  writer.set_name("root\x1b");
  writer.set_pid(7);
  Stat stat{};
  const auto good = ReadNodeFacts("eu-west", kId, "/p", details::EncodeNode(Data(), writer), stat);
  EXPECT_THAT(NodeText(good, {}, kNow),
              AllOf(HasSubstr("  weight      -\n  started     2023-11-1"),
                    HasSubstr("writer      root\\x1b@, pid 7\n"),
                    HasSubstr(" (1m 5s ago)\n  attributes  zone=\"a b\"\n"), HasSubstr("session     none")));
  const auto lost = ReadNodeFacts("eu-west", kId, "/p", details::EncodeNode({}, writer), stat);
  EXPECT_THAT(NodeText(lost, {}, kNow),
              AllOf(HasSubstr("unreadable  envelope: no"), HasSubstr("@, pid 7\n")));
  const auto bad = ReadNodeFacts("eu-west", kId, "/p", "\xff\x01", stat);
  EXPECT_THAT(NodeText(bad, {}, kNow), HasSubstr("unreadable  envelope"));
  EXPECT_THAT(NodeLine(bad), HasSubstr(R"("instance":null,"writer":null)"));
}

}  // namespace
}  // namespace zr::halden::tool
