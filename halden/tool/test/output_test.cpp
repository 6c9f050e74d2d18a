// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "ensemble/node_facts.h"
#include "io/live_screen.h"
#include "node_codec.h"
#include "render/event_format.h"
#include "render/instance_text.h"
#include "render/json.h"
#include "render/listing.h"
#include "render/node_text.h"
#include "render/state_text.h"

namespace zr::halden::tool {
namespace {

constexpr std::int64_t kNowMs = 1'700'000'000'042;
const TimePoint kNow{std::chrono::milliseconds(kNowMs)};
const std::string kIdText = "00112233-4455-6677-8899-aabbccddeeff";

ServiceId Id() {
  return ParseServiceId(kIdText).value();
}

ServiceInstanceData Data(const std::string& host = "db1") {
  ServiceInstanceData data;
  data.set_host(host);
  data.add_ports()->set_port(80);
  auto& admin = *data.add_ports();
  admin.set_name("admin");
  admin.set_port(81);
  data.set_start_time_ms(kNowMs - 65'000);
  auto& attribute = *data.add_attributes();
  attribute.set_key("zone");
  attribute.set_value("a b");
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
  const std::string line =
      EventFormat(false, 10, {}).Event(kNow, "eu\twest", InstanceChange::Modified, Id(), &data);
  EXPECT_EQ(line.substr(line.find('.')), ".042  eu\\x09west  modified  " + kIdText +
                                             "  a\\x0ab\\x1b[2J\\x9b:80,admin=81  ok  zone=\"\\\" \\x0d\"\n");
}

TEST(EventLine, AsJsonKeepsItsKeysTheirOrderAndItsSyntax) {
  ServiceInstanceData data = Data();
  data.set_status_ext(messaging::halden::STATUS_EXT_DEGRADED);
  data.set_version("1\xff");  // nobody should let it pass, but a line that is no JSON would stop its reader
  const EventFormat format(true, 0, {});
  EXPECT_EQ(format.Event(kNow, "eu-west", InstanceChange::Added, Id(), &data),
            R"({"type":"added","time":"2023-11-14T22:13:20.042Z","data_center":"eu-west","id":")" + kIdText +
                R"(","host":"db1","ports":[{"name":"","port":80},{"name":"admin","port":81}],)"
                R"("status":"degraded","version":"1)"
                "\xef\xbf\xbd"
                R"(","weight":0,"start_time_ms":1699999935042,"attributes":{"zone":"a b"}})"
                "\n");
  DataCenterStatus state = State(ConnectionState::Suspended, Freshness::Stale, 3);
  state.connection.sessionId = -1;
  state.connection.lastErrorText = "connection lost";
  state.connection.reconnects = 2;
  state.watcher.staleSince = kNow;
  state.watcher.held = 1;
  EXPECT_EQ(
      format.State(kNow, state),
      R"({"type":"state","time":"2023-11-14T22:13:20.042Z","data_center":"eu-west",)"
      R"("connection":"suspended","session_id":"0xffffffffffffffff","freshness":"stale",)"
      R"("stale_since":"2023-11-14T22:13:20.042Z","instances":3,"held":1,"unreadable":0,"sessions":0,)"
      R"("reconnects":2,"expiries":0,"resyncs":0,"drifts":0,"last_error":"connection lost","last_read_error":""})"
      "\n");
}

TEST(StateText, CallsNeitherKeptInstancesLiveNorLiveOnesKept) {
  using enum ConnectionState;
  EXPECT_EQ(StateText(State(Connecting, Freshness::NeverSynchronized, 0)), "connecting");
  EXPECT_EQ(StateText(State(Connected, Freshness::NeverSynchronized, 7)),
            "connected, reading, 7 instances so far");
  EXPECT_EQ(StateText(State(Connected, Freshness::Live, 1)), "live, 1 instance");
  DataCenterStatus denied = State(Connected, Freshness::NeverSynchronized, 0);
  denied.watcher.lastError = ZNOAUTH;
  EXPECT_EQ(StateText(denied), "connected, reading (not authenticated)");
  EXPECT_EQ(StateText(State(Suspended, Freshness::Stale, 3)), "connection lost, 3 instances kept");
  EXPECT_EQ(StateText(State(Connected, Freshness::Stale, 3)), "connected again, reading, 3 instances kept");
  // The connection is gone and the watcher has not heard of it yet.
  EXPECT_EQ(StateText(State(Suspended, Freshness::Live, 3)), "connection lost, 3 instances kept");
}

