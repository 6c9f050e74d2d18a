// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What a reader reads when it connects, or after something has failed: behind a sync, and in bulk. All on the connection's
// thread.
#include <algorithm>
#include <utility>

#include "base/chance.h"
#include "model/error_policy.h"
#include "watch/service_reader.h"

namespace zr::halden::details {

namespace {

constexpr std::chrono::milliseconds kAtOnce{1};
// From here on to ask for a list that may be absent costs less than to wait for the list that names it.
constexpr std::chrono::milliseconds kFar{15};

/// All clients of an ensemble come back together when it does. What they have is served meanwhile: so a service that is
/// known is read anew at some moment of a time that grows with its size.
Clock::duration Spread(std::size_t instances) {
  constexpr std::chrono::microseconds each{100};
  constexpr std::chrono::seconds longest{10};
  const auto bound = std::min<Clock::duration>(each * instances, longest);
  return std::chrono::duration_cast<Clock::duration>(bound * Chance());
}

}  // namespace

void ServiceReader::OnConnected(Arrival arrival) {
  if (arrival != Arrival::SameHandle) {
    m_readAll = true;
    m_trust = Trust::Usual;
  }
  m_phase = Phase::Waiting;
  const auto delay = m_readAll ? Spread(m_delivery->KnownBefore()) : Clock::duration::zero();
  m_upToDate = arrival == Arrival::NewSession && delay < kAtOnce;
  // Also after a reconnect: the sync's answer comes behind the events of all that was missed meanwhile.
  Guarded([&] { SyncAfter(delay); });
}

void ServiceReader::SyncAfter(Clock::duration delay) {
  if (delay < kAtOnce) return Sync();
  m_core->PostAfter(delay, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (self && self->m_phase == Phase::Waiting) self->Guarded([&] { self->Sync(); });
  });
}

/// Answers come in order: so what is behind the sync is asked for with it, and believed once the sync was answered well.
void ServiceReader::Sync() {
  if (m_phase == Phase::Away || m_phase == Phase::Syncing) return;
  if (std::exchange(m_upToDate, false) && m_trust != Trust::Doubtful) {
    m_phase = Phase::Following;
  } else {
    const bool barrier = m_trust == Trust::Doubtful;
    m_phase = Phase::Syncing;
    Submit(barrier ? Request::Kind::Barrier : Request::Kind::Sync, m_path, false,
           [barrier](ServiceReader& self, const Reply& reply) { self.OnSync(reply, barrier); });
  }
  if (std::exchange(m_readAll, false)) ReadAll();
  ReadDirty();
  if (!m_toRead.Empty()) m_core->AskTurn(weak_from_this());  // what waited through a lost connection
  FinishIfComplete();
}

/// A sync that failed proves nothing about the answers behind it: to start over drops them.
void ServiceReader::OnSync(const Reply& reply, bool barrier) {
  if (m_phase != Phase::Syncing) return;
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::AwaitSession || action == ErrorAction::Retry) return StartOver();
  m_phase = Phase::Following;
  if (barrier) m_trust = Trust::Proven;
  ReadDirty();  // reads that failed meanwhile: their retry left them to this sync
  FinishIfComplete();
}

/// Of a service that is known, and of one that is far, the lists of partitions are asked for with the one that names them.
void ServiceReader::ReadAll() {
  m_fullRead = true;
  ReadService();
  const bool all = m_delivery->KnownBefore() == 0 && m_core->Trip() > kFar;
  for (std::size_t i = 0; i < kPartitions; ++i) {
    if (all || !m_partitions[i].instances.empty()) ReadPartition(static_cast<std::uint8_t>(i), Haste::Bulk);
  }
}

void ServiceReader::ReadDirty() {
  if (m_ledger.Dirty() == 0) return;
  if (m_service.read.dirty) ReadService();
  for (std::size_t i = 0; i < kPartitions && m_ledger.Dirty() != 0; ++i) {
    Partition& partition = m_partitions[i];
    if (partition.list.read.dirty) ReadPartition(static_cast<std::uint8_t>(i), UsualHaste());
    for (const auto& [id, instance] : partition.instances) {
      if (instance.read.dirty) ReadInstance(id, UsualHaste());
    }
  }
}

bool ServiceReader::SendNext() {
  if (m_phase == Phase::Away || m_phase == Phase::Waiting || m_toRead.Empty()) return false;
  Guarded([this] {
    if (!m_toRead.lists.empty()) {
      const auto number = m_toRead.lists.front();
      m_toRead.lists.pop_front();
      SendPartitionRead(number);
    } else {
      const ServiceId id = m_toRead.instances.front();
      m_toRead.instances.pop_front();
      SendInstanceRead(id);
    }
  });
  return !m_toRead.Empty();
}

}  // namespace zr::halden::details
