// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "publish/publisher_core.h"

#include <algorithm>
#include <utility>

#include "base/log_sources.h"
#include "base/wait_limit.h"
#include "error_policy.h"
#include "layout.h"

namespace zr::halden::details {

namespace {

// After this a node that goes is news, and no war with whoever deletes it.
constexpr std::chrono::seconds kStood{30};

}  // namespace

PublisherCore::PublisherCore(std::shared_ptr<ConnectionCore> core, const zr::String& service,
                             const ServiceId& id)
    : m_core(std::move(core)),
      m_claims(m_core->Shared<PathClaims>()),
      m_id(id),
      m_servicePath(ServicePath(service)),
      m_path(InstancePath(m_servicePath, id)) {}

// Any thread.

void PublisherCore::Start(const Connection& conn) {
  m_watch = std::make_shared<Connection::WatchContext>(
      conn, [weak = weak_from_this()](int type, int /*state*/, const zr::String& /*path*/) {
        if (const auto self = weak.lock()) self->OnEvent(type);
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
  m_core->Post([self = shared_from_this()] {
    if (self->m_core->SessionGoesOn()) self->m_self = self;
    self->m_claims->AnnounceRelease(self->m_path, self);
    self->m_core->RemoveWatcher(self->m_path, self->m_watch, 1);
  });
  Wish(std::nullopt);
}

void PublisherCore::Wish(std::optional<std::string> bytes) {
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(m_mtx);
    number = ++m_wished;
  }
  m_core->Post([self = shared_from_this(), bytes = std::move(bytes), number]() mutable {
    if (number < self->m_wishNumber) return;  // overtaken by a later wish of another thread
    self->m_wish = std::move(bytes);
    self->m_wishNumber = number;
    self->m_backoff.Reset();
    self->StepNow();
  });
}

PublisherStatus PublisherCore::Status() const {
  const std::lock_guard lock(m_mtx);
  return m_status;
}

bool PublisherCore::AwaitPublished(std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_mtx);
  return m_changed.wait_for(lock, WaitLimit(limit), [this] {
    return m_status.state == PublishState::Conflict ||
           (m_settled == m_wished && m_status.state == PublishState::Published);
  }) && m_status.state == PublishState::Published;
}

bool PublisherCore::AwaitAbsent(std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_mtx);
  return m_changed.wait_for(lock, WaitLimit(limit), [this] {
    return m_settled == m_wished && m_status.state == PublishState::Absent;
  });
}

// The connection's thread.

void PublisherCore::OnConnected(bool newEpoch) {
  if (newEpoch) m_ours = false;
  m_established = false;  // another one may have come meanwhile: it was the first then
  m_watched = false;      // a new look tells
  m_awaitingClaim = false;
  m_backoff.Reset();
  StepNow();
}

void PublisherCore::OnDisconnected(bool epochOver) {
  if (!epochOver) return;
  m_busy = false;  // no answer will come
  m_ours = false;
  m_watched = false;
  if (m_wish && !m_yielded) SetState(PublishState::Publishing);
  if (m_core->SessionGoesOn()) return;
  if (!m_self) return;
  ReleaseClaim();
  const auto self = std::move(m_self);  // with the session goes the node
}

void PublisherCore::OnSessionError(int code) {
  const std::lock_guard lock(m_mtx);
  m_status.lastError = code;
}

void PublisherCore::Step() {
  if (!m_wish && !m_mayExist) return Settle();
  if (m_busy || m_retryScheduled || !m_core->Connected()) {
    if (m_wish && m_written != m_wishNumber && !m_yielded) SetState(PublishState::Publishing);
    return;
  }
  if (!m_wish) {
    Inspect();
  } else if (!HasClaim()) {
    return;  // told when it is free
  } else if (m_yielded) {
    AwaitRivalsEnd();
  } else if (!m_ours) {
    SetState(PublishState::Publishing);
    Create();
  } else if (m_written != m_wishNumber) {
    SetState(PublishState::Publishing);
    Write();
  } else if (!m_watched) {
    Watch();
  } else {
    Settle();
  }
}

