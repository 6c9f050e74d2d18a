// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <ostream>

#include "halden/data_center_status.h"

namespace zr::halden {

std::string_view ToString(ConnectionState state) {
  switch (state) {
    case ConnectionState::Stopped:
      return "stopped";
    case ConnectionState::Connecting:
      return "connecting";
    case ConnectionState::Connected:
      return "connected";
    case ConnectionState::Suspended:
      return "suspended";
    case ConnectionState::Expired:
      return "expired";
    case ConnectionState::AuthFailed:
      return "authentication failed";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, ConnectionState state) {
  return out << ToString(state);
}

std::string_view ToString(Freshness freshness) {
  switch (freshness) {
    case Freshness::NeverSynchronized:
      return "never synchronised";
    case Freshness::Live:
      return "live";
    case Freshness::Stale:
      return "stale";
    case Freshness::Restored:
      return "restored";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, Freshness freshness) {
  return out << ToString(freshness);
}

DataCenterCounters DataCenterStatus::Counters() const {
  return {connection.sessions, connection.reconnects, connection.expiries,
          watcher.resyncs,     watcher.drifts,        watcher.snapshotErrors,
          watcher.instances,   watcher.held,          watcher.quarantined};
}

}  // namespace zr::halden
