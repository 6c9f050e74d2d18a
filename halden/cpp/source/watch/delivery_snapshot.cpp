// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What a watcher hands to a snapshot file, and what it takes from one. Instances restored are known instances, with the
// versions of their nodes: so the first read is compared with them as any other.
#include <algorithm>
#include <limits>
#include <thread>
#include <utility>

#include "base/log_sources.h"
#include "watch/watcher_delivery.h"

namespace zr::halden::details {

bool WatcherDelivery::Restore(const Snapshotted& service, std::vector<KeptInstance> instances) {
  zr::MutexLock lock(m_mtx);
  if (m_origin.compared || m_status.freshness != Freshness::NeverSynchronized) return false;
  if (m_origin.read && m_origin.read != service.serviceCzxid) return false;  // the first read has got ahead
  m_status.freshness = Freshness::Restored;  // before the instances: the end of the first read looks for it
  m_status.restoredAsOf = service.asOf;
  if (!m_origin.read) m_origin.restored = service.serviceCzxid;
  for (auto& instance : instances) m_table.Restore(std::move(instance));
  StatusChanged();
  Schedule(lock);
  return true;
}

/// Another ensemble, or one that was set up anew: its transaction numbers say nothing about the snapshot's, so that nothing
/// that it holds may pass for older than what was restored, nor for the same. Or a service's node that was made anew in the
/// same ensemble: what the snapshot holds of later is of this one, of which it had not heard.
void WatcherDelivery::SetServiceNode(std::int64_t czxid) {
  zr::MutexLock lock(m_mtx);
  m_origin.read = czxid;
  const auto restored = std::exchange(m_origin.restored, std::nullopt);
  const bool other = restored.value_or(0) != 0 && czxid != 0 && restored != czxid;
  if (!other) return;
  m_table.Disown(*restored < czxid ? czxid : std::numeric_limits<std::int64_t>::max());
  lock.Unlock(m_mtx);
  ZRLOG(ZRLOG_WARNING, SnapshotLog()) << "snapshot is of another ensemble, or of before the service's node "
                                         "was made anew: what is read counts, dc_name="
                                      << m_core->DataCenterName();
}

void WatcherDelivery::ForgetServiceNode() {
  const zr::MutexLock lock(m_mtx);
  m_origin.read.reset();
}

void WatcherDelivery::DropUnlisted(const std::function<bool(const ServiceId&)>& isListed) {
  std::vector<ServiceId> known;
  {
    const zr::MutexLock lock(m_mtx);
    m_origin.compared = true;
    if (m_status.freshness != Freshness::Restored) return;
    known = m_table.List();
  }
  for (const auto& id : known) {
    if (!isListed(id)) Remove(id);
  }
}

std::optional<WatcherDelivery::Keepable> WatcherDelivery::ToKeep() const {
  const zr::MutexLock lock(m_mtx);
  const bool stale = m_status.freshness == Freshness::Stale;
  if (!IsSynchronized() || !m_origin.read || (stale && m_table.Revision() != m_origin.staleRevision))
    return std::nullopt;
  const auto asOf = stale ? m_status.staleSince : std::nullopt;
  return Keepable{{*m_origin.read, asOf.value_or(TimeOfDay())}, m_table.Revision()};
}

std::vector<KeptInstance> WatcherDelivery::CopyInstances() const {
  constexpr std::size_t atOnce = 64;
  const auto ids = ListInstances();
  std::vector<KeptInstance> instances;
  instances.reserve(ids.size());
  for (std::size_t begin = 0; begin < ids.size(); begin += atOnce) {
    if (begin != 0) std::this_thread::yield();  // to who waits for the lock
    const zr::MutexLock lock(m_mtx);
    for (std::size_t i = begin; i < std::min(begin + atOnce, ids.size()); ++i) {
      if (auto kept = m_table.Keep(ids[i])) instances.push_back(std::move(*kept));
    }
  }
  return instances;
}

void WatcherDelivery::CountSnapshotError() {
  const zr::MutexLock lock(m_mtx);
  ++m_status.snapshotErrors;
}

}  // namespace zr::halden::details
