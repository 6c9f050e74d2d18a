// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "connection_core.h"

#include <array>
#include <limits>
#include <system_error>
#include <utility>

#include "client_log.h"
#include "log_sources.h"
#include "wait_limit.h"

namespace zr::halden::details {

namespace {

// The client sets its watches again in one packet, which servers refuse past 1 MiB: it would reconnect for
// ever.
constexpr std::size_t kMaxWatchBytes = 900'000;

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

ConnectionCore::~ConnectionCore() {
  m_epoch.reset();
  m_ending.reset();
}

// Any thread.

void ConnectionCore::Start(const clientid_t* session) {
  const auto resume = session != nullptr ? std::optional(*session) : std::nullopt;
  const std::lock_guard lock(m_startMtx);
  if (!m_started) Validate();
  try {
    PostMember([this, resume] { DoStart(resume); });
    m_started = true;
  } catch (const std::system_error& e) {  // no thread to be had
    throw ZooError(ZSYSTEMERROR, e.what());
  }
}

void ConnectionCore::Validate() {
  ConnectString ensemble;
  for (const auto& text : m_options.hosts) {
    auto parsed = ParseConnectString(text);
    if (!parsed.error.empty()) {
      throw ZooError(ZBADARGUMENTS, "connect string \"" + text + "\", character " +
                                        std::to_string(parsed.offset + 1) + ": " + parsed.error);
    }
    ensemble.hosts.insert(ensemble.hosts.end(), parsed.value.hosts.begin(), parsed.value.hosts.end());
    ensemble.chroot = std::move(parsed.value.chroot);
  }
  if (ensemble.hosts.empty()) throw ZooError(ZBADARGUMENTS, "no host is given");
  const auto timeout = m_options.sessionTimeout.count();
  if (timeout <= 0 || timeout > std::numeric_limits<int>::max()) {
    throw ZooError(ZBADARGUMENTS, "session timeout out of range: " + std::to_string(timeout) + " ms");
  }
  if (!m_options.auth.empty()) {
    const auto colon = m_options.auth.find(':');
    if (colon == zr::String::npos || colon == 0) {  // the text itself is secret
      throw ZooError(ZBADARGUMENTS, "authentication is not of the form scheme:credential");
    }
    m_authScheme = m_options.auth.substr(0, colon);
    m_authCredential = m_options.auth.substr(colon + 1);
  }
  m_ensemble = std::move(ensemble);
}

void ConnectionCore::Stop() {
  if (!StartedOnce()) return;
  {
    const std::lock_guard lock(m_statusMtx);
    ++m_stopsAsked;
  }
  m_thread.Post([self = shared_from_this()] { self->DoStop(); });
}

void ConnectionCore::ForceExpire() {
  if (!StartedOnce()) return;
  PostMember([this] { DoForceExpire(); });
}

/// Before the first start there is nothing to end, and no thread to do it.
bool ConnectionCore::StartedOnce() {
  const std::lock_guard lock(m_startMtx);
  return m_started;
}

ConnectionStatus ConnectionCore::Status() const {
  const std::lock_guard lock(m_statusMtx);
  return m_status;
}

bool ConnectionCore::AwaitClosed(std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_statusMtx);
  return m_closedChanged.wait_for(lock, WaitLimit(limit), [this] { return m_closed && m_stopsAsked == 0; });
}

void ConnectionCore::PostMember(TaskThread::Task task) {
  m_thread.Post([weak = weak_from_this(), task = std::move(task)] {
    if (const auto self = weak.lock()) task();
  });
}

void ConnectionCore::PostSession(std::uint64_t epoch, int state) {
  PostMember([this, epoch, state] { OnSession(epoch, state); });
}

void ConnectionCore::PostReply(std::uint64_t epoch, void* slot, Reply reply) {
  m_thread.Post([weak = weak_from_this(), epoch, slot, reply = std::move(reply)]() mutable {
    const auto self = weak.lock();
    if (self && self->IsCurrent(epoch)) self->m_epoch->Complete(slot, reply);
  });
}

void ConnectionCore::PostWatch(std::uint64_t epoch, void* binding, int type, int state, std::string path) {
  PostMember([this, epoch, binding, type, state, path = std::move(path)] {
    if (IsCurrent(epoch)) m_epoch->Dispatch(binding, type, state, path);
  });
}

// The connection's thread.

void ConnectionCore::AddListener(const std::shared_ptr<ConnectionListener>& listener) {
  m_listeners.push_back(listener);
  if (Connected()) listener->OnConnected(true);
  listener->OnStateChanged();  // it may have been asked before it heard
}

void ConnectionCore::Submit(Request request) {
  if (m_epoch) m_epoch->Submit(std::move(request));
}

ConnectionCore::ClaimResult ConnectionCore::Claim(const zr::String& path,
                                                  const std::shared_ptr<const void>& owner,
                                                  TaskThread::Task released) {
  auto& claim = m_claims[path];
  const auto present = claim.owner.lock();
  if (present == owner) return ClaimResult::Granted;
  if (!present) {
    claim.owner = owner;
    claim.ending = false;
    return ClaimResult::Granted;
  }
  claim.waiting.push_back(std::move(released));
  return claim.ending ? ClaimResult::AboutToBeReleased : ClaimResult::Taken;
}

void ConnectionCore::AnnounceRelease(const zr::String& path, const std::shared_ptr<const void>& owner) {
  const auto claim = m_claims.find(path);
  if (claim != m_claims.end() && claim->second.owner.lock() == owner) claim->second.ending = true;
}

void ConnectionCore::Release(const zr::String& path, const std::shared_ptr<const void>& owner) {
  const auto claim = m_claims.find(path);
  if (claim == m_claims.end() || claim->second.owner.lock() != owner) return;
  const auto waiting = std::move(claim->second.waiting);
  m_claims.erase(claim);
  for (const auto& released : waiting) Post(released);
}

void ConnectionCore::DoStart(const std::optional<clientid_t>& session) {
  if (m_wanted) return;
  m_wanted = true;
  m_resume = session;
  m_backoff.Reset();
  UpdateClosed();
  Open();
}

void ConnectionCore::DoStop() {
  m_wanted = false;
  m_awaitingAddresses = false;
  ++m_attempt;
  const clientid_t session = KnownSession();
  m_resume.reset();
  // A close with requests under way often leaves the session alive, one without a connection always does.
  const bool closeEndsSession = Connected() && m_epoch->Outstanding() == 0;
  CloseEpoch();
  if (session.client_id != 0 && !closeEndsSession) EndSession(session);
  if (m_state != ConnectionState::Stopped) SetState(ConnectionState::Stopped);
  {
    const std::lock_guard lock(m_statusMtx);
    if (m_stopsAsked != 0) --m_stopsAsked;
  }
  UpdateClosed();
}

void ConnectionCore::DoForceExpire() {
  const clientid_t session = KnownSession();
  if (session.client_id == 0) {
    ZRLOG(ZRLOG_INFO, ConnectionLog()) << "no session to expire, dc_name=" << m_options.dcName;
    return;
  }
  ZRLOG(ZRLOG_INFO, ConnectionLog()) << "expiring the session, session_id=" << Hex{session.client_id}
                                     << ", dc_name=" << m_options.dcName;
  OnSessionOver(ZSESSIONEXPIRED, ConnectionState::Expired);
  EndSession(session);
}

void ConnectionCore::Open() {
  if (!m_wanted || m_epoch || m_ending) return;
  if (m_state != ConnectionState::Connecting) SetState(ConnectionState::Connecting);
  m_awaitingAddresses = true;
  if (!m_addresses.empty()) OpenWithoutNamesLater();
  ResolveHosts();
}

void ConnectionCore::OpenResolved() {
  m_awaitingAddresses = false;
  if (!m_wanted || m_epoch || m_ending) return;
  m_epoch = MakeEpoch();
  if (!OpenHandle(*m_epoch, m_resume ? &*m_resume : nullptr)) {
    m_epoch.reset();
    return OpenLater();
  }
  UpdateClosed();
  m_roundsAway = 0;
  m_roundsUnanswered = 0;
  Watchdog(m_epoch->Number());
}

std::unique_ptr<Epoch> ConnectionCore::MakeEpoch() {
  EpochEvents& events = *this;
  return std::make_unique<Epoch>(m_nextEpoch++, events, m_ensemble.chroot);
}

void ConnectionCore::OpenLater() {
  PostAfter(m_backoff.Next(), [weak = weak_from_this(), attempt = ++m_attempt] {
    const auto self = weak.lock();
    if (self && self->m_attempt == attempt) self->Open();
  });
}

bool ConnectionCore::OpenHandle(Epoch& epoch, const clientid_t* resume) {
  const int error = epoch.Open(m_addresses, m_options.sessionTimeout, resume);
  if (error != 0) {
    SetError(ZSYSTEMERROR, "no client handle: " + std::generic_category().message(error));
    return false;
  }
  if (!m_authScheme.empty()) epoch.Authenticate(m_authScheme, m_authCredential);
  return true;
}

/// Ends the current epoch. Listeners hear first: from here on nothing they asked for will be answered.
void ConnectionCore::CloseEpoch() {
  const std::unique_ptr<Epoch> epoch = std::move(m_epoch);
  m_session = {};
  ++m_attempt;
  Tell([](ConnectionListener& listener) { listener.OnDisconnected(true); });
  if (epoch) epoch->Close();
  DrainClientLog();
}

/// A new epoch that goes on with the session, if there is one.
void ConnectionCore::ReplaceHandle() {
  if (m_session.client_id != 0) m_resume = m_session;
  CloseEpoch();
  Open();
}

void ConnectionCore::OnSession(std::uint64_t epoch, int state) {
  if (m_ending && m_ending->Number() == epoch) return OnEnding(state);
  if (!IsCurrent(epoch)) return;
  if (state == ZOO_CONNECTED_STATE) {
    OnEstablished();
  } else if (state == ZOO_CONNECTING_STATE || state == ZOO_NOTCONNECTED_STATE) {
    OnLost();
  } else if (state == ZOO_EXPIRED_SESSION_STATE) {
    const bool established = m_session.client_id != 0;
    OnSessionOver(ZSESSIONEXPIRED, ConnectionState::Expired);
    established ? Open() : OpenLater();  // a session that was dead before it began could be so again
  } else if (state == ZOO_AUTH_FAILED_STATE) {
    OnSessionOver(ZAUTHFAILED, ConnectionState::AuthFailed);
    OpenLater();
  }
  DrainClientLog();
}

void ConnectionCore::OnEstablished() {
  const bool newEpoch = m_session.client_id == 0;
  if (m_state == ConnectionState::Connected) {  // it can come without word of the loss before it
    const auto epoch = m_epoch->Number();
    OnLost();
    if (!IsCurrent(epoch)) return;
  }
  m_session = m_epoch->Session();
  m_timeout = m_epoch->Timeout();
  std::erase_if(m_claims, [](const auto& claim) { return claim.second.owner.expired(); });
  const bool resumed = m_resume && m_resume->client_id == m_session.client_id;
  m_resume.reset();
  {
    const std::lock_guard lock(m_statusMtx);
    m_status.sessionId = m_session.client_id;
    ++(newEpoch && !resumed ? m_status.sessions : m_status.reconnects);
  }
  SetState(ConnectionState::Connected);
  ZRLOG(ZRLOG_INFO, ConnectionLog()) << "connected, session_id=" << Hex{m_session.client_id}
                                     << ", dc_name=" << m_options.dcName;
  Tell([newEpoch](ConnectionListener& listener) { listener.OnConnected(newEpoch); });
}

void ConnectionCore::OnLost() {
  if (m_state != ConnectionState::Connected) return;
  SetError(ZCONNECTIONLOSS, "connection lost");
  const bool replace = m_epoch->WatchBytes() > kMaxWatchBytes;  // a new handle has no watches to set again
  if (replace && !m_epoch->ConnectedByNow()) return ReplaceHandle();
  const auto epoch = m_epoch->Number();
  SetState(ConnectionState::Suspended);
  Tell([](ConnectionListener& listener) { listener.OnDisconnected(false); });
  if (replace) ReplaceWhenApart(epoch);
}

void ConnectionCore::OnSessionOver(int code, ConnectionState state) {
  SetError(code,
           "session " + std::string(code == ZAUTHFAILED ? "refused: authentication failed" : "expired"));
  m_resume.reset();
  if (code == ZSESSIONEXPIRED) {
    const std::lock_guard lock(m_statusMtx);
    ++m_status.expiries;
  }
  CloseEpoch();
  SetState(state);
  m_wanted = m_options.renewExpired;
  if (!m_wanted || code == ZAUTHFAILED) {
    Tell([code](ConnectionListener& listener) { listener.OnSessionError(code); });
  }
  UpdateClosed();
}

void ConnectionCore::SetState(ConnectionState state) {
  if (!IsLegal(m_state, state)) {
    ZRLOG(ZRLOG_ERROR, ConnectionLog()) << "illegal state change, from=" << ToString(m_state)
                                        << ", to=" << ToString(state) << ", dc_name=" << m_options.dcName;
  }
  m_state = state;
  {
    const std::lock_guard lock(m_statusMtx);
    m_status.state = state;
    if (state != ConnectionState::Connected && state != ConnectionState::Suspended) m_status.sessionId = 0;
  }
  Tell([](ConnectionListener& listener) { listener.OnStateChanged(); });
}

void ConnectionCore::SetError(int code, zr::String text) {
  ZRLOG(ZRLOG_WARNING, ConnectionLog()) << text << ", dc_name=" << m_options.dcName;
  const std::lock_guard lock(m_statusMtx);
  m_status.lastError = code;
  m_status.lastErrorText = std::move(text);
}

void ConnectionCore::UpdateClosed() {
  const std::lock_guard lock(m_statusMtx);
  m_closed = !m_wanted && !m_epoch && !m_ending;
  m_closedChanged.notify_all();
}

void ConnectionCore::Tell(const std::function<void(ConnectionListener&)>& what) {
  std::erase_if(m_listeners, [](const auto& weak) { return weak.expired(); });
  const auto listeners = m_listeners;  // a listener may add another
  for (const auto& weak : listeners) {
    if (const auto listener = weak.lock()) what(*listener);
  }
}

}  // namespace zr::halden::details
