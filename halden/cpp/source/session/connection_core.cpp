// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/connection_core.h"

#include <algorithm>
#include <limits>
#include <ostream>
#include <system_error>
#include <utility>

#include "base/log_sources.h"
#include "model/error_policy.h"

namespace zr::halden::details {

namespace {

bool IsLegal(ConnectionState from, ConnectionState to) {
  using S = ConnectionState;
  switch (from) {
    case S::Stopped:
      return to == S::Connecting;
    case S::Connecting:
      return to != S::Suspended;
    case S::Connected:
      return to != S::Connected;
    case S::Suspended:
      return to != S::Suspended;
    case S::Expired:
    case S::AuthFailed:
      return to == S::Connecting || to == S::Stopped;
  }
  return false;
}

struct Hex {
  std::int64_t value;
};

std::ostream& operator<<(std::ostream& out, Hex hex) {
  return out << "0x" << std::hex << static_cast<std::uint64_t>(hex.value) << std::dec;
}

}  // namespace

ConnectionCore::ConnectionCore(ConnectionOptions options) : m_options(std::move(options)) {}

ConnectionCore::~ConnectionCore() = default;

// Any thread.

void ConnectionCore::Start(const clientid_t* session) {
  const auto resume = session != nullptr ? std::optional(*session) : std::nullopt;
  const zr::MutexLock lock(m_startMtx);
  const bool first = !m_target;
  if (first) Prepare();
  try {
    m_thread.Post([weak = weak_from_this(), resume] {
      if (const auto self = weak.lock()) self->DoStart(resume);
    });
  } catch (const std::system_error& e) {  // no thread to be had
    if (first) m_target.reset();
    throw ZooError(ZSYSTEMERROR, e.what());
  }
}

ConnectionCore::Target ConnectionCore::Validate(const ConnectionOptions& options) {
  Target target;
  for (const auto& text : options.hosts) {
    auto parsed = ParseConnectString(text);
    if (!parsed.error.empty()) {
      throw ZooError(ZBADARGUMENTS, "connect string \"" + WithoutOptions(text) + "\", character " +
                                        std::to_string(parsed.offset + 1) + ": " + parsed.error);
    }
    AddTo(target.ensemble, std::move(parsed.value));
  }
  if (target.ensemble.hosts.empty()) throw ZooError(ZBADARGUMENTS, "no host is given");
  const auto timeout = options.sessionTimeout.count();
  if (timeout <= 0 || timeout > std::numeric_limits<int>::max()) {
    throw ZooError(ZBADARGUMENTS, "session timeout out of range: " + std::to_string(timeout) + " ms");
  }
  if (!options.auth.empty() && SplitCredential(options.auth).scheme.empty()) {  // the text itself is secret
    throw ZooError(ZBADARGUMENTS, "authentication is not of the form scheme:credential");
  }
  if (const auto& acl = target.ensemble.acl; !acl.empty()) {
    target.access = std::make_shared<const AccessList>(ParseAccessList(acl).value);
  }
  return target;
}

/// Before the connection's thread begins.
void ConnectionCore::Prepare() {
  m_target = Validate(m_options);
  m_addresses.emplace(m_target->ensemble.hosts, Poster());
  m_opening.credentials = Credentials(SplitCredential(m_options.auth), m_target->ensemble.authFile);
  // All of these are called with the connection alive.
  m_sessionEnd = std::make_shared<SessionEnd>(
      Poster(),
      [this](const clientid_t& session, Epoch::SessionFunction onSession) {
        return OpenHandle(&session, std::move(onSession), std::make_shared<SendWindow>());
      },
      [this] {
        ZRLOG(ZRLOG_WARNING, ConnectionLog())
            << "session not ended on the server, it ends after its timeout, dc_name=" << m_options.dcName;
      },
      [this] { OnAllEnded(); });
  m_thread.Serve(std::shared_ptr<TaskThread::Sockets>(shared_from_this(), this));
}

void ConnectionCore::Stop() {
  if (!StartedOnce()) return;
  m_board.AskStop();
  m_thread.Post([self = shared_from_this()] { self->DoStop(); });
}

void ConnectionCore::ForceExpire() {
  if (!StartedOnce()) return;
  PostMember([this] { DoForceExpire(); });
}

/// Before the first start there is nothing to end, and no thread to do it.
bool ConnectionCore::StartedOnce() {
  const zr::MutexLock lock(m_startMtx);
  return m_target.has_value();
}

PostFunction ConnectionCore::Poster() {
  return [weak = weak_from_this()](Clock::duration delay, TaskThread::Task task) {
    const auto alive = weak.lock();
    if (!alive) return;
    alive->m_thread.PostAfter(delay, [weak, task = std::move(task)] {
      if (const auto self = weak.lock()) task();
    });
  };
}

// The connection's thread.

Clock::time_point ConnectionCore::Await(std::vector<pollfd>& sockets) {
  GiveTurns();
  auto end = m_sessionEnd->Await(sockets);
  const auto epoch = m_epoch;
  if (epoch) end = std::min(end, epoch->Await(sockets));
  // In there one may have ended and another begun.
  return epoch == m_epoch ? end : Clock::now();
}

void ConnectionCore::Ready(const pollfd& socket) {
  const auto epoch = m_epoch;
  if (epoch) epoch->Ready(socket);
  m_sessionEnd->Ready(socket);
}

/// Comes just before all requests are sent at once: the urgent ones, made till now, are in front.
void ConnectionCore::GiveTurns() {
  if (!Connected()) return;
  for (bool room = m_bulk.window->HasRoomForSome(); room && !m_bulk.turns.Empty();
       room = m_bulk.window->HasRoom()) {
    TaskThread::RunGuarded([this] { m_bulk.turns.Serve(); });
  }
  if (!m_bulk.turns.Empty()) m_bulk.window->OnUsedUp();
}

void ConnectionCore::AddListener(const std::shared_ptr<ConnectionListener>& listener) {
  m_listeners.Add(listener);
  if (Connected()) listener->OnConnected(Arrival::NewHandle);
  listener->OnStateChanged();  // it may have been asked before it heard
}

void ConnectionCore::Submit(Request request) {
  if (m_epoch) m_epoch->Submit(std::move(request));
}

/// The library cannot be made to forget a watch, but with its handle. A new one costs a full read of what is
/// still wanted: so it is for when that is the smaller part.
void ConnectionCore::RemoveWatcher(const zr::String& root, const WatchRoutes::ContextPtr& context,
                                   std::size_t watches) {
  constexpr std::size_t tooMany = 4096;
  if (!m_routes.Remove(root, context) || !m_epoch) return;
  m_routes.unused += watches;
  if (!Connected() || m_routes.unused < std::max(tooMany, m_epoch->Watches().Count() / 2)) return;
  ZRLOG(ZRLOG_INFO, ConnectionLog()) << "most watches are of watchers that are gone, trying anew, dc_name="
                                     << m_options.dcName;
  ReplaceHandle();
}

void ConnectionCore::DoStart(const std::optional<clientid_t>& session) {
  if (m_wanted) return;
  m_wanted = true;
  m_opening.resume = session;
  m_opening.credentials.Forget();
  m_backoff.Reset();
  UpdateClosed();
  Open();
}

void ConnectionCore::DoStop() {
  m_wanted = false;
  m_opening.awaitingAddresses = false;
  const clientid_t session = KnownSession();
  m_opening.resume.reset();
  const auto epoch = EndEpoch();
  if (m_state != ConnectionState::Stopped) SetState(ConnectionState::Stopped);
  EndSession(session, epoch);
  m_board.ConfirmStop();
}

void ConnectionCore::DoForceExpire() {
  const clientid_t session = KnownSession();
  if (session.client_id == 0) {
    ZRLOG(ZRLOG_INFO, ConnectionLog()) << "no session to expire, dc_name=" << m_options.dcName;
    return;
  }
  ZRLOG(ZRLOG_INFO, ConnectionLog()) << "expiring the session, session_id=" << Hex{session.client_id}
                                     << ", dc_name=" << m_options.dcName;
  EndSession(session, OnSessionOver(ZSESSIONEXPIRED, ConnectionState::Expired));
}

/// The epoch that was the current one, still to be closed. Listeners hear at once: from here on nothing they
/// asked for will be answered.
std::shared_ptr<Epoch> ConnectionCore::EndEpoch() {
  auto epoch = std::exchange(m_epoch, nullptr);
  m_session = {};
  m_routes.unused = 0;
  m_proven = false;
  ++m_opening.attempt;
  m_listeners.Tell([](ConnectionListener& listener) { listener.OnDisconnected(true); });
  return epoch;
}

/// A new epoch that goes on with the session, if there is one.
void ConnectionCore::ReplaceHandle() {
  if (m_session.client_id != 0) m_opening.resume = m_session;
  EndEpoch()->Abandon();
  Open();
}

void ConnectionCore::RunWatchdog(const std::weak_ptr<Epoch>& epoch,
                                 const std::shared_ptr<Watchdog>& watchdog) {
  Poster()(Watchdog::kPeriod, [this, epoch, watchdog] {
    const auto current = epoch.lock();
    if (!current || current != m_epoch) return;
    if (Connected())
      m_backoff.Reset();  // not at once: a session can be refused right after it is established
    TellAway();
    Act(watchdog->Look(
        {m_state, current->Unanswered(), m_opening.givenUp, current->Unheard(), current->Timeout(), Trip()}));
    if (current != m_epoch) return;
    // The library compares lists of servers loosely, and drops what is under way: a new handle takes the new ones.
    if (!Connected() && current->Addresses() != m_addresses->Text()) return ReplaceHandle();
    // A session that has not begun begins with what the file holds then.
    if (m_state == ConnectionState::Connecting && !m_opening.resume && m_opening.credentials.Outdated())
      return ReplaceHandle();
    // While it waits for answers the library does not ping: something small is asked, or the session would expire.
    if (Connected() && current->Unsaid() > current->Timeout() / 3)
      current->Submit({.kind = Request::Kind::Exists, .path = "/", .outsideChroot = true});
    RunWatchdog(epoch, watchdog);
  });
}

void ConnectionCore::Act(Watchdog::Verdict verdict) {
  using V = Watchdog::Verdict;
  const auto replace = [this](const char* why) {
    ZRLOG(ZRLOG_INFO, ConnectionLog()) << why << ", trying anew, dc_name=" << m_options.dcName;
    ReplaceHandle();
  };
  switch (verdict) {
    case V::Fine:
    case V::Away:
      return;
    case V::GiveUpServer:
      ++m_opening.givenUp;
      ZRLOG(ZRLOG_INFO, ConnectionLog())
          << "a server does not answer, trying anew, dc_name=" << m_options.dcName;
      m_epoch->GiveUpServer();
      [[fallthrough]];
    case V::ResolveNames:
      if (m_addresses->AreNames())
        m_addresses->Resolve([this](const zr::String& error) { OnResolved(error); });
      return;
    case V::ReplaceRefused:
      return replace("no server has taken the session back within its timeout");
    case V::ReplaceSilent:
      ZRLOG(ZRLOG_WARNING, ConnectionLog())
          << "a server leaves requests unanswered, trying anew, dc_name=" << m_options.dcName;
      return ReplaceHandle();
  }
}

void ConnectionCore::OnSession(int state) {
  if (state == ZOO_CONNECTED_STATE) {
    OnEstablished();
  } else if (state == ZOO_CONNECTING_STATE || state == ZOO_NOTCONNECTED_STATE) {
    OnLost();
  } else if (state == ZOO_EXPIRED_SESSION_STATE) {
    const bool established = m_session.client_id != 0;
    OnSessionOver(ZSESSIONEXPIRED, ConnectionState::Expired)->Abandon();
    UpdateClosed();
    established ? Open() : OpenLater();  // a session that was dead before it began could be so again
  } else if (state == ZOO_AUTH_FAILED_STATE) {
    OnSessionOver(ZAUTHFAILED, ConnectionState::AuthFailed)->Abandon();
    UpdateClosed();
    OpenLater();
  }
}

void ConnectionCore::OnEstablished() {
  const bool newEpoch = m_session.client_id == 0;
  if (m_state == ConnectionState::Connected) {  // it can come without word of the loss before it
    const auto epoch = m_epoch;
    OnLost();
    if (epoch != m_epoch) return;
  }
  m_session = m_epoch->Session();
  const bool resumed = m_opening.resume && m_opening.resume->client_id == m_session.client_id;
  m_opening.resume.reset();
  m_board.CountSession(m_session.client_id, !newEpoch || resumed);
  SetState(ConnectionState::Connected);
  ZRLOG(ZRLOG_INFO, ConnectionLog()) << "connected, session_id=" << Hex{m_session.client_id}
                                     << ", dc_name=" << m_options.dcName;
  const auto arrival = !newEpoch ? Arrival::SameHandle : resumed ? Arrival::NewHandle : Arrival::NewSession;
  m_proven = m_proven || arrival == Arrival::NewSession;
  m_opening.givenUp = 0;
  if (!m_proven) RaiseBarrier();
  m_listeners.Tell([arrival](ConnectionListener& listener) { listener.OnConnected(arrival); });
}

/// A handle that went on shows servers what it has seen in answers, and a new session was written by a quorum. But a
/// new handle that takes up a session has seen nothing, and events are not counted as seen: a leader that was deposed
/// while it was frozen, and does not know it yet, accepts it, and reads with the past. It cannot complete a
/// transaction, though. So one goes before all other requests: answers come in order, and behind its own, whatever
/// that is, comes nothing that is outdated.
void ConnectionCore::RaiseBarrier() {
  Request barrier{.kind = Request::Kind::Barrier, .path = "/", .outsideChroot = true};
  barrier.reply = [this](const Reply& reply) {
    const ErrorAction action = ActionFor(reply.code);
    if (action == ErrorAction::Retry) return ReplaceHandle();  // not carried out, and nothing proven
    m_proven = action != ErrorAction::AwaitSession;            // else again after the reconnect
  };
  m_epoch->Submit(std::move(barrier));
}

void ConnectionCore::OnLost() {
  if (m_state != ConnectionState::Connected) return;
  m_proven = m_proven && !m_epoch->HeardAhead();
  SetError(ZCONNECTIONLOSS, "connection lost");
  if (m_epoch->Watches().Exceeded()) return ReplaceHandle();  // a new handle has no watches to set again
  SetState(ConnectionState::Suspended);
  m_listeners.Tell([](ConnectionListener& listener) { listener.OnDisconnected(false); });
}

/// The epoch that it ends with is still to be closed.
std::shared_ptr<Epoch> ConnectionCore::OnSessionOver(int code, ConnectionState state) {
  SetError(code,
           "session " + std::string(code == ZAUTHFAILED ? "refused: authentication failed" : "expired"));
  m_opening.resume.reset();
  if (code == ZSESSIONEXPIRED) m_board.CountExpiry();
  auto epoch = EndEpoch();
  SetState(state);
  m_wanted = m_options.renewExpired;
  if (!m_wanted || code == ZAUTHFAILED) {
    m_listeners.Tell([code](ConnectionListener& listener) { listener.OnSessionError(code); });
  }
  return epoch;
}

/// `epoch`: the session's own, where it has one.
void ConnectionCore::EndSession(const clientid_t& session, const std::shared_ptr<Epoch>& epoch) {
  auto farewell = epoch ? epoch->Close() : nullptr;
  if (session.client_id != 0) {
    m_self = shared_from_this();
    m_sessionEnd->Begin(session, std::move(farewell), Trip());
  }
  UpdateClosed();
}

void ConnectionCore::OnAllEnded() {
  const auto self = std::move(m_self);
  UpdateClosed();
  Open();
}

void ConnectionCore::SetState(ConnectionState state) {
  if (!IsLegal(m_state, state)) {
    ZRLOG(ZRLOG_ERROR, ConnectionLog()) << "illegal state change, from=" << ToString(m_state)
                                        << ", to=" << ToString(state) << ", dc_name=" << m_options.dcName;
  }
  // What went on without a connection goes on: a handle that takes the place of another begins no new absence.
  if (m_state != ConnectionState::Connecting && m_state != ConnectionState::Suspended) BeginAbsence();
  m_state = state;
  m_board.SetState(state);
  m_listeners.Tell([](ConnectionListener& listener) { listener.OnStateChanged(); });
}

void ConnectionCore::SetError(int code, zr::String text) {
  ZRLOG(ZRLOG_WARNING, ConnectionLog()) << text << ", dc_name=" << m_options.dcName;
  m_board.SetError(code, std::move(text));
}

}  // namespace zr::halden::details
