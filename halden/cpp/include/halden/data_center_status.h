// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string_view>

#include "halden/connection_status.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// How far what a watcher knows can be trusted. Live means: connected, every list of instances is known, and so
/// is each instance in them, but for single ones that may not be read (the error handler hears of these) or do
/// not decode (`quarantined`).
///
///   NeverSynchronized -> Restored what an earlier process knew was read from a file (SetSnapshotFolder)
///   NeverSynchronized, Restored -> Live   the first complete read
///   Live              -> Stale    connection lost, session lost, connection stopped; a list could not be read
///                                 anew, may not be read any more for example, or an instance for a reason that
///                                 will pass
///   Stale             -> Live     everything read or confirmed again
enum class Freshness : std::uint8_t { NeverSynchronized, Live, Stale, Restored };

/// In lower case, for output: "never synchronised", "live", "stale", "restored".
ZR_EXPORT std::string_view ToString(Freshness freshness);
ZR_EXPORT std::ostream& operator<<(std::ostream& out, Freshness freshness);

struct ServiceWatcherStatus {
  Freshness freshness = Freshness::NeverSynchronized;
  std::optional<std::chrono::system_clock::time_point> staleSince;  ///< set while Stale
  std::optional<std::chrono::system_clock::time_point>
      restoredAsOf;           ///< set while Restored: it was true then
  std::size_t instances = 0;  ///< known now
  std::size_t held = 0;  ///< of them, those whose removal the guard holds back, or has not decided on yet
  std::size_t quarantined = 0;  ///< nodes whose payload does not decode
  std::uint64_t resyncs = 0;    ///< complete reads of everything, the first one included
  std::uint64_t drifts = 0;     ///< changes whose event was lost, found by the audit (see AuditIntervals)
  std::uint64_t snapshotErrors = 0;  ///< times that a snapshot file could not be written
  int lastError = 0;                 ///< last ZooKeeper error told to the error handler; 0 for none
};

/// What is worth a graph, as numbers. The first six only grow.
struct DataCenterCounters {
  std::uint64_t sessions = 0;        ///< sessions established
  std::uint64_t reconnects = 0;      ///< times that a session went on after a lost connection
  std::uint64_t expiries = 0;        ///< sessions lost to expiry, forced ones included
  std::uint64_t resyncs = 0;         ///< complete reads of everything, the first one included
  std::uint64_t drifts = 0;          ///< changes whose event was lost, found by the audit
  std::uint64_t snapshotErrors = 0;  ///< times that a snapshot file could not be written
  std::size_t instances = 0;         ///< known now, those held included
  std::size_t held = 0;
  std::size_t quarantined = 0;
};

/// One data centre as its connection and watcher see it.
struct ZR_EXPORT DataCenterStatus {
  zr::String name;
  ConnectionStatus connection;
  ServiceWatcherStatus watcher;

  DataCenterCounters Counters() const;
};

/// Is told when a data centre's state has changed: its connection's, its freshness, or whether removals are
/// held; and once what they are when it is set. States that passed meanwhile are skipped: what it is given is
/// the newest. Runs on the thread that delivers the watcher's events; what it throws is logged.
using DataCenterStatusHandler = std::function<void(const DataCenterStatus&)>;

}  // namespace zr::halden
