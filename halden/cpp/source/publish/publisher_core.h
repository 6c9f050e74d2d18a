// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/backoff.h"
#include "halden/service_id.h"
#include "halden/service_publisher.h"
#include "publish/path_claims.h"
#include "session/connection_core.h"

namespace zr::halden::details {

/// Makes one node be as wished: holding certain bytes, or absent. One exchange with ZooKeeper at a time; each
/// ends in `Step`, which compares the wish with what is known and begins the next.
///
///   create -> done, then watched
///          -> node exists: inspect it; ours: write it; another session's: delete it, create;
///             that session's again: yield
///          -> parent absent: create the parents, create
///   write  -> done, then watched;  node absent: create
///   watch event: look again; deleted or taken over by others: create after a back-off
///   yield  -> watch the other one's node; gone: create
///   remove -> inspect; ours: delete
///
/// Threads: `Publish`, `Remove`, `Status` and the waits from any thread; the rest on the connection's.
/// Ownership: shared by the publisher and by requests under way; after the publisher's end it owns itself
/// until the node or the epoch is gone, so that a removal survives its publisher.
class PublisherCore final : public ConnectionListener, public std::enable_shared_from_this<PublisherCore> {
 public:
  PublisherCore(std::shared_ptr<ConnectionCore> core, const zr::String& service, const ServiceId& id);

  void Start(const Connection& conn);
  void Publish(std::string bytes);
  void Remove();
  void Stop();

  PublisherStatus Status() const;
  bool AwaitPublished(std::chrono::milliseconds limit) const;
  bool AwaitAbsent(std::chrono::milliseconds limit) const;
  const ServiceId& Id() const { return m_id; }

  void OnConnected(bool newEpoch) override;
  void OnDisconnected(bool epochOver) override;
  void OnSessionError(int code) override;

 private:
  using OnReply = void (PublisherCore::*)(Reply&);

  void Wish(std::optional<std::string> bytes);
  void Step();
  void Create();
  void OnCreated(Reply& reply);
  void CreateParents();
  void Write();
  void OnWritten(Reply& reply);
  void Inspect();
  void OnInspected(Reply& reply);
  bool HasClaim();
  void ReleaseClaim();
  void OnForeign(const Reply& reply);
  void Yield(const zr::String& rival);
  void AwaitRivalsEnd();
  void OnRivalLookedAt(Reply& reply);
  void Delete(int version);
  void OnDeleted(Reply& reply);
  void Watch();
  void OnWatched(Reply& reply);
  void OnEvent(int type);
  void LookAgain(const char* why);
  void Settle();
  void Retry(int code);
  void StepLater();
  void StepNow();
  void SetState(PublishState state);
  void Send(Request request, OnReply onReply);

  // Constant after construction.
  const std::shared_ptr<ConnectionCore> m_core;
  const std::shared_ptr<PathClaims> m_claims;
  const ServiceId m_id;
  const zr::String m_servicePath;
  const zr::String m_path;

  // Constant after `Start`.
  std::shared_ptr<Connection::WatchContext> m_watch;

  // Owned by the connection's thread.
  std::optional<std::string> m_wish;  // null: absent
  std::uint64_t m_wishNumber = 0;
  std::uint64_t m_written = 0;  // the wish that the node holds
  bool m_busy = false;          // an exchange is under way
  bool m_mayExist = false;      // a node of ours may be there
  bool m_ours = false;          // it is, and this session owns it
  bool m_watched = false;
  bool m_awaitingClaim = false;
  bool m_established = false;     // it stood, confirmed, since the last connect
  bool m_yielded = false;         // another publisher of the instance is alive
  bool m_parentsCreated = false;  // just now: if that does not help, not again without a back-off
  bool m_retryScheduled = false;
  std::uint64_t m_retry = 0;             // a timer of an earlier retry finds another number
  std::int32_t m_version = 0;            // of the node after our last write
  std::vector<std::int64_t> m_sessions;  // that may own a node of ours
  Clock::time_point m_createdAt{};
  std::int64_t m_replacedOwner = 0;       // the session whose node was replaced by one that comes second
  std::shared_ptr<PublisherCore> m_self;  // from the publisher's end until the node is gone
  Backoff m_backoff{std::chrono::milliseconds(50), std::chrono::seconds(10)};

  // Guarded by m_mtx.
  mutable std::mutex m_mtx;
  mutable std::condition_variable m_changed;
  PublisherStatus m_status;
  std::uint64_t m_wished = 0;   // number of the last wish
  std::uint64_t m_settled = 0;  // number of the last wish that is confirmed
};

}  // namespace zr::halden::details
