// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "base/backoff.h"
#include "base/shared_parts.h"
#include "base/task_thread.h"
#include "client/epoch.h"
#include "halden/connection_v2.h"
#include "model/access_list.h"
#include "model/connect_string.h"
#include "session/addresses.h"
#include "session/bulk_turns.h"
#include "session/credentials.h"
#include "session/listeners.h"
#include "session/session_end.h"
#include "session/status_board.h"
#include "session/watch_routes.h"
#include "session/watchdog.h"
#include "zrstl/string.h"
#include "zrstl/thread_safety.h"

namespace zr::halden::details {

struct ConnectionOptions {
  std::vector<zr::String> hosts;
  bool renewExpired = true;
  zr::String auth;
  std::chrono::milliseconds sessionTimeout{30000};
  zr::String dcName;
};

/// A connection's inside: the state machine of ConnectionState over epochs, one at a time.
///
/// Threads: what is marked "any thread" posts or locks briefly; everything else belongs to the connection's
/// thread, which is the only one that touches a handle.
/// Ownership: Connection, watchers and publishers share it; handles and timers hold it weakly. A posted stop
/// keeps it alive until the session is closed.
class ConnectionCore final : public std::enable_shared_from_this<ConnectionCore>,
                             private TaskThread::Sockets {
 public:
  explicit ConnectionCore(ConnectionOptions options);
  ~ConnectionCore() override;

  ConnectionCore(const ConnectionCore&) = delete;
  ConnectionCore& operator=(const ConnectionCore&) = delete;

  // Any thread.

  void Start(const clientid_t* session);
  void Stop();
  void ForceExpire();
  ConnectionStatus Status() const { return m_board.Status(); }
  bool AwaitClosed(std::chrono::milliseconds limit) const { return m_board.AwaitClosed(limit); }

  const zr::String& DataCenterName() const { return m_options.dcName; }

  /// Runs `task` on the connection's thread.
  void Post(TaskThread::Task task) { m_thread.Post(std::move(task)); }
  void PostAfter(Clock::duration delay, TaskThread::Task task) { m_thread.PostAfter(delay, std::move(task)); }

  /// What those who work through this connection share among themselves.
  template <typename T>
  std::shared_ptr<T> Shared() {
    return m_shared.Get<T>();
  }
  /// Null when nobody has asked for it, or all have gone.
  template <typename T>
  std::shared_ptr<T> FindShared() {
    return m_shared.Find<T>();
  }

  // The connection's thread.

  /// Told at once when connected already.
  void AddListener(const std::shared_ptr<ConnectionListener>& listener);
  bool Connected() const { return m_state == ConnectionState::Connected; }
  std::int64_t SessionId() const { return m_session.client_id; }
  /// There is a session, or one that a new handle is about to take up.
  bool SessionGoesOn() const { return KnownSession().client_id != 0; }
  /// Empty, or the path that stands before every other; known once connected.
  const zr::String& Chroot() const { return m_target->ensemble.chroot; }
  /// Of the nodes that are created through it; null: open to all. Known once connected.
  const AccessListPtr& NodeAccess() const { return m_target->access; }
  /// Dropped without an answer while there is no epoch.
  void Submit(Request request);
  /// Lets it make requests, in turn with others, when there is room for them and while there is a connection.
  void AskTurn(const std::weak_ptr<BulkReader>& reader) { m_bulk.turns.Ask(reader); }
  /// The shortest round trip lately; zero before anything is known of it.
  Clock::duration Trip() const { return m_bulk.window->Trip(); }
  /// From here on the context is told of events of all watches at `root` and below, whoever set them.
  void AddWatcher(const zr::String& root, const WatchRoutes::ContextPtr& context) {
    m_routes.Add(root, context);
  }
  /// `watches`: about how many it leaves behind in the client library.
  void RemoveWatcher(const zr::String& root, const WatchRoutes::ContextPtr& context, std::size_t watches);

 private:
  /// What to connect to, checked.
  struct Target {
    ConnectString ensemble;
    AccessListPtr access;
  };

  /// Of the next epoch.
  struct Opening {
    bool awaitingAddresses = false;
    std::uint64_t attempt = 0;         // a timer of an earlier one finds another number
    unsigned givenUp = 0;              // tries in a row, for a silent server
    std::optional<clientid_t> resume;  // the session to go on with
    Credentials credentials;           // of the current session too
    Clock::time_point tellAway;        // when the log is to say that no server is reached
  };
  /// Requests that are many.
  struct Bulk {
    std::shared_ptr<SendWindow> window =
        std::make_shared<SendWindow>();  // of the current epoch, or the last one
    BulkTurns turns;
  };

  static Target Validate(const ConnectionOptions& options);
  void Prepare() ZR_REQUIRES(m_startMtx);
  bool StartedOnce();
  PostFunction Poster();
  void PostMember(TaskThread::Task task) { Poster()(Clock::duration::zero(), std::move(task)); }

  Clock::time_point Await(std::vector<pollfd>& sockets) override;
  void Ready(const pollfd& socket) override;

  void DoStart(const std::optional<clientid_t>& session);
  void DoStop();
  void DoForceExpire();
  clientid_t KnownSession() const {
    return m_session.client_id != 0 ? m_session : m_opening.resume.value_or(clientid_t{});
  }

  // connection_opening.cpp
  void BeginAbsence();
  void TellAway();
  void Open();
  bool HasCredential();
  void OnResolved(const zr::String& error);
  void OpenResolved();
  void OpenLater();
  std::shared_ptr<Epoch> OpenHandle(const clientid_t* resume, Epoch::SessionFunction onSession,
                                    const std::shared_ptr<SendWindow>& window);

  void GiveTurns();
  std::shared_ptr<Epoch> EndEpoch();
  void ReplaceHandle();
  void RaiseBarrier();
  void RunWatchdog(const std::weak_ptr<Epoch>& epoch, const std::shared_ptr<Watchdog>& watchdog);
  void Act(Watchdog::Verdict verdict);

  void OnSession(int state);
  void OnEstablished();
  void OnLost();
  std::shared_ptr<Epoch> OnSessionOver(int code, ConnectionState state);

  void EndSession(const clientid_t& session, const std::shared_ptr<Epoch>& epoch);
  void OnAllEnded();

  void SetState(ConnectionState state);
  void SetError(int code, zr::String text);
  void UpdateClosed() { m_board.SetClosed(!m_wanted && !m_epoch && !m_sessionEnd->UnderWay()); }

  // Constant after construction.
  const ConnectionOptions m_options;

  zr::Mutex m_startMtx;
  // Set by the first `Start` under m_startMtx and constant afterwards: what that has posted reads it without.
  std::optional<Target> m_target;

  // Owned by the connection's thread, from the first `Start` on.
  std::optional<Addresses> m_addresses;
  std::shared_ptr<SessionEnd> m_sessionEnd;
  ConnectionState m_state = ConnectionState::Stopped;
  bool m_wanted = false;  // started, and not stopped since
  Opening m_opening;
  std::shared_ptr<Epoch> m_epoch;
  clientid_t m_session{};  // of the current epoch; zero before it is established
  bool m_proven = false;   // its servers cannot be outdated: a quorum has written since it began
  Bulk m_bulk;
  Backoff m_backoff{std::chrono::milliseconds(100), std::chrono::seconds(10)};
  Listeners m_listeners;
  WatchRoutes m_routes;
  std::shared_ptr<ConnectionCore> m_self;  // while ending: a dropped connection ends its session all the same

  // Any thread.
  StatusBoard m_board;
  SharedParts m_shared;
  TaskThread m_thread{"halden-session"};
};

}  // namespace zr::halden::details
