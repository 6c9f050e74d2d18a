// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "backoff.h"
#include "connect_string.h"
#include "epoch.h"
#include "halden/connection_v2.h"
#include "task_thread.h"
#include "zrstl/string.h"

namespace zr::halden::details {

/// What works through a connection. Called on the connection's thread, in the order things happened.
class ConnectionListener {
 public:
  virtual ~ConnectionListener() = default;

  /// Requests can be made. `newEpoch`: the handle is new, so that no watch is set and no request is under
  /// way; else the handle went on, with its watches.
  virtual void OnConnected(bool newEpoch) = 0;
  /// Requests cannot be made for now. `epochOver`: the handle goes away, and with it every watch and every
  /// request; no answer will come. Else requests under way are answered with an error.
  virtual void OnDisconnected(bool epochOver) = 0;
  /// The session is lost and will not be replaced by itself: ZSESSIONEXPIRED or ZAUTHFAILED.
  virtual void OnSessionError(int code) = 0;
  /// The connection's state is another one.
  virtual void OnStateChanged() {}
};

struct ResolvedHosts;

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
class ConnectionCore final : public std::enable_shared_from_this<ConnectionCore>, private EpochEvents {
 public:
  explicit ConnectionCore(ConnectionOptions options);
  ~ConnectionCore() override;

  ConnectionCore(const ConnectionCore&) = delete;
  ConnectionCore& operator=(const ConnectionCore&) = delete;

  // Any thread.

  void Start(const clientid_t* session);
  void Stop();
  void ForceExpire();
  ConnectionStatus Status() const;
  bool AwaitClosed(std::chrono::milliseconds limit) const;

  const zr::String& DataCenterName() const { return m_options.dcName; }

  /// Runs `task` on the connection's thread.
  void Post(TaskThread::Task task) { m_thread.Post(std::move(task)); }
  void PostAfter(TaskThread::Clock::duration delay, TaskThread::Task task) {
    m_thread.PostAfter(delay, std::move(task));
  }
  /// Runs `task` on the thread that calls observers: one for all watchers of this connection, so that a slow
  /// observer holds up neither the session nor another data centre.
  void Deliver(TaskThread::Task task) { m_delivery.Post(std::move(task)); }
  void DeliverAfter(TaskThread::Clock::duration delay, TaskThread::Task task) {
    m_delivery.PostAfter(delay, std::move(task));
  }
  /// A little later, in order among themselves: while everything is being read, a thread that is woken for
  /// each instance costs as much as what it then does.
  void DeliverGathered(TaskThread::Task task) {
    constexpr std::chrono::milliseconds gathering{5};
    DeliverAfter(gathering, std::move(task));
  }

  // The connection's thread.

  /// Told at once when connected already.
  void AddListener(const std::shared_ptr<ConnectionListener>& listener);
  bool Connected() const { return m_state == ConnectionState::Connected; }
  std::int64_t SessionId() const { return m_session.client_id; }
  /// There is a session, or one that a new handle is about to take up.
  bool SessionGoesOn() const { return m_session.client_id != 0 || m_resume.has_value(); }
  /// Empty, or the path that stands before every other; known once connected.
  const zr::String& Chroot() const { return m_ensemble.chroot; }
  /// Dropped without an answer while there is no epoch.
  void Submit(Request request);
  /// At most one owner at a time works on a node: sessions tell publishers of one id apart, but not those that
  /// share one. Who does not get it is told by `released` when it is free.
  enum class ClaimResult : std::uint8_t { Granted, Taken, AboutToBeReleased };
  ClaimResult Claim(const zr::String& path, const std::shared_ptr<const void>& owner,
                    TaskThread::Task released);
  /// The owner has ended and will release it when it has cleaned up.
  void AnnounceRelease(const zr::String& path, const std::shared_ptr<const void>& owner);
  void Release(const zr::String& path, const std::shared_ptr<const void>& owner);

 private:
  struct PathClaim {
    std::weak_ptr<const void> owner;
    bool ending = false;
    std::vector<TaskThread::Task> waiting;
  };

