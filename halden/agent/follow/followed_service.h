// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "agent/view/service_view.h"
#include "halden/event_queue.h"
#include "halden/global_service_watcher.h"
#include "halden/mass_removal_guard.h"

namespace zr::halden::agent {

/// How services are followed.
struct FollowSettings {
  std::optional<MassRemovalGuard> guard;
  std::string snapshotFolder;  ///< see GlobalServiceWatcher::SetSnapshotFolder; empty: none
};

/// Brings what a watcher tells of one service into its view, on the loop's thread.
///
/// Threads: the loop's. Watchers tell on threads of their own, and what they tell waits in a queue, merged, until the
/// loop takes it.
/// Ownership: held by std::shared_ptr; what is pending in the loop holds it weakly. It shares the connections.
class FollowedService : public std::enable_shared_from_this<FollowedService> {
 public:
  /// `changed` is called on the loop after the view has changed. Throws std::invalid_argument for a name that no
  /// service can have, std::system_error when no descriptor is to be had.
  FollowedService(boost::asio::io_context& loop, const std::string& name, const FollowSettings& settings,
                  std::function<void()> changed);

  /// Once, when it is owned.
  void Start();

  void Connect(const std::shared_ptr<Connection>& conn);
  /// What is known of the data centre stays: another connection to it follows.
  void Disconnect(const std::shared_ptr<Connection>& conn);
  /// The data centre is not followed any more.
  void Forget(const std::shared_ptr<Connection>& conn);

  /// Brings what is only counted, and what is held, up to date.
  void Refresh();

  /// Snapshot files, before the end.
  bool WriteSnapshots(std::chrono::milliseconds limit) const { return m_watcher.WriteSnapshots(limit); }

  const std::shared_ptr<ServiceView>& View() const { return m_view; }

 private:
  /// How far instances that are in the view can be trusted: told in order with them.
  struct Told {
    Freshness freshness = Freshness::NeverSynchronized;
    std::optional<std::chrono::system_clock::time_point> staleSince;
    std::optional<std::chrono::system_clock::time_point> restoredAsOf;
  };

  void Await();
  void Drain();
  void Take(const ServiceEvent& event);
  void RefreshHeld(const std::string& dataCenter, bool holds);

  const std::shared_ptr<ServiceView> m_view;
  const std::function<void()> m_changed;
  const std::shared_ptr<EventQueue> m_queue;
  GlobalServiceWatcher m_watcher;
  boost::asio::posix::stream_descriptor m_readable;
  std::map<std::string, Told, std::less<>> m_told;  // by data centre: those that are followed
  std::set<std::string> m_holding;                  // data centres in which something is held
};

}  // namespace zr::halden::agent
