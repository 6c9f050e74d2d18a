// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <fstream>
#include <memory>
#include <set>
#include <vector>

#include "halden/event_queue.h"
#include "halden/global_service_watcher.h"
#include "support/await.h"
#include "support/capturing_log.h"
#include "support/ensemble_test.h"

namespace zr::halden::test {
namespace {

using ::testing::UnorderedElementsAre;
using Kind = ServiceEvent::Kind;
using Told = std::set<std::pair<Kind, ServiceId>>;

constexpr const char* kDc = "eu-west";

class SnapshotTest : public EnsembleTest {
 protected:
  /// One process after another, as far as files can tell.
  struct Process {
    Process(const std::string& config, const std::string& folder)
        : watcher(kService, LibraryManaged{config}) {
      watcher.SetSnapshotFolder(folder);
      watcher.RegisterShared(events);
      watcher.StartManagedConnections();
    }
    /// Up to the next event of that kind, or the state that is wanted; it comes last, and is not in the result.
    Told Until(Kind kind, Freshness freshness = Freshness::Live) {
      Told told;
      while (const auto event = events->PopFor(kLimit)) {
        if (event->IsInstance()) {
          EXPECT_TRUE(told.emplace(event->kind, event->id).second) << "told twice";
        } else if (event->kind == kind && event->status.watcher.freshness == freshness) {
          return told;
        }
      }
      ADD_FAILURE() << "no such event";
      return told;
    }
    DataCenterStatus Status() const { return watcher.Status().at(0); }

    std::shared_ptr<EventQueue> events = std::make_shared<EventQueue>();
    GlobalServiceWatcher watcher;
  };

  const TemporaryFolder m_place;
  const std::string m_folder = m_place.Path() / "deeper" / "snapshots";
};

TEST_F(SnapshotTest, WhoStartsInAnOutageKnowsWhatWasKnownAndThenHearsOnlyWhatIsDifferent) {
  const auto config = WriteConfig({kDc});
  const ServiceId stays = Publish(kDc, "stays");
  const ServiceId goes = Publish(kDc, "goes");
  const ServiceId changes = Publish(kDc, "changes");
  {
    Process before(config, m_folder);
    ASSERT_TRUE(before.watcher.AwaitSynchronized(kLimit));
    ASSERT_TRUE(before.watcher.Close(kLimit));
  }
  Client(kDc).Unpublish(kService, goes);
  Client(kDc).Publish(kService, changes, MakeInstance("changed"));
  const ServiceId comes = Publish(kDc, "comes");
  Server(kDc).Kill();

  Process process(config, m_folder);
  EXPECT_THAT(process.watcher.ListInstances(), UnorderedElementsAre(stays, goes, changes));
  EXPECT_FALSE(process.watcher.AwaitSynchronized(std::chrono::milliseconds(1)));
  EXPECT_EQ(process.Status().watcher.freshness, Freshness::Restored);
  EXPECT_LT(std::chrono::system_clock::now() - process.Status().watcher.restoredAsOf.value(),
            std::chrono::minutes(1));
  EXPECT_EQ(process.Until(Kind::State, Freshness::Restored), Told()) << "the state comes first";
  Told added;
  while (added.size() < 3) {
    const auto event = process.events->PopFor(kLimit);
    ASSERT_TRUE(event);
    if (event->IsInstance()) added.emplace(event->kind, event->id);
  }
  EXPECT_EQ(added, (Told{{Kind::Added, stays}, {Kind::Added, goes}, {Kind::Added, changes}}));
  Server(kDc).Start();
  EXPECT_EQ(process.Until(Kind::Synchronized),
            (Told{{Kind::Removed, goes}, {Kind::Modified, changes}, {Kind::Added, comes}}));
  EXPECT_FALSE(process.Status().watcher.restoredAsOf);
}

TEST_F(SnapshotTest, AnotherEnsemblesSnapshotGivesWayToWhatIsReadAndNothingIsLost) {
  const CapturingLog log;
  const auto config = WriteConfig({kDc});
  const ServiceId both = Publish(kDc, "both");
  const ServiceId only = Publish(kDc, "only");
  {
    Process before(config, m_folder);
    ASSERT_TRUE(before.watcher.AwaitSynchronized(kLimit));
  }  // not closed: written all the same
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(m_folder + "/orders@eu-west.snapshot"); }));
  Server(kDc).Wipe();

  Process process(config, m_folder);
  EXPECT_EQ(process.Status().watcher.freshness, Freshness::Restored);
  ASSERT_TRUE(Eventually([&] { return process.events->Size() >= 3; }));
  for (const auto& event : process.events->Drain()) EXPECT_NE(event.kind, Kind::Removed);
  Server(kDc).Start();
  const auto client = MakeClient(kDc);
  client->Create("/somewhere/else");
  const std::string bytes = EncodeInstance(MakeInstance("both"));
  client->PublishRaw(kService, both, bytes);
  const ServiceId created = MakeServiceId();
  client->PublishRaw(kService, created, bytes);
  ASSERT_TRUE(Eventually([&] {
    const auto ids = process.watcher.ListInstances();
    return std::set(ids.begin(), ids.end()) == std::set{both, created};
  })) << "not "
      << only;
  ASSERT_TRUE(process.watcher.Close(kLimit));
  Server(kDc).Kill();
  Process after(config, m_folder);
  EXPECT_THAT(after.watcher.ListInstances(), UnorderedElementsAre(both, created))
      << "the file is the new ensemble's";
}

TEST_F(SnapshotTest, AFolderThatCannotBeWrittenCostsOneLineAndIsCounted) {
  const CapturingLog log;
  Publish(kDc, "host");
  std::ofstream(m_place.Path() / "deeper") << "a file";
  Process process(WriteConfig({kDc}), m_folder);
  ASSERT_TRUE(process.watcher.AwaitSynchronized(kLimit));
  EXPECT_TRUE(process.watcher.Close(kLimit)) << "it is closed as far as it can be";
  EXPECT_TRUE(process.watcher.Close(kLimit));
  EXPECT_EQ(log.Count("halden.snapshot", "snapshot not used: open: Not a directory"), 1);
  EXPECT_EQ(process.Status().Counters().snapshotErrors, 2U);
  EXPECT_EQ(
      log.Count("halden.snapshot", "snapshot not written: open folder: Not a directory, dc_name=eu-west"), 1);
}

}  // namespace
}  // namespace zr::halden::test
