// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/task_thread.h"
#include "halden/service_watcher.h"
#include "snapshot/snapshot_codec.h"
#include "watch/watcher_delivery.h"
#include "zrstl/string.h"
#include "zrstl/thread_safety.h"

namespace zr::halden::details {

/// Keeps the snapshot files of one service in a folder, one for each data centre: hands a new watcher what is in its
/// file, and from the first complete read on writes the file when something has changed, and now and then when nothing
/// has, so that it says until when the list was true.
///
/// Threads: any. What is read is read by the caller; what is written, by a thread of its own, which looks every few
/// seconds. `Flush` waits for it, nothing else does.
/// Ownership: held by who watches, and weakly by its own thread. What is to be written when it goes is written by the
/// thread before that ends, if the process lasts so long.
/// Errors: none is thrown. A file that is not used costs one line of the log, and so does one that cannot be written,
/// however often, until it can; each time is counted in the data centre's status.
class SnapshotKeeper : public std::enable_shared_from_this<SnapshotKeeper> {
 public:
  SnapshotKeeper(const std::string& folder, zr::String service, std::chrono::seconds maxAge);
  ~SnapshotKeeper();

  SnapshotKeeper(const SnapshotKeeper&) = delete;
  SnapshotKeeper& operator=(const SnapshotKeeper&) = delete;

  /// Reads the files of data centres that are about to be connected: the network then has nothing to wait for.
  void ReadAhead(const std::vector<zr::String>& dcNames);
  /// Restores what there is, and keeps the data centre's file from now on. A second time, and without a name, nothing
  /// is done.
  void Add(const std::shared_ptr<ServiceWatcher>& watcher, std::shared_ptr<WatcherDelivery> delivery);
  /// All but these are written for a last time.
  void Retain(const std::vector<std::shared_ptr<ServiceWatcher>>& watchers);
  /// Writes what has changed, and waits for it: true then, false at the deadline.
  bool Flush(std::chrono::milliseconds limit);

 private:
  /// One watcher's. Constant but for what the thread owns.
  struct Kept {
    zr::String dcName;
    std::weak_ptr<ServiceWatcher> watcher;
    std::shared_ptr<WatcherDelivery> delivery;

    // The thread's.
    std::optional<WatcherDelivery::Keepable> written{};  // what the file says
    std::optional<Clock::time_point> retryAt{};          // after a failure
    bool failing = false;                                // and the log has been told
  };
  using KeptPtr = std::shared_ptr<Kept>;

  /// What the thread needs to write, also when the keeper is gone. Constant.
  struct Place {
    std::string folder;
    zr::String service;
    std::chrono::seconds maxAge;

    std::optional<ServiceSnapshot> Read(const zr::String& dcName) const;
    void WriteIfDue(Kept& kept, bool atEnd) const;
    void Write(Kept& kept, const WatcherDelivery::Keepable& now) const;
  };

  static void WriteAll(const Place& place, const std::vector<KeptPtr>& all, bool atEnd);
  void LookAfter(Clock::duration delay);
  void Look();

  const std::shared_ptr<const Place> m_place;
  TaskThread m_thread{"halden-snapshot", TaskThread::Priority::Low};

  zr::Mutex m_mtx;  // no file is touched with it held
  std::unordered_map<zr::String, std::optional<ServiceSnapshot>> m_readAhead ZR_GUARDED_BY(m_mtx);
  std::vector<KeptPtr> m_kept ZR_GUARDED_BY(m_mtx);
  bool m_looking ZR_GUARDED_BY(m_mtx) = false;
};

}  // namespace zr::halden::details
