// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "halden/service_id.h"
#include "halden/service_publisher.h"
#include "model/access_list.h"
#include "publish/known_node.h"
#include "publish/path_claims.h"
#include "publish/publication_board.h"
#include "publish/publisher_phase.h"
#include "publish/retry_pause.h"
#include "publish/rivalry.h"
#include "session/connection_core.h"

namespace zr::halden::details {

/// Makes one node be as wished: holding certain bytes, or absent. One exchange with ZooKeeper at a time, see
/// PublisherPhase; each ends in `Step`, which compares the wish with what is known and begins the next.
///
///   known      wished                      not wished
///   Absent     create                      done; look, if a node of an earlier session may be there
///   Unknown    look                        look
///   Held       look                        look
///   Confirmed  as wished: done; else write delete
///   Foreign    mark and delete, or yield   of an earlier session of ours: mark and delete; else done
///
/// Threads: `Publish`, `Remove`, `Stop`, `Status` and the waits from any thread; the rest on the connection's.
/// Ownership: shared by the publisher and by requests under way; after the publisher's end it owns itself
/// until the node or the session is gone, so that a removal survives its publisher.
class PublisherCore final : public ConnectionListener, public std::enable_shared_from_this<PublisherCore> {
 public:
  /// `access`: null for what the connection says.
  PublisherCore(std::shared_ptr<ConnectionCore> core, const zr::String& service, const ServiceId& id,
                AccessListPtr access);

  void Start(const Connection& conn);
  void Publish(std::string bytes);
  void Remove();
  void Stop();

  PublisherStatus Status() const { return m_board.Status(); }
  bool AwaitPublished(std::chrono::milliseconds limit) const { return m_board.AwaitPublished(limit); }
  bool AwaitAbsent(std::chrono::milliseconds limit) const { return m_board.AwaitAbsent(limit); }
  const ServiceId& Id() const { return m_id; }

  void OnConnected(Arrival arrival) override;
  void OnDisconnected(bool epochOver) override;
  void OnSessionError(int code) override { m_board.SetError(code); }

 private:
  void Wish(std::optional<std::string> bytes);
  void TakeWish(std::optional<std::string> bytes, std::uint64_t number);
  void OnEvent();

  // What to do next.
  void Wake();
  void Step();
  void Settle();
  void LetGo();
  void Fail(int code);
  void MendLater(const char* loss);
  void Pause(Clock::duration delay);
  void GiveUpExchange();
  void SetPhase(PublisherPhase phase);

  // Exchanges, and their answers.
  void Send(PublisherPhase phase, Request request, ReplyFunction onReply);
  void Look();
  void LookBehind();
  void OnLookedBehind(Reply& reply, std::uint64_t number);
  void OnLooked(Reply& reply);
  void Create();
  void OnCreated(const Reply& reply);
  void CreateWithParents();
  void OnCreatedWithParents(const Reply& reply, int parentsError);
  void Hold();
  const AccessListPtr& Access() const { return m_access ? m_access : m_core->NodeAccess(); }
  std::vector<Request> ParentCreations() const;
  Request Creation();
  bool MayNotTell(int code);
  void Write();
  void OnWritten(const Reply& reply);
  void Mark();
  void OnMarked(const Reply& reply);
  void Delete();
  void OnDeleted(const Reply& reply);

  // Others that publish the instance.
  bool HasClaim();
  void ReleaseClaim();
  void OnForeign();
  void SetConflict(const zr::String& rival);

  /// A look that was asked for with the write before it, whose answer decides whether it counts.
  struct EarlyLook {
    std::uint64_t number = 0;  // of the last one
    bool underWay = false;
    bool awaited = false;  // the write was done: it is the look of the phase Looking
  };

  // Constant after construction.
  const std::shared_ptr<ConnectionCore> m_core;
  const std::shared_ptr<PathClaims> m_claims;
  const ServiceId m_id;
  const zr::String m_servicePath;
  const zr::String m_path;
  const AccessListPtr m_access;

  // Constant after `Start`.
  std::shared_ptr<Connection::WatchContext> m_watch;

  // Owned by the connection's thread.
  std::optional<std::string> m_wish;  // null: absent
  std::uint64_t m_wishNumber = 0;
  PublisherPhase m_phase = PublisherPhase::Absent;
  KnownNode m_node;
  EarlyLook m_early;
  bool m_mayTell =
      true;  // the partition of the newest instance; false once that was refused, until the next session
  Rivalry m_rivalry;
  RetryPause m_pause;
  std::shared_ptr<PublisherCore> m_self;  // from the publisher's end until the node is gone

  // Any thread.
  PublicationBoard m_board;
};

}  // namespace zr::halden::details