void PublisherCore::Create() {
  m_mayExist = true;
  if (std::find(m_sessions.begin(), m_sessions.end(), m_core->SessionId()) == m_sessions.end()) {
    m_sessions.push_back(m_core->SessionId());
  }
  m_written = m_wishNumber;
  Request request{.kind = Request::Kind::Create, .path = m_path};
  request.data = *m_wish;
  request.mode = ZOO_EPHEMERAL;
  Send(std::move(request), &PublisherCore::OnCreated);
}

void PublisherCore::OnCreated(Reply& reply) {
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done: {
      m_ours = true;
      m_parentsCreated = false;
      m_watched = false;
      m_version = 0;
      m_createdAt = Clock::now();
      const std::lock_guard lock(m_mtx);
      ++m_status.published;
      break;
    }
    case ErrorAction::Absent:
      m_written = 0;
      CreateParents();
      if (std::exchange(m_parentsCreated, true)) return StepLater();
      break;  // requests are carried out in order: the next one finds the parents
    case ErrorAction::Conflict:
      m_written = 0;
      return Inspect();
    default:
      m_written = 0;
      return Retry(reply.code);
  }
  Step();
}

/// All at once and from the top: requests are carried out in order, and what exists already stays. The
/// service and its partitions are containers: the server removes them when their last child is gone.
void PublisherCore::CreateParents() {
  const auto create = [this](zr::String path, int mode, bool outsideChroot) {
    Request request{.kind = Request::Kind::Create, .path = std::move(path), .outsideChroot = outsideChroot};
    request.mode = mode;
    request.reply = [weak = weak_from_this()](Reply& reply) {
      const auto self = weak.lock();
      const ErrorAction action = ActionFor(reply.code);
      const bool good = action == ErrorAction::Done || action == ErrorAction::Conflict;
      if (self && !good) self->Retry(reply.code);
    };
    m_core->Submit(std::move(request));
  };
  const auto createAll = [&create](const zr::String& path, bool outsideChroot) {
    for (auto slash = path.find('/', 1); slash != zr::String::npos; slash = path.find('/', slash + 1)) {
      create(path.substr(0, slash), ZOO_PERSISTENT, outsideChroot);
    }
    create(path, ZOO_PERSISTENT, outsideChroot);
  };
  if (!m_core->Chroot().empty()) createAll(m_core->Chroot(), true);
  createAll(zr::String(kServicesPath), false);
  create(m_servicePath, ZOO_CONTAINER, false);
  create(PartitionPath(m_servicePath, PartitionOf(m_id)), ZOO_CONTAINER, false);
}

void PublisherCore::Write() {
  m_written = m_wishNumber;
  Request request{.kind = Request::Kind::Set, .path = m_path};
  request.data = *m_wish;
  Send(std::move(request), &PublisherCore::OnWritten);
}

void PublisherCore::OnWritten(Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::Done) {
    m_version = reply.stat.version;
    m_watched = false;  // the write fired the watch
  } else {
    m_written = 0;
    if (action == ErrorAction::Absent) m_ours = false;
    if (action != ErrorAction::Absent) return Retry(reply.code);
  }
  Step();
}

/// Whose node is there?
void PublisherCore::Inspect() {
  Send({.kind = Request::Kind::Get, .path = m_path}, &PublisherCore::OnInspected);
}

void PublisherCore::OnInspected(Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  if (action != ErrorAction::Done && action != ErrorAction::Absent) return Retry(reply.code);
  const bool exists = action == ErrorAction::Done;
  const auto owner = reply.stat.ephemeralOwner;
  if (!m_wish) {
    const bool own = std::find(m_sessions.begin(), m_sessions.end(), owner) != m_sessions.end();
    if (exists && own) return Delete(reply.stat.version);
    m_mayExist = false;
    m_ours = false;
    m_sessions.clear();
  } else if (exists && owner == m_core->SessionId()) {
    m_ours = true;  // an answer was lost, or the session went on under a new handle
    m_watched = false;
    if (reply.value == *m_wish) {  // to write it again would tell every watcher of a change
      m_written = m_wishNumber;
      m_version = reply.stat.version;
    }
  } else if (exists) {
    return OnForeign(reply);
  }
  Step();
}

