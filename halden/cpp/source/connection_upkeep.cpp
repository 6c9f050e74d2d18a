// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What keeps a connection going beside its state machine: names, the watchdog, and the end of sessions on the
// server. All on the connection's thread.
#include <system_error>
#include <utility>

#include "client_log.h"
#include "connection_core.h"
#include "log_sources.h"
#include "name_resolution.h"

namespace zr::halden::details {

namespace {

constexpr std::chrono::seconds kWatchdogPeriod{1};
// In rounds of the watchdog without a connection:
constexpr unsigned kFirstReport = 5;
constexpr unsigned kReportRounds = 60;
constexpr unsigned kResolveRounds = 5;
constexpr unsigned kUnansweredRounds = 2;
constexpr std::chrono::seconds kResolveLimit{2};
constexpr std::chrono::milliseconds kApartPeriod{2};
constexpr std::chrono::seconds kEndingLimit{2};
constexpr int kEndingTries = 5;

}  // namespace

/// Names on a thread of their own: a resolver can block for long, and a `Stop` must not wait for it.
void ConnectionCore::ResolveHosts() {
  if (!HasNames(m_ensemble.hosts)) return OnResolved(Resolve(m_ensemble.hosts));
  if (std::exchange(m_resolving, true)) return;
  try {
    m_resolver.Post([weak = weak_from_this(), hosts = m_ensemble.hosts] {
      auto resolved = Resolve(hosts);
      const auto self = weak.lock();
      if (!self) return;
      self->PostMember([core = self.get(), resolved = std::move(resolved)] {
        core->m_resolving = false;
        core->OnResolved(resolved);
      });
    });
  } catch (const std::system_error& e) {  // no thread to be had
    m_resolving = false;
    OnResolved({{}, e.what()});
  }
}

/// A resolver that is out of reach answers after half a minute: the addresses known before need not wait so
/// long. What it says in the end is given to the handle.
void ConnectionCore::OpenWithoutNamesLater() {
  PostAfter(kResolveLimit, [weak = weak_from_this(), attempt = m_attempt] {
    const auto self = weak.lock();
    if (self && self->m_attempt == attempt && self->m_awaitingAddresses) self->OpenResolved();
  });
}

void ConnectionCore::OnResolved(const ResolvedHosts& resolved) {
  const bool changed = !resolved.addresses.empty() && resolved.addresses != m_addresses;
  if (changed) m_addresses = resolved.addresses;
  if (m_epoch) {
    if (!changed) return;
    m_epoch->SetServers(m_addresses);
    ZRLOG(ZRLOG_INFO, ConnectionLog()) << "the ensemble's addresses have changed, addresses=" << m_addresses;
  } else if (m_awaitingAddresses) {
    if (resolved.addresses.empty()) SetError(ZSYSTEMERROR, "no host resolves: " + resolved.error);
    if (!m_addresses.empty()) return OpenResolved();  // those of an earlier time are better than none
    m_awaitingAddresses = false;
    OpenLater();
  }
}

/// Runs now and then while an epoch lives, for what the client library does not tell by itself.
void ConnectionCore::Watchdog(std::uint64_t epoch) {
  if (!IsCurrent(epoch)) return;
  DrainClientLog();
  if (Connected()) {
    m_backoff.Reset();  // not at once: a session can be refused right after it is established
    m_roundsAway = 0;
    m_roundsUnanswered = 0;
    if (m_epoch->Unheard() > m_timeout) {
      ZRLOG(ZRLOG_WARNING, ConnectionLog())
          << "a server leaves requests unanswered, trying anew, dc_name=" << m_options.dcName;
      return ReplaceHandle();
    }
  } else {
    LookAfterServers();
    if (!IsCurrent(epoch)) return;
  }
  PostAfter(kWatchdogPeriod, [weak = weak_from_this(), epoch] {
    if (const auto self = weak.lock()) self->Watchdog(epoch);
  });
}

/// A client that finds no server says nothing: so this does. Names may have moved since the epoch was opened.
/// And a server that took the connection may never answer (one that is just starting can lose it): the client
/// would wait for two thirds of the session timeout. Nor does a handle ever get back to an ensemble that was set
/// up anew: it shows what it has seen, and servers that know less refuse it.
void ConnectionCore::LookAfterServers() {
  if (m_roundsAway % kReportRounds == kFirstReport && m_state == ConnectionState::Connecting) {
    SetError(ZCONNECTIONLOSS, "no server of the ensemble is reached: " + m_addresses);
  }
  ++m_roundsAway;
  m_roundsUnanswered = m_epoch->Unanswered() ? m_roundsUnanswered + 1 : 0;
  if (m_roundsUnanswered > kUnansweredRounds) {
    ZRLOG(ZRLOG_INFO, ConnectionLog())
        << "a server does not answer, trying anew, dc_name=" << m_options.dcName;
    return ReplaceHandle();
  }
  // One that is back already, with its word of it still on the way here, must not be closed: its session would
  // end.
  if (m_state == ConnectionState::Suspended && m_roundsAway * kWatchdogPeriod > m_timeout &&
      !m_epoch->ConnectedByNow()) {
    ZRLOG(ZRLOG_INFO, ConnectionLog())
        << "no server has taken the session back within its timeout, trying anew, dc_name="
        << m_options.dcName;
    return ReplaceHandle();
  }
  if (m_roundsAway % kResolveRounds == 0 && HasNames(m_ensemble.hosts)) ResolveHosts();
}

/// To close a handle that is connected again would end its session. It is not connected for long: servers
/// refuse its watches.
void ConnectionCore::ReplaceWhenApart(std::uint64_t epoch) {
  if (!IsCurrent(epoch) || m_state != ConnectionState::Suspended) return;
  if (!m_epoch->ConnectedByNow()) return ReplaceHandle();
  PostAfter(kApartPeriod, [weak = weak_from_this(), epoch] {
    if (const auto self = weak.lock()) self->ReplaceWhenApart(epoch);
  });
}

/// Makes the server end a session whose handle is closed: takes the session up again alone and closes it
/// idle, until the server says that it is gone.
void ConnectionCore::EndSession(const clientid_t& session) {
  m_endingSession = session;
  m_endingTries = 0;
  m_self = shared_from_this();
  TryEndSession();
}

void ConnectionCore::TryEndSession() {
  m_ending = MakeEpoch();
  if (++m_endingTries > kEndingTries || !OpenHandle(*m_ending, &m_endingSession)) {
    ZRLOG(ZRLOG_WARNING, ConnectionLog())
        << "session not ended on the server, it ends after its timeout, dc_name=" << m_options.dcName;
    return FinishEnding();
  }
  UpdateClosed();
  PostAfter(kEndingLimit, [weak = weak_from_this(), epoch = m_ending->Number()] {
    const auto self = weak.lock();
    if (!self || !self->m_ending || self->m_ending->Number() != epoch) return;
    self->m_endingTries = kEndingTries;  // no answer: no use asking again
    self->m_ending->Close();
    self->TryEndSession();
  });
}

void ConnectionCore::OnEnding(int state) {
  if (state == ZOO_CONNECTED_STATE) {
    m_ending->Close();
    TryEndSession();
  } else if (state == ZOO_EXPIRED_SESSION_STATE || state == ZOO_AUTH_FAILED_STATE) {
    FinishEnding();
  }
}

void ConnectionCore::FinishEnding() {
  m_ending.reset();
  const auto self = std::move(m_self);
  UpdateClosed();
  Open();
}

}  // namespace zr::halden::details
