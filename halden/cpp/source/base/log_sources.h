// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "logger/logger.h"

/// Log sources of this component's own threads. Never destroyed: those threads may outlive main().
namespace zr::halden::details {

inline const zr::logging::ConstSourcePtr& ConnectionLog() {
  static const auto& source = *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("halden.connection"));
  return source;
}

inline const zr::logging::ConstSourcePtr& WatcherLog() {
  static const auto& source =
      *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("halden.service_watcher"));
  return source;
}

inline const zr::logging::ConstSourcePtr& PublisherLog() {
  static const auto& source = *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("halden.publisher"));
  return source;
}

inline const zr::logging::ConstSourcePtr& SnapshotLog() {
  static const auto& source = *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("halden.snapshot"));
  return source;
}

inline const zr::logging::ConstSourcePtr& ClientLibraryLog() {
  static const auto& source = *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("zookeeper"));
  return source;
}

}  // namespace zr::halden::details