void PublisherCore::Delete(int version) {
  Request request{.kind = Request::Kind::Delete, .path = m_path};
  request.version = version;
  Send(std::move(request), &PublisherCore::OnDeleted);
}

void PublisherCore::OnDeleted(Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::Done || action == ErrorAction::Absent) {
    m_ours = false;
    m_watched = false;
    if (!m_wish) {
      m_mayExist = false;
      m_sessions.clear();
    }
  } else if (action != ErrorAction::Conflict) {  // changed since: look again
    return Retry(reply.code);
  }
  Step();
}

/// A node of ours that nobody has touched since is confirmed by the same look that watches it from now on.
void PublisherCore::Watch() {
  m_watched = true;
  Send({.kind = Request::Kind::Exists, .path = m_path, .watch = true}, &PublisherCore::OnWatched);
}

void PublisherCore::OnWatched(Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::Absent) return LookAgain("node deleted by others");
  if (action != ErrorAction::Done) {
    m_watched = false;
    return Retry(reply.code);
  }
  if (reply.stat.ephemeralOwner != m_core->SessionId())
    return LookAgain("node taken over by another session");
  if (reply.stat.version != m_version) {
    m_written = 0;  // ours, but written by others
    ZRLOG(ZRLOG_WARNING, PublisherLog())
        << "node changed by others, dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
    return StepLater();
  }
  m_established = true;
  Step();
}

void PublisherCore::OnEvent(int /*type*/) {
  m_watched = false;
  Step();
}

void PublisherCore::LookAgain(const char* why) {
  // One that is deleted again and again is created ever more slowly.
  if (Clock::now() - m_createdAt > kStood) m_backoff.Reset();
  m_ours = false;
  m_watched = false;
  m_written = 0;
  if (m_wish) {
    ZRLOG(ZRLOG_WARNING, PublisherLog())
        << why << ", dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
    SetState(PublishState::Publishing);
  }
  StepLater();
}

/// The wish is fulfilled.
void PublisherCore::Settle() {
  std::shared_ptr<PublisherCore> self;  // goes after the lock
  const std::lock_guard lock(m_mtx);
  m_status.state = m_wish ? PublishState::Published : PublishState::Absent;
  m_status.lastError = 0;
  m_status.rival.clear();
  m_settled = m_wishNumber;
  m_changed.notify_all();
  if (m_wish) return;
  self = std::move(m_self);
  m_yielded = false;
  ReleaseClaim();
}

void PublisherCore::Retry(int code) {
  {
    const std::lock_guard lock(m_mtx);
    m_status.lastError = code;
  }
  if (ActionFor(code) != ErrorAction::AwaitSession) {
    ZRLOG(ZRLOG_WARNING, PublisherLog()) << "write failed, error=" << zerror(code)
                                         << ", dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
  }
  StepLater();
}

void PublisherCore::StepLater() {
  if (std::exchange(m_retryScheduled, true)) return;
  m_core->PostAfter(m_backoff.Next(), [weak = weak_from_this(), retry = ++m_retry] {
    const auto self = weak.lock();
    if (self && self->m_retryScheduled && self->m_retry == retry) self->StepNow();
  });
}

/// Without waiting for a back-off to end: something else has changed.
void PublisherCore::StepNow() {
  m_retryScheduled = false;
  Step();
}

void PublisherCore::SetState(PublishState state) {
  const std::lock_guard lock(m_mtx);
  m_status.state = state;
}

void PublisherCore::Send(Request request, OnReply onReply) {
  m_busy = true;
  request.reply = [self = shared_from_this(), onReply](Reply& reply) {
    self->m_busy = false;
    (self.get()->*onReply)(reply);
  };
  m_core->Submit(std::move(request));
}

}  // namespace zr::halden::details
