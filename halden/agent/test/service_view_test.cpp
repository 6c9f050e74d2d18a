// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/view/service_view.h"

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <string>

namespace zr::halden::agent {
namespace {

using testing::HasSubstr;
using testing::Not;
using Kind = Change::Kind;

const ServiceView::Clock::time_point kNow{};
constexpr std::size_t kKeyLength = 62;  // "data_center":"eu","id":"..."

ServiceId Id(unsigned number) {
  ServiceId id{};
  id.data[0] = static_cast<std::uint8_t>(number >> 8U);
  id.data[1] = static_cast<std::uint8_t>(number);
  return id;
}

ServiceInstanceData Data(const std::string& host, const std::string& zone = "a") {
  ServiceInstanceData data;
  data.set_host(host);
  auto& attribute = *data.add_attributes();
  attribute.set_key("zone");
  attribute.set_value(zone);
  return data;
}

DataCenterStatus State(const std::string& name, Freshness freshness) {
  DataCenterStatus status;
  status.name = name;
  status.watcher.freshness = freshness;
  return status;
}

/// What a reader makes of what it is told; whatever is not legal is a failure.
class Reader {
 public:
  explicit Reader(const ServiceView& view) : m_view(view), m_cursor(view.Begin()) {}

  void Read(int most) {
    if (m_view.IsTooOld(m_cursor)) Restart();
    for (; most > 0; --most) {
      const auto change = m_view.Next(m_cursor);
      if (!change) return;
      Take(*change);
    }
  }
  /// As one whose connection broke: it goes on from the last change, if that was resumable.
  void Resume() {
    const auto cursor = m_resumable ? m_view.Resume(*m_resumable) : std::nullopt;
    if (!cursor) return Restart();
    m_cursor = *cursor;
    ++m_resumed;
  }
  int m_resumed = 0;
  std::map<std::string, std::string> m_objects;  // by data centre and id

 private:
  void Restart() {
    m_cursor = m_view.Begin();
    m_objects.clear();
    m_resumable.reset();
  }
  void Take(const Change& change) {
    if (change.kind != Kind::State && change.kind != Kind::DataCenterRemoved) {
      const std::string key = change.object.substr(change.object.find("\"data_center\""), kKeyLength);
      EXPECT_EQ(m_objects.contains(key), change.kind != Kind::Added) << change.object;
      if (change.kind == Kind::Removed) m_objects.erase(key);
      if (change.kind != Kind::Removed) m_objects[key] = change.object;
    }
    m_resumable = change.resumable;
  }

  const ServiceView& m_view;
  Cursor m_cursor;
  std::optional<Revision> m_resumable;
};

/// Readers of all speeds, some of whom lose their connection, see a legal history and end with the truth.
TEST(ServiceView, TellsSlowAndReturningReadersALegalHistoryThatEndsWithTheTruth) {
  int resumed = 0;
  for (unsigned seed = 1; seed <= 12; ++seed) {
    std::mt19937 random(seed);
    const auto draw = [&random](unsigned below) { return static_cast<unsigned>(random() % below); };
    ServiceView view("orders", "e");
    std::vector<Reader> readers;
    for (int i = 0; i < 6; ++i) readers.emplace_back(view);
    for (int step = 0; step < 4000; ++step) {
      const std::string dataCenter = draw(2) == 0 ? "eu" : "us";
      const ServiceId id = Id(draw(1 + 40 * (seed % 3)));
      const auto now =
          kNow + std::chrono::seconds(seed % 2 == 0 ? step : 0);  // odd seeds keep all tombstones
      if (const unsigned chance = draw(100); chance < 50) {
        view.Put(dataCenter, id, Data("h" + std::to_string(step)));
      } else if (chance < 90) {
        view.Remove(dataCenter, id, now);
      } else if (chance < 94) {
        view.SetHeld(dataCenter, {id});
      } else if (chance < 99) {
        view.SetState(State(dataCenter, draw(2) == 0 ? Freshness::Live : Freshness::Stale));
      } else {
        view.RemoveDataCenter(dataCenter, now);
      }
      Reader& reader = readers[draw(6)];
      if (draw(4) == 0) reader.Read(static_cast<int>(draw(12)));
      if (draw(100) == 0) reader.Resume();
    }
    Reader truth(view);
    truth.Read(100'000);
    for (auto& reader : readers) {
      reader.Read(100'000);
      EXPECT_EQ(reader.m_objects, truth.m_objects) << "seed " << seed;
      resumed += reader.m_resumed;
    }
    EXPECT_EQ(truth.m_objects.size(), view.Instances());
  }
  EXPECT_GT(resumed, 50);
}

TEST(ServiceView, MovesItsListOnlyForWhatAListDependsOnAndKeepsOneTextForOneRevision) {
  ServiceView view("orders", "e");
  view.SetState(State("eu", Freshness::Live));
  view.Put("eu", Id(1), Data("h"));
  const Revision listed = view.ListRevision();
  const std::string list = view.List({});
  view.Put("eu", Id(1), Data("h"));
  auto state = State("eu", Freshness::Live);
  state.connection.lastErrorText = "slow";
  state.connection.reconnects = 1;
  view.SetState(state);
  EXPECT_EQ(view.ListRevision(), listed);
  EXPECT_EQ(view.List({}), list);
  EXPECT_GT(view.Head(), listed);
  EXPECT_THAT(view.StatusObject(), HasSubstr("\"instances\":1,"));
  view.SetHeld("eu", {Id(1)});
  EXPECT_THAT(view.List({}), HasSubstr("\"held\":true"));
  EXPECT_GT(view.ListRevision(), listed);
}

TEST(ServiceView, FiltersByWhatAnInstanceSaysAndNotByWhatReadsLikeIt) {
  ServiceView view("orders", "e");
  view.Put("eu", Id(1), Data("h1", "b"));
  view.Put("eu", Id(2), Data("h2\",\"status\":\"degraded\",", "x\",\"zone\":\"b"));
  auto named = Data("h3");
  for (const auto* key : {"status", "z"}) {
    named.add_attributes()->set_key(key);
    named.mutable_attributes()->rbegin()->set_value("degraded");
  }
  view.Put("eu", Id(3), named);
  Filter zone;
  zone.AddAttribute("zone", "b");
  EXPECT_THAT(view.List(zone), AllOf(HasSubstr("h1"), Not(HasSubstr("h2"))));
  Filter degraded;
  degraded.AddStatus("degraded");
  EXPECT_THAT(view.List(degraded), HasSubstr("\"instances\":[]"));
}

TEST(ServiceView, DoesNotResumeBehindTombstonesThatAreGoneNorInAnotherEpoch) {
  ServiceView view("orders", "e");
  view.Put("eu", Id(1), Data("h"));
  const auto before = view.FromTag("e-1");
  EXPECT_EQ(view.FromTag("f-1"), std::nullopt);
  EXPECT_EQ(view.FromTag("e-2"), std::nullopt);
  view.Remove("eu", Id(1), kNow);
  EXPECT_TRUE(view.Resume(before.value()));
  view.Put("eu", Id(2), Data("h"));
  view.Remove("eu", Id(2), kNow + std::chrono::minutes(11));
  EXPECT_FALSE(view.Resume(before.value()));
}

}  // namespace
}  // namespace zr::halden::agent
