// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "base/clock.h"
#include "halden/service_watcher.h"

namespace zr::halden::details {

/// When a watcher goes over which of the things that it knows, since an event can be lost: each list and each
/// instance once in its interval, evenly spread, with jitter. Decides only. Owned by one thread.
class Audit {
 public:
  struct Due {
    std::size_t lists = 0;
    std::size_t instances = 0;
  };

  void Set(const AuditIntervals& intervals);
  /// How many to look at now, of so many. What could not be asked for in time is made up for, a few in one call.
  Due Take(Clock::time_point now, std::size_t lists, std::size_t instances);
  /// How long until it is to be asked again.
  Clock::duration Wait(Clock::time_point now) const;

 private:
  static std::size_t TakeDue(Clock::time_point& next, Clock::time_point now,
                             std::chrono::milliseconds interval, std::size_t count, std::size_t most);
  static Clock::time_point Next(Clock::time_point last, std::chrono::milliseconds interval,
                                std::size_t count);

  AuditIntervals m_intervals;
  Clock::time_point m_list;  // when the next list is due
  Clock::time_point m_instance;
};

}  // namespace zr::halden::details
