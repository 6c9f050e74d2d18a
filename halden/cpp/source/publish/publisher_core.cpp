// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "publish/publisher_core.h"

#include <algorithm>
#include <utility>

#include "base/log_sources.h"
#include "model/error_policy.h"
#include "model/layout.h"

namespace zr::halden::details {

PublisherCore::PublisherCore(std::shared_ptr<ConnectionCore> core, const zr::String& service,
                             const ServiceId& id, AccessListPtr access)
    : m_core(std::move(core)),
      m_claims(m_core->Shared<PathClaims>()),
      m_id(id),
      m_servicePath(ServicePath(service)),
      m_path(InstancePath(m_servicePath, id)),
      m_access(std::move(access)) {}

// Any thread.

void PublisherCore::Start(const Connection& conn) {
  m_watch = std::make_shared<Connection::WatchContext>(
      conn, [weak = weak_from_this()](int /*type*/, int /*state*/, const zr::String& /*path*/) {
        if (const auto self = weak.lock()) self->OnEvent();
      });
  m_core->Post([self = shared_from_this()] {
    self->m_core->AddWatcher(self->m_path, self->m_watch);
    self->m_core->AddListener(self);
  });
}

void PublisherCore::Publish(std::string bytes) {
  Wish(std::move(bytes));
}

void PublisherCore::Remove() {
  Wish(std::nullopt);
}

void PublisherCore::Stop() {
  m_watch->Invalidate({});
  m_core->Post([self = shared_from_this(), number = m_board.CountWish()] {
    self->m_core->RemoveWatcher(self->m_path, self->m_watch, 1);
    self->m_claims->AnnounceRelease(self->m_path, self);
    self->m_self = self;
    self->TakeWish(std::nullopt, number);
    if (!self->m_core->SessionGoesOn()) self->LetGo();
  });
}

void PublisherCore::Wish(std::optional<std::string> bytes) {
  const auto number = m_board.CountWish();
  m_core->Post([self = shared_from_this(), bytes = std::move(bytes), number]() mutable {
    self->TakeWish(std::move(bytes), number);
  });
}

// The connection's thread.

void PublisherCore::TakeWish(std::optional<std::string> bytes, std::uint64_t number) {
  if (number < m_wishNumber) return;  // overtaken by a later wish of another thread
  m_wish = std::move(bytes);
  m_wishNumber = number;
  m_pause.Reset();
  if (m_wish) m_board.Unsettle();
  Wake();
}

void PublisherCore::OnConnected(Arrival arrival) {
  if (arrival == Arrival::NewSession) m_mayTell = true;
  m_rivalry.OnConnected();
  m_pause.Reset();
  Wake();
}

void PublisherCore::OnDisconnected(bool epochOver) {
  m_node.Doubt();
  if (epochOver) m_early.underWay = m_early.awaited = false;  // no answer will come
  if (epochOver && !m_core->SessionGoesOn()) {
    m_node.OnSessionOver();
    if (m_wish) m_board.Unsettle();
  }
  // What is under way is answered with an error, unless the epoch is over.
  const bool waits = m_phase != PublisherPhase::Absent && m_phase != PublisherPhase::AwaitingClaim;
  if (epochOver ? waits : waits && !IsUnderWay(m_phase)) SetPhase(PublisherPhase::Disconnected);
  if (m_self && !m_core->SessionGoesOn()) LetGo();
}

/// Nothing is left to do: the path is free for others, and after its publisher's end this goes.
void PublisherCore::LetGo() {
  ReleaseClaim();
  const auto self = std::move(m_self);
}

/// Tells of the watch that the last look has set. While an exchange is under way it tells nothing new: the look
/// that follows, or that it is, is answered behind it.
void PublisherCore::OnEvent() {
  if (m_phase != PublisherPhase::Published && m_phase != PublisherPhase::Yielded) return;
  m_node.Doubt();
  Step();
}

/// Something has changed. What is under way takes it up when it is answered.
void PublisherCore::Wake() {
  if (!IsUnderWay(m_phase)) Step();
}

void PublisherCore::Step() {
  using Kind = KnownNode::Kind;
  if (!m_wish && !m_node.MayBeOurs()) return Settle();
  if (!m_core->Connected()) {
    m_node.Doubt();
    return SetPhase(PublisherPhase::Disconnected);
  }
  if (m_wish && !HasClaim()) return;  // told when it is free
  switch (m_node.What()) {
    case Kind::Absent:
      return m_wish ? Create() : Look();
    case Kind::Unknown:
    case Kind::Held:
      return Look();
    case Kind::Confirmed:
      if (!m_wish) return Delete();
      return m_node.Holds(*m_wish) ? Settle() : Write();
    case Kind::Foreign:
      return OnForeign();
  }
}

/// The wish is fulfilled.
void PublisherCore::Settle() {
  SetPhase(m_wish ? PublisherPhase::Published : PublisherPhase::Absent);
  m_pause.OnSettled();
  if (m_wish) return m_board.Settle(PublishState::Published, m_wishNumber);
  m_node = {};
  m_rivalry.OnRemoved();
  m_board.Settle(PublishState::Absent, m_wishNumber);
  LetGo();
}

void PublisherCore::Fail(int code) {
  m_board.SetError(code);
  if (ActionFor(code) != ErrorAction::AwaitSession && ActionFor(code) != ErrorAction::Conflict) {
    const char* const why =
        code == ZINVALIDACL ? ": the access list names who has authenticated, and nobody has" : "";
    ZRLOG(ZRLOG_WARNING, PublisherLog()) << "write failed, error=" << zerror(code) << why
                                         << ", dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
  }
  Pause(m_pause.AfterFailure());
}

/// What stood is no longer as we left it.
void PublisherCore::MendLater(const char* loss) {
  if (!m_wish) return Step();
  ZRLOG(ZRLOG_WARNING, PublisherLog())
      << loss << ", dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
  m_board.CountUndone();
  m_board.Unsettle();
  Pause(m_pause.AfterLoss());
}

void PublisherCore::Pause(Clock::duration delay) {
  m_node.Doubt();
  if (!m_core->Connected()) return SetPhase(PublisherPhase::Disconnected);
  SetPhase(PublisherPhase::BackingOff);
  m_core->PostAfter(std::max(delay, m_core->Trip()), [weak = weak_from_this(), number = m_pause.Begin()] {
    const auto self = weak.lock();
    if (self && self->m_phase == PublisherPhase::BackingOff && self->m_pause.IsLast(number)) self->Step();
  });
}

/// After an exception (no memory, say) nothing is under way that an answer would end.
void PublisherCore::GiveUpExchange() {
  if (IsUnderWay(m_phase)) Pause(m_pause.AfterFailure());
}

void PublisherCore::SetPhase(PublisherPhase phase) {
  if (!IsLegal(m_phase, phase)) {
    ZRLOG(ZRLOG_ERROR, PublisherLog())
        << "illegal phase change, from=" << NameOf(m_phase) << ", to=" << NameOf(phase)
        << ", dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
  }
  m_phase = phase;
}

}  // namespace zr::halden::details
