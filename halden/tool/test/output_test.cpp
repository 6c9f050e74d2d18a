// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace zr::halden::tool {
namespace {

constexpr std::int64_t kNowMs = 1'700'000'000'042;
const TimePoint kNow{std::chrono::milliseconds(kNowMs)};
const std::string kIdText = "00112233-4455-6677-8899-aabbccddeeff";

ServiceId Id(const std::string& text = kIdText) {
  return ParseServiceId(text).value();
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
  const std::string line = EventFormat(false, 10).Event(kNow, "eu\twest", Change::Modified, Id(), &data);
  EXPECT_EQ(line.substr(line.find('.')), ".042  eu\\x09west  modified  " + kIdText +
                                             "  a\\x0ab\\x1b[2J\\x9b:80,admin=81  ok  zone=\"\\\" \\x0d\"\n");
}

TEST(EventLine, AsJsonKeepsItsKeysTheirOrderAndItsSyntax) {
  ServiceInstanceData data = Data();
  data.set_status_ext(messaging::halden::STATUS_EXT_DEGRADED);
  data.set_version("1\xff");  // nobody should let it pass, but a line that is no JSON would stop its reader
  const EventFormat format(true, 0);
  EXPECT_EQ(format.Event(kNow, "eu-west", Change::Added, Id(), &data),
            R"({"time":"2023-11-14T22:13:20.042Z","event":"added","data_center":"eu-west","id":")" + kIdText +
                R"(","host":"db1","ports":[{"name":"","port":80},{"name":"admin","port":81}],)"
                R"("status":"degraded","version":"1)"
                "\xef\xbf\xbd"
                R"(","weight":0,"start_time_ms":1699999935042,"attributes":{"zone":"a b"}})"
                "\n");
  EXPECT_EQ(format.State(kNow, State(ConnectionState::Connected, Freshness::Live, 3)),
            R"({"time":"2023-11-14T22:13:20.042Z","event":"state","data_center":"eu-west",)"
            R"("connection":"connected","freshness":"live","instances":3,"unreadable":0,"last_error":""})"
            "\n");
}

TEST(StateText, CallsNeitherKeptInstancesLiveNorLiveOnesKept) {
  using enum ConnectionState;
  EXPECT_EQ(StateText(State(Connecting, Freshness::NeverSynchronized, 0)), "connecting");
  EXPECT_EQ(StateText(State(Connected, Freshness::Live, 1)), "live, 1 instance");
  EXPECT_EQ(StateText(State(Suspended, Freshness::Stale, 3)), "connection lost, 3 instances kept");
  EXPECT_EQ(StateText(State(Connected, Freshness::Stale, 3)), "connected again, reading, 3 instances kept");
  // The connection is gone and the watcher has not heard of it yet.
  EXPECT_EQ(StateText(State(Suspended, Freshness::Live, 3)), "connection lost, 3 instances kept");
}

TEST(Table, IsSortedByDataCentreThenIdWithColumnsAligned) {
  const std::string low = "00000000-0000-0000-0000-000000000001";
  // The host in the middle has more bytes than characters.
  EXPECT_EQ(
      InstanceTable(
          {{"us-east", Id(low), Data()}, {"eu-west", Id(), Data("größe")}, {"eu-west", Id(low), Data()}},
          false, kNow),
      "DATA CENTRE  ID                                    HOST   PORTS        STATUS  AGE\n"
      "eu-west      00000000-0000-0000-0000-000000000001  db1    80,admin=81  ok      1m 5s\n"
      "eu-west      00112233-4455-6677-8899-aabbccddeeff  größe  80,admin=81  ok      1m 5s\n"
      "us-east      00000000-0000-0000-0000-000000000001  db1    80,admin=81  ok      1m 5s\n");
}

TEST(Endpoint, PutsIpv6AddressesInBracketsAndSurvivesWhatIsMissing) {
  ServiceInstanceData data;
  EXPECT_EQ(Endpoint(data), ":-");
  data.set_host("::1");
  EXPECT_EQ(Endpoint(data), "[::1]:-");
}

}  // namespace
}  // namespace zr::halden::tool
