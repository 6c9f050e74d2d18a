// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How a connection comes to its next handle: names, addresses, an epoch on them; and a pause when there is none to be
// had. All on the connection's thread.
#include <system_error>
#include <utility>

#include "session/connection_core.h"

namespace zr::halden::details {

namespace {

// A resolver that is out of reach answers after half a minute: addresses known before need not wait so long.
constexpr std::chrono::seconds kResolveLimit{2};
// A server that restarts, or another one in its place, is found before.
constexpr std::chrono::seconds kUsualAbsence{6};
constexpr std::chrono::minutes kTellAgain{1};

}  // namespace

void ConnectionCore::BeginAbsence() {
  m_opening.tellAway = Clock::now() + kUsualAbsence;
}

/// Whatever handle looks for a server, and whether a session waits for one.
void ConnectionCore::TellAway() {
  if (Connected() || Clock::now() < m_opening.tellAway) return;
  m_opening.tellAway = Clock::now() + kTellAgain;
  SetError(ZCONNECTIONLOSS, "no server of the ensemble is reached: " + m_addresses->Text());
}

void ConnectionCore::Open() {
  if (!m_wanted || m_epoch) return;
  const bool lacksCredential = m_state == ConnectionState::AuthFailed && !m_opening.credentials.Known();
  if (!lacksCredential && m_state != ConnectionState::Connecting) SetState(ConnectionState::Connecting);
  if (m_sessionEnd->UnderWay() || !HasCredential()) return;
  if (m_state != ConnectionState::Connecting) SetState(ConnectionState::Connecting);
  m_opening.awaitingAddresses = true;
  if (!m_addresses->Text().empty() && m_addresses->AreNames()) {
    Poster()(kResolveLimit, [this, attempt = m_opening.attempt] {
      if (m_opening.attempt == attempt && m_opening.awaitingAddresses) OpenResolved();
    });
  }
  m_addresses->Resolve([this](const zr::String& error) { OnResolved(error); });
}

/// False where the file of the credential is faulty: then no session begins, since it could do less, and nobody
/// would see why. Tried again later; what is wrong is told once.
bool ConnectionCore::HasCredential() {
  auto& credentials = m_opening.credentials;
  if (m_opening.resume && credentials.Known()) return true;
  const auto told = credentials.Fault();
  credentials.Renew();
  if (credentials.Known()) return true;
  m_wanted = m_options.renewExpired;
  if (m_state != ConnectionState::AuthFailed || credentials.Fault() != told) {
    SetError(ZAUTHFAILED, "no credential: " + credentials.Fault());
    if (m_state != ConnectionState::AuthFailed) SetState(ConnectionState::AuthFailed);
    m_listeners.Tell([](ConnectionListener& listener) { listener.OnSessionError(ZAUTHFAILED); });
  }
  UpdateClosed();
  OpenLater();
  return false;
}

void ConnectionCore::OnResolved(const zr::String& error) {
  if (!m_opening.awaitingAddresses) return;  // the watchdog gives them to a handle that looks for a server
  if (!error.empty()) SetError(ZSYSTEMERROR, "no host resolves: " + error);
  if (!m_addresses->Text().empty()) return OpenResolved();  // those of an earlier time are better than none
  m_opening.awaitingAddresses = false;
  OpenLater();
}

void ConnectionCore::OpenResolved() {
  m_opening.awaitingAddresses = false;
  if (!m_wanted || m_epoch || m_sessionEnd->UnderWay()) return;
  const auto onSession = [this](Epoch& epoch, int state) {
    if (m_epoch.get() == &epoch) OnSession(state);
  };
  m_bulk.window = std::make_shared<SendWindow>(Trip());
  m_epoch = OpenHandle(m_opening.resume ? &*m_opening.resume : nullptr, onSession, m_bulk.window);
  if (!m_epoch) return OpenLater();
  UpdateClosed();
  RunWatchdog(m_epoch, std::make_shared<Watchdog>());
}

void ConnectionCore::OpenLater() {
  Poster()(m_backoff.Next(), [this, attempt = ++m_opening.attempt] {
    if (m_opening.attempt == attempt) Open();
  });
}

std::shared_ptr<Epoch> ConnectionCore::OpenHandle(const clientid_t* resume, Epoch::SessionFunction onSession,
                                                  const std::shared_ptr<SendWindow>& window) {
  auto epoch = std::make_shared<Epoch>(
      Poster(), m_target->ensemble.chroot, std::move(onSession),
      [this](int type, int state, const zr::String& path) {
        for (const auto& context : m_routes.Find(path)) {
          TaskThread::RunGuarded([&] { context->Invoke(type, state, path); });
        }
      },
      window);
  const int error = epoch->Open(m_addresses->Text(), m_options.sessionTimeout, resume);
  if (error != 0) {
    SetError(ZSYSTEMERROR, "no client handle: " + std::generic_category().message(error));
    return nullptr;
  }
  const auto& [scheme, secret] = m_opening.credentials.Current();
  if (!scheme.empty()) epoch->Authenticate(scheme, secret);
  return epoch;
}

}  // namespace zr::halden::details
