// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/backoff.h"
#include "halden/connection_v2.h"
#include "halden/service_id.h"
#include "layout.h"
#include "session/connection_core.h"
#include "watch/watcher_delivery.h"

namespace zr::halden::details {

/// Reads one service's nodes through a connection, with watches, and keeps what it read true: what it finds
/// goes to a WatcherDelivery.
///
/// The nodes form three levels (the service, its partitions, the instances), each read with a watch; a
/// watch's event reads its node again. At most one read of a node is under way; a change meanwhile reads it
/// once more. A new epoch reads everything, after a sync, so that a server that lags behind does not answer
/// with the past. A read that failed leaves its node dirty; dirty nodes are read again after a reconnect or a
/// back-off, behind a sync. What a read says is older than what is known is not believed the first time;
/// after that sync it is (the ensemble was then set up anew).
/// Removals: an instance goes when a live session says so: its node was deleted, is absent, or is missing
/// from the list of its partition. Never because a read failed.
///
/// Threads: everything on the connection's thread, except construction and `Start`.
/// Ownership: shared by the watcher and, for its time, a posted task; requests, timers and watches hold it
/// weakly.
class ServiceReader final : public ConnectionListener, public std::enable_shared_from_this<ServiceReader> {
 public:
  ServiceReader(std::shared_ptr<ConnectionCore> core, const zr::String& service,
                std::shared_ptr<WatcherDelivery> delivery);

  /// Any thread. `conn` is only named in the watch context.
  void Start(const Connection& conn);
  /// Any thread: no watch event gets in any more.
  void Stop();

  void OnConnected(bool newEpoch) override;
  void OnDisconnected(bool epochOver) override;
  void OnSessionError(int code) override;
  void OnStateChanged() override;

 private:
  /// Where the reading of one node stands.
  ///   idle -> reading -> idle;   reading -> reading again (changed meanwhile);   dirty: failed, to be read
  ///   again
  struct ReadState {
    bool reading = false;
    bool again = false;
    bool dirty = false;
    bool refused = false;  // dirty, and asking again will not help by itself
  };
  struct Instance {
    ReadState read;
    std::uint32_t listing = 0;  // the partition's listing that had it last
  };
  struct Partition {
    ReadState read;
    bool listed = false;  // in this epoch: its child watch is set
    std::uint32_t listing = 0;
    std::int64_t pzxid = 0;  // of the last listing: a lower one is older
    std::unordered_map<ServiceId, Instance, ServiceIdHash> instances;
  };

  void OnWatch(int type, const zr::String& path);

  void Sync();
  void OnSync(const Reply& reply);
  void ReadDirty();

  void ReadService();
  void OnService(Reply& reply);
  void OnServiceListed(const Reply& reply);
  void AwaitService();
  void OnServiceAwaited(const Reply& reply);

  void ReadPartition(std::uint8_t number);
  void OnPartition(std::uint8_t number, Reply& reply);
  void OnPartitionListed(std::uint8_t number, const Reply& reply);
  void OnPartitionAbsent(std::uint8_t number);

  void ReadInstance(const ServiceId& id);
  void SendInstanceReads();
  void OnInstance(const ServiceId& id, Reply& reply);
  void OnInstanceData(const ServiceId& id, const Reply& reply);
  void RemoveInstance(const ServiceId& id);

  bool Begin(ReadState& state);
  bool End(ReadState& state);
  void Clean(ReadState& state);
  void Fail(ReadState& state, int code, const zr::String& path);
  void ScheduleRetry() { ScheduleRetry(m_backoff, m_retryScheduled); }
  void ScheduleRetry(Backoff& backoff, bool& scheduled);
  void FinishIfComplete();
  void ForgetReads();
  void LogOddName(const zr::String& path);
  template <typename OnReply>
  void Submit(Request::Kind kind, zr::String path, bool watch, OnReply onReply) {
    Request request;
    request.kind = kind;
    request.path = std::move(path);
    if (watch) request.watch = m_watch;
    request.reply = [weak = weak_from_this(), onReply](Reply& reply) {
      if (const auto self = weak.lock()) onReply(*self, reply);
    };
    m_core->Submit(std::move(request));
  }

  // Constant after construction.
  const std::shared_ptr<ConnectionCore> m_core;
  const std::shared_ptr<WatcherDelivery> m_delivery;
  const zr::String m_path;

  // Constant after `Start`.
  std::shared_ptr<Connection::WatchContext> m_watch;

  // Owned by the connection's thread.
  bool m_connected = false;
  bool m_readAll = true;    // the whole service is to be read, after the next sync
  bool m_fullRead = false;  // that read is under way
  bool m_syncing = false;
  bool m_trusting = false;    // a second sync has passed: even what looks older is believed
  bool m_syncedOnce = false;  // in this epoch
  bool m_retryScheduled = false;
  ReadState m_service;
  std::int64_t m_servicePzxid = 0;  // of the last listing: a lower one is older
  std::array<Partition, kPartitions> m_partitions;
  std::deque<ServiceId> m_toRead;   // instances whose read waits for its turn
  std::size_t m_instanceReads = 0;  // under way
  std::size_t m_pending = 0;        // nodes being read or waiting for it
  std::size_t m_dirty = 0;          // nodes with `dirty` set
  std::size_t m_refused = 0;        // instances with `refused` set: they hold nothing up
  Backoff m_backoff{std::chrono::milliseconds(100), std::chrono::seconds(10)};
  // Apart from the other: a node that is refused for good must not slow down the rest.
  Backoff m_refusedBackoff{std::chrono::seconds(1), std::chrono::seconds(30)};
  bool m_refusedRetryScheduled = false;
  std::unordered_set<std::string> m_oddNames;  // logged already; bounded
};

}  // namespace zr::halden::details