TEST(InstanceTable, IsAlignedAndMarksWhatIsHeld) {
  const std::vector<Instance> instances{{"eu-west", Id(), Data("größe")},  // more bytes than characters
                                        {"us-east", Id(), Data(), true}};
  EXPECT_EQ(InstanceTable(instances, {}, kNow),
            "DC       ID                                    HOST   PORTS        STATUS    AGE\n"
            "eu-west  00112233-4455-6677-8899-aabbccddeeff  größe  80,admin=81  ok        1m 5s\n"
            "us-east  00112233-4455-6677-8899-aabbccddeeff  db1    80,admin=81  ok, held  1m 5s\n");
}

TEST(InstanceTable, IsCutToTheTerminalButNeverItsIds) {
  const std::vector<Instance> instances{{"eu-west", Id(), Data("a-very-long-host-name.example.com")}};
  for (const std::size_t width : {80U, 76U, 20U}) {
    const std::string table = InstanceTable(instances, {false, width}, kNow);
    EXPECT_NE(table.find(kIdText), std::string::npos) << table;
    EXPECT_NE(table.find("…"), std::string::npos) << table;
    EXPECT_EQ(Width(table.substr(table.find('\n') + 1)), std::max<std::size_t>(width, 72) + 1) << table;
  }
  const std::string coloured = InstanceTable(instances, {true, 80}, kNow);
  EXPECT_NE(coloured.find("\x1b[1mDC\x1b[0m       \x1b[1mID\x1b[0m"), std::string::npos) << coloured;
}

TEST(StateTable, SaysSinceWhenWhatIsKnownIsStaleAndWhy) {
  DataCenterStatus state = State(ConnectionState::Suspended, Freshness::Stale, 3);
  state.connection.lastErrorText = "connection\nlost";
  state.watcher.staleSince = kNow;
  const std::string table =
      StateTable({state, State(ConnectionState::Connected, Freshness::Live, 0)}, {}, kNow);
  EXPECT_NE(table.find("eu-west  suspended  stale         3"), std::string::npos) << table;
  EXPECT_NE(table.find(" (0s); last error: connection\\x0alost\neu-west  connected"), std::string::npos)
      << table;
}

TEST(LiveFrame, NeverScrollsAndErasesWhatTheLastFrameLeft) {
  EXPECT_EQ(LiveFrame("ab\nc\nd\n", 2), "\x1b[Hab\x1b[K\nc\x1b[K\x1b[J");
  EXPECT_EQ(LiveFrame("", 2), "\x1b[H\x1b[J");
  EXPECT_EQ(FirstLines("a\nb\nc\n", 2), "a\n… 2 more\n");
  EXPECT_EQ(FirstLines("a\nb\n", 2), "a\nb\n");
}

TEST(Progress, CountsWhatIsBeingReadAndNamesWhatIsOutOfReach) {
  using enum ConnectionState;
  EXPECT_EQ(
      ProgressText({State(Connected, Freshness::NeverSynchronized, 7), State(Connected, Freshness::Live, 3),
                    State(Connecting, Freshness::NeverSynchronized, 0)}),
      "reading: eu-west 7, eu-west 3 done, eu-west connecting");
}

TEST(NodeFacts, TellTheWriterAndSurviveAnyBytes) {
  ServiceInstanceData data = Data();
  data.set_service_name("orders");
  messaging::halden::User writer;
  writer.set_name("root\x1b");
  writer.set_pid(7);
  Stat stat{};
  stat.mtime = kNowMs;
  const auto good = ReadNodeFacts("eu-west", Id(), "/p", details::EncodeNode(data, writer), stat);
  const std::string text = NodeText(good, {}, kNow);
  EXPECT_NE(text.find("writer      root\\x1b@, pid 7\n"), std::string::npos) << text;
  EXPECT_NE(text.find("session     none"), std::string::npos) << text;
  EXPECT_NE(NodeLine(good).find(R"("error":"","instance":{"host":"db1")"), std::string::npos);
  const auto bad = ReadNodeFacts("eu-west", Id(), "/p", "\xff\x01", stat);
  EXPECT_NE(NodeText(bad, {}, kNow).find("unreadable  envelope"), std::string::npos);
  EXPECT_NE(NodeLine(bad).find(R"("instance":null,"writer":null)"), std::string::npos) << NodeLine(bad);
}

TEST(Endpoint, PutsIpv6AddressesInBracketsAndSurvivesWhatIsMissing) {
  ServiceInstanceData data;
  EXPECT_EQ(Endpoint(data), ":-");
  data.set_host("::1");
  EXPECT_EQ(Endpoint(data), "[::1]:-");
}

}  // namespace
}  // namespace zr::halden::tool
