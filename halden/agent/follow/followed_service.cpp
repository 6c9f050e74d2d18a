// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/follow/followed_service.h"

#include <fmt/format.h>
#include <unistd.h>

#include <random>
#include <system_error>

namespace zr::halden::agent {

namespace {

/// Events that are taken before readers get a turn.
constexpr int kEventsATurn = 256;

/// Not guessable from another: a restarted agent must not give revisions that an earlier one gave.
std::string MakeEpoch() {
  std::random_device random;
  return fmt::format("{:08x}{:08x}", random(), random());
}

int Duplicate(int descriptor) {
  const int copy = dup(descriptor);
  if (copy < 0) throw std::system_error(errno, std::generic_category(), "cannot wait for events");
  return copy;
}

}  // namespace

FollowedService::FollowedService(boost::asio::io_context& loop, const std::string& name,
                                 const FollowSettings& settings, std::function<void()> changed)
    : m_view(std::make_shared<ServiceView>(name, MakeEpoch())),
      m_changed(std::move(changed)),
      m_queue(std::make_shared<EventQueue>()),
      m_watcher(name, ApplicationManaged{}),
      m_readable(loop, Duplicate(m_queue->Descriptor())) {
  m_watcher.SetMassRemovalGuard(settings.guard);
  m_watcher.SetSnapshotFolder(settings.snapshotFolder);
  m_watcher.RegisterShared(m_queue);
}

void FollowedService::Start() {
  Await();
}

void FollowedService::Connect(const std::shared_ptr<Connection>& conn) {
  m_told.try_emplace(conn->DataCenterName());
  m_watcher.AddConnection(conn);
  Refresh();
}

void FollowedService::Disconnect(const std::shared_ptr<Connection>& conn) {
  m_watcher.RemoveConnection(conn);
}

void FollowedService::Forget(const std::shared_ptr<Connection>& conn) {
  m_watcher.RemoveConnection(conn);
  m_told.erase(conn->DataCenterName());
  m_holding.erase(conn->DataCenterName());
  m_view->RemoveDataCenter(conn->DataCenterName(), ServiceView::Clock::now());
  m_changed();
}

void FollowedService::Await() {
  m_readable.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                        [weak = weak_from_this()](const boost::system::error_code& error) {
                          const auto self = weak.lock();
                          if (error || !self) return;
                          self->Await();  // first: whatever fails below, the rest is taken
                          self->Drain();
                        });
}

void FollowedService::Drain() {
  const Revision before = m_view->Head();
  bool states = false;
  for (int taken = 0; taken < kEventsATurn; ++taken) {
    const auto event = m_queue->PopFor(std::chrono::milliseconds(0));
    if (!event) break;
    Take(*event);
    states |= !event->IsInstance();
  }
  if (states) Refresh();
  if (m_view->Head() != before) m_changed();
}

void FollowedService::Take(const ServiceEvent& event) {
  const auto told = m_told.find(event.dcName);
  if (told == m_told.end()) return;  // told before the data centre was forgotten
  switch (event.kind) {
    case ServiceEvent::Kind::Added:
    case ServiceEvent::Kind::Modified:
      return m_view->Put(event.dcName, event.id, event.data);
    case ServiceEvent::Kind::Removed:
      return m_view->Remove(event.dcName, event.id, ServiceView::Clock::now());
    case ServiceEvent::Kind::State:
    case ServiceEvent::Kind::Synchronized:
      told->second = {event.status.watcher.freshness, event.status.watcher.staleSince,
                      event.status.watcher.restoredAsOf};
      return;
  }
}

/// Which are held is asked for while there are any, and once more when there are none.
void FollowedService::RefreshHeld(const std::string& dataCenter, bool holds) {
  const bool held = m_holding.erase(dataCenter) != 0;
  if (holds) m_holding.insert(dataCenter);
  if (!holds && !held) return;
  for (const auto& watcher : m_watcher.Watchers()) {
    if (watcher->DataCenterName() == dataCenter) m_view->SetHeld(dataCenter, watcher->ListHeldInstances());
  }
}

void FollowedService::Refresh() {
  const Revision before = m_view->Head();
  for (DataCenterStatus status : m_watcher.Status()) {
    const Told& told = m_told[status.name];
    status.watcher.freshness = told.freshness;
    status.watcher.staleSince = told.staleSince;
    status.watcher.restoredAsOf = told.restoredAsOf;
    // Its text names servers, which are none of a client's business.
    if (status.connection.lastError != 0)
      status.connection.lastErrorText = zerror(status.connection.lastError);
    RefreshHeld(status.name, status.watcher.held != 0);
    m_view->SetState(std::move(status));
  }
  if (m_view->Head() != before) m_changed();
}

}  // namespace zr::halden::agent