  // From the client library's threads.
  void PostSession(std::uint64_t epoch, int state) override;
  void PostReply(std::uint64_t epoch, void* slot, Reply reply) override;
  void PostWatch(std::uint64_t epoch, void* binding, int type, int state, std::string path) override;

  bool IsCurrent(std::uint64_t epoch) const { return m_epoch && m_epoch->Number() == epoch; }

  bool StartedOnce();
  void Validate();
  clientid_t KnownSession() const {
    return m_session.client_id != 0 ? m_session : m_resume.value_or(clientid_t{});
  }
  void DoStart(const std::optional<clientid_t>& session);
  void DoStop();
  void DoForceExpire();

  void Open();
  void OpenResolved();
  void ResolveHosts();
  void OpenWithoutNamesLater();
  void OnResolved(const ResolvedHosts& resolved);
  std::unique_ptr<Epoch> MakeEpoch();
  void OpenLater();
  bool OpenHandle(Epoch& epoch, const clientid_t* resume);
  void CloseEpoch();
  void ReplaceHandle();
  void ReplaceWhenApart(std::uint64_t epoch);
  void Watchdog(std::uint64_t epoch);
  void LookAfterServers();

  void OnSession(std::uint64_t epoch, int state);
  void OnEstablished();
  void OnLost();
  void OnSessionOver(int code, ConnectionState state);

  void EndSession(const clientid_t& session);
  void TryEndSession();
  void OnEnding(int state);
  void FinishEnding();

  void SetState(ConnectionState state);
  void SetError(int code, zr::String text);
  void UpdateClosed();
  void Tell(const std::function<void(ConnectionListener&)>& what);
  void PostMember(TaskThread::Task task);

  // Constant after construction.
  const ConnectionOptions m_options;

  // Set by the first `Start` under m_startMtx, constant afterwards.
  std::mutex m_startMtx;
  bool m_started = false;
  ConnectString m_ensemble;
  zr::String m_authScheme;
  zr::String m_authCredential;

  // Owned by the connection's thread.
  ConnectionState m_state = ConnectionState::Stopped;
  bool m_wanted = false;  // started, and not stopped since
  std::uint64_t m_nextEpoch = 1;
  std::uint64_t m_attempt = 0;  // a timer of an earlier attempt to open finds another number
  std::unique_ptr<Epoch> m_epoch;
  clientid_t m_session{};                  // of the current epoch; zero before it is established
  std::optional<clientid_t> m_resume;      // what the next epoch resumes
  zr::String m_addresses;                  // what the hosts resolved to last
  bool m_resolving = false;                // in the background, on m_resolver
  bool m_awaitingAddresses = false;        // to open the next epoch
  std::chrono::milliseconds m_timeout{0};  // of the last session, as the server grants it
  unsigned m_roundsAway = 0;               // of the watchdog, without a connection
  unsigned m_roundsUnanswered = 0;         // in a row, with a connection that no server answers on
  Backoff m_backoff{std::chrono::milliseconds(100), std::chrono::seconds(10)};
  std::vector<std::weak_ptr<ConnectionListener>> m_listeners;
  std::unordered_map<zr::String, PathClaim> m_claims;
  // A session being ended on the server, after its own handle is closed.
  std::unique_ptr<Epoch> m_ending;
  clientid_t m_endingSession{};
  int m_endingTries = 0;
  std::shared_ptr<ConnectionCore> m_self;  // while ending: a dropped connection ends its session all the same

  // Guarded by m_statusMtx.
  mutable std::mutex m_statusMtx;
  mutable std::condition_variable m_closedChanged;
  ConnectionStatus m_status;
  bool m_closed = true;            // no handle is open, nor about to be
  std::uint64_t m_stopsAsked = 0;  // stops that have not been carried out yet

  TaskThread m_thread{"halden-session"};
  TaskThread m_delivery{"halden-events"};
  TaskThread m_resolver{"halden-resolve"};  // a resolver can block for long, just when the network is away
};

}  // namespace zr::halden::details
