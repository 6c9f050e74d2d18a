// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/backoff.h"
#include "halden/connection_v2.h"
#include "halden/service_id.h"
#include "model/layout.h"
#include "session/connection_core.h"
#include "watch/audit.h"
#include "watch/read_ledger.h"
#include "watch/watcher_delivery.h"

namespace zr::halden::details {

/// Reads one service's nodes through a connection, with watches, and keeps what it read true: what it finds
/// goes to a WatcherDelivery.
///
/// The nodes form three levels (the service, its partitions, the instances), each read with a watch; a
/// watch's event reads its node again. At most one read of a node is under way; a change meanwhile reads it
/// once more. A new epoch reads everything, after a sync, so that a server that lags behind does not answer
/// with the past. A read that failed leaves its node dirty; dirty nodes are read again after a reconnect or a
/// back-off, behind a sync. What is read to be older than what is known is not believed the first time; behind
/// a barrier it is (the ensemble was then set up anew).
/// Removals: an instance goes when a live session says so: its node was deleted, is absent, or is missing
/// from the list of its partition. Never because a read failed.
/// Live: every list is read, and every instance in them, but for those that may not be read or do not decode.
///
/// Threads: everything on the connection's thread, except construction, `Start` and `Stop`.
/// Ownership: shared by the watcher and, for its time, a posted task; requests, timers and watches hold it
/// weakly. Not to be made with std::make_shared: its memory would stay for as long as one of those.
class ServiceReader final : public ConnectionListener,
                            public BulkReader,
                            public std::enable_shared_from_this<ServiceReader> {
 public:
  ServiceReader(std::shared_ptr<ConnectionCore> core, const zr::String& service,
                std::shared_ptr<WatcherDelivery> delivery);

  /// Any thread. `conn` is only named in the watch context.
  void Start(const Connection& conn);
  /// Any thread: no watch event gets in any more.
  void Stop();
  /// Any thread.
  void SetAudit(const AuditIntervals& intervals);

  void OnConnected(Arrival arrival) override;
  void OnDisconnected(bool epochOver) override;
  void OnSessionError(int code) override;
  void OnStateChanged() override;
  bool SendNext() override;

 private:
  ///   Away -> Waiting                           connected; a known service is read anew only after a while
  ///   Waiting -> Syncing -> Following           what is to be read is asked for behind the sync, and answered behind
  ///                                             it; the sync has failed: -> Waiting
  ///   Waiting -> Following                      the session is new
  ///   Following -> Syncing                      something is to be read again
  ///   any -> Away                               connection lost
  enum class Phase : std::uint8_t { Away, Waiting, Syncing, Following };
  /// Usual -> Doubtful (something read is older than known) -> Proven (a barrier has passed)
  enum class Trust : std::uint8_t { Usual, Doubtful, Proven };

  /// Now: before all that waits. Bulk: in its turn, as the connection has room.
  enum class Haste : std::uint8_t { Now, Bulk };

  struct Instance {
    ReadState read;
    std::uint8_t listing =
        0;  // the partition's listing that had it last; small, for there is one for each instance
  };
  struct List {
    ReadState read;
    bool absent = true;      // as read last
    std::int64_t pzxid = 0;  // of the last listing: a lower one is older
  };
  struct Partition {
    List list;
    bool listed = false;  // in this epoch: its child watch is set
    std::uint8_t listing = 0;
    std::unordered_map<ServiceId, Instance, ServiceIdHash> instances;
  };
  /// What is to be read in its turn.
  struct ReadQueue {
    std::deque<std::uint8_t> lists;  // first: they tell of more to read
    std::deque<ServiceId> instances;
    bool Empty() const { return lists.empty() && instances.empty(); }
  };
  struct Retry {
    Backoff backoff;
    bool scheduled = false;
  };
  /// What the audit looks at next.
  struct AuditCursor {
    std::size_t list = 0;       // the service's own comes behind the partitions
    std::size_t partition = 0;  // whose instances are in `instances`
    std::vector<ServiceId> instances;
    std::uint64_t run = 0;  // a timer of an earlier one finds another number
  };

  void OnWatch(int type, const zr::String& path);

  void Sync();
  void SyncAfter(Clock::duration delay);
  void OnSync(const Reply& reply, bool barrier);
  void ReadAll();
  void ReadDirty();

  void ReadService();
  void OnService(Reply& reply);
  void OnServiceListed(const Reply& reply);
  void LeaveOutAbsent(const std::array<bool, kPartitions>& present);
  void AwaitService();
  void OnServiceAwaited(const Reply& reply);

  void ReadPartition(std::uint8_t number, Haste haste);
  void SendPartitionRead(std::uint8_t number);
  void OnPartition(std::uint8_t number, Reply& reply);
  void OnPartitionListed(std::uint8_t number, const Reply& reply);
  void OnPartitionAbsent(std::uint8_t number);
  void RemoveUnread(Partition& partition, const std::function<bool(const Instance&)>& isGone);

  void ReadInstance(const ServiceId& id, Haste haste);
  void SendInstanceRead(const ServiceId& id);
  void OnInstance(const ServiceId& id, Reply& reply);
  void OnInstanceData(const ServiceId& id, const Reply& reply);
  void RemoveInstance(const ServiceId& id);

  // newest_instance.cpp
  void AskForNewest(std::uint8_t number);
  void OnNewest(std::uint8_t number, const Reply& reply);

  // service_audit.cpp
  void AuditAfter(Clock::duration delay);
  bool RunAudit();
  void AuditList();
  void AuditInstance();
  void OnInstanceAudited(const ServiceId& id, const Reply& reply);
  void TakeListing(List& list, const Reply& reply, const zr::String& path);
  void ReportDrift(const zr::String& path);

  bool IsOlder(const List& list, const Reply& reply);
  void Fail(ReadState& state, int code, const zr::String& path, bool ofInstance = false);
  void ScheduleRetry(Retry& retry);
  /// Connected, nothing is being read, and nothing is to be read again but what was refused.
  bool IsAtRest() const {
    return m_phase == Phase::Following && !m_readAll && m_ledger.Pending() == 0 &&
           m_ledger.Dirty() == m_ledger.Refused();
  }
  /// Of what a list or a failure asks for: a few are read at once.
  Haste UsualHaste() const { return m_fullRead || m_ledger.Pending() > kFew ? Haste::Bulk : Haste::Now; }
  void FinishIfComplete();
  void ForgetReads();
  void StartOver() noexcept;
  void LogOddName(zr::String path, const zr::String& name);
  template <typename OnReply>
  void Submit(Request::Kind kind, zr::String path, bool watch, OnReply onReply) {
    Submit(Request{.kind = kind, .path = std::move(path), .watch = watch}, std::move(onReply));
  }
  template <typename OnReply>
  void Submit(Request request, OnReply onReply) {
    request.reply = [weak = weak_from_this(), generation = m_generation, onReply](Reply& reply) {
      const auto self = weak.lock();
      if (self && self->m_generation == generation) {
        self->Guarded([&] { onReply(*self, reply); });
      }
    };
    m_core->Submit(std::move(request));
  }
  /// What fails for want of memory is done again, from the start.
  template <typename Function>
  void Guarded(const Function& function) {
    try {
      function();
    } catch (...) {
      StartOver();
      throw;
    }
  }

  static constexpr std::size_t kFew = 256;

  // Constant after construction.
  const std::shared_ptr<ConnectionCore> m_core;
  const std::shared_ptr<WatcherDelivery> m_delivery;
  const zr::String m_path;

  // Constant after `Start`.
  std::shared_ptr<Connection::WatchContext> m_watch;

  // Owned by the connection's thread.
  Phase m_phase = Phase::Away;
  Trust m_trust = Trust::Usual;
  bool m_upToDate = false;         // the session was created just now: nothing is to be waited for
  bool m_readAll = true;           // the whole service is to be read, after the next sync
  bool m_fullRead = false;         // that read is under way
  std::uint64_t m_generation = 0;  // answers to requests of an earlier one are dropped
  ReadLedger m_ledger;
  List m_service;
  std::array<Partition, kPartitions> m_partitions;
  ReadQueue m_toRead;
  Retry m_retry{{std::chrono::milliseconds(100), std::chrono::seconds(10)}};
  // Apart from the other: a node that is refused for good must not slow down the rest.
  Retry m_refusedRetry{{std::chrono::seconds(1), std::chrono::seconds(30)}};
  Audit m_audit;
  AuditCursor m_auditCursor;
  std::unordered_set<std::string> m_oddNames;  // logged already; bounded
};

}  // namespace zr::halden::details
