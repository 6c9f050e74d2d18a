// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "halden/service_watcher.h"
#include "support/recording_observer.h"
#include "support/zookeeper_client.h"

namespace zr::halden::test {

/// What the writers of a test have begun to do, so that a removal can be told from a loss. An instance's start
/// time counts its incarnations. Any thread.
class Ledger {
 public:
  using Key = InstanceKey;

  /// What to write for the instance as it now is.
  ServiceInstanceData Write(const Key& key, const zr::String& host);
  /// The instance's node is about to be deleted, for certain.
  void Delete(const Key& key);
  void DeleteAll(const zr::String& dcName);
  /// The node belongs to a session that may end, and may be created anew: until `Settle` nothing is certain.
  void Doubt(const Key& key);
  /// All that has happened so far has been told.
  void Settle();

  /// Why an observer that was last told `before` must not be told `event`; empty when it may.
  std::string Objection(const Event& event, const ServiceInstanceData& before) const;

 private:
  struct Entry {
    std::int64_t incarnation = 0;
    bool ofSession = false;
    bool doubtful = false;
  };

  mutable std::mutex m_mtx;
  std::map<Key, Entry> m_entries;  // guarded by m_mtx
};

/// An observer that holds each event against the rules and the ledger, and its own view and its watcher's
/// against what a client of its own reads. Keeps no history, so it can run for days. Any thread.
class TruthChecker : public ServiceWatcherObserver {
 public:
  explicit TruthChecker(std::shared_ptr<const Ledger> ledger) : m_ledger(std::move(ledger)) {}

  void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& id,
                       const ServiceInstanceData& data) override {
    Check({EventKind::Added, watcher.DataCenterName(), id, data});
  }
  void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& id) override {
    Check({EventKind::Removed, watcher.DataCenterName(), id, {}});
  }
  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& id,
                          const ServiceInstanceData& data) override {
    Check({EventKind::Modified, watcher.DataCenterName(), id, data});
  }

  /// Waits until the watcher is live and both views are what `fresh` reads, and finds fault with any violation
  /// so far. Nobody writes meanwhile. A node that does not decode may be seen with its last good value or not
  /// at all.
  ::testing::AssertionResult AwaitTruth(const ServiceWatcher& watcher, ZooKeeperClient& fresh) const;

  /// The illegal events so far.
  std::vector<std::string> Violations() const;
  std::uint64_t Events() const;
  /// A new watcher of the data centre tells everything anew.
  void StartOver(const zr::String& dcName);

 private:
  using View = std::map<ServiceId, std::string>;  // serialized instances

  void Check(const Event& event);
  View Announced(const zr::String& dcName) const;

  const std::shared_ptr<const Ledger> m_ledger;
  mutable std::mutex m_mtx;  // guards the three below
  AnnouncedInstances m_announced;
  std::vector<std::string> m_violations;
  std::uint64_t m_events = 0;
};

}  // namespace zr::halden::test
