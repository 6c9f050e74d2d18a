// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/event_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ostream>
#include <system_error>
#include <tuple>
#include <utility>

#include "base/wait_limit.h"

namespace zr::halden {

std::string_view ToString(ServiceEvent::Kind kind) {
  switch (kind) {
    case ServiceEvent::Kind::Added:
      return "added";
    case ServiceEvent::Kind::Modified:
      return "modified";
    case ServiceEvent::Kind::Removed:
      return "removed";
    case ServiceEvent::Kind::State:
      return "state";
    case ServiceEvent::Kind::Synchronized:
      return "synchronised";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, ServiceEvent::Kind kind) {
  return out << ToString(kind);
}

EventQueue::EventQueue() : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (m_descriptor < 0) throw std::system_error(errno, std::generic_category(), "EventQueue: eventfd");
}

EventQueue::~EventQueue() {
  close(m_descriptor);
}

std::optional<ServiceEvent> EventQueue::Pop() {
  const zr::MutexLock lock(m_mtx);
  m_changed.Wait(m_mtx, [this]() ZR_REQUIRES(m_mtx) { return m_closed || !m_order.empty(); });
  return Take();
}

std::optional<ServiceEvent> EventQueue::PopFor(std::chrono::milliseconds limit) {
  const zr::MutexLock lock(m_mtx);
  m_changed.WaitFor(m_mtx, details::WaitLimit(limit),
                    [this]() ZR_REQUIRES(m_mtx) { return m_closed || !m_order.empty(); });
  return Take();
}

std::vector<ServiceEvent> EventQueue::Drain() {
  std::vector<ServiceEvent> events;
  const zr::MutexLock lock(m_mtx);
  events.reserve(m_order.size());
  while (auto event = Take()) events.push_back(std::move(*event));
  return events;
}

void EventQueue::Close() {
  const zr::MutexLock lock(m_mtx);
  m_closed = true;
  Signal();
  m_changed.NotifyAll();
}

std::size_t EventQueue::Size() const {
  const zr::MutexLock lock(m_mtx);
  return m_order.size();
}

void EventQueue::OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                                 const ServiceInstanceData& data) {
  Change(watcher, instance, &data);
}

void EventQueue::OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) {
  Change(watcher, instance, nullptr);
}

void EventQueue::OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                                    const ServiceInstanceData& data) {
  Change(watcher, instance, &data);
}

/// `data` is null for what is removed. What the consumer has decides, not the kind of the event: another
/// watcher of the same data centre tells everything as added.
void EventQueue::Change(const ServiceWatcher& watcher, const ServiceId& id, const ServiceInstanceData* data) {
  auto copy = data != nullptr ? std::make_unique<ServiceInstanceData>(*data) : nullptr;
  const zr::MutexLock lock(m_mtx);
  if (m_closed || !*watcher.m_current) return;
  const Key key(KeyOf(watcher), id);
  if (!copy) {
    if (const auto found = m_instances.find(key); found != m_instances.end()) Remove(found);
    return;
  }
  const auto entry = m_instances.try_emplace(key).first;
  entry->second.current = watcher.m_current;
  Enqueue(entry);
  entry->second.data = std::move(copy);
}

const EventQueue::DataCenterKey* EventQueue::KeyOf(const ServiceWatcher& watcher) {
  return &m_dataCenters.try_emplace({watcher.ServiceName(), watcher.DataCenterName()}).first->first;
}

/// The watcher has read everything and told it. What it does not know, and was told by one that is not in use
/// any more, has gone while neither was there to tell.
void EventQueue::Reconcile(const ServiceWatcher& watcher) {
  auto known = watcher.ListInstances();
  std::sort(known.begin(), known.end());
  const zr::MutexLock lock(m_mtx);
  if (m_closed) return;
  const auto* const dataCenter = KeyOf(watcher);
  for (auto next = m_instances.lower_bound({dataCenter, ServiceId{}}); next != m_instances.end();) {
    const auto entry = next++;
    const auto& [itsDataCenter, id] = entry->first;
    if (itsDataCenter != dataCenter) return;
    if (!*entry->second.current && !std::binary_search(known.begin(), known.end(), id)) Remove(entry);
  }
}

/// Of each data centre only the newest state waits, at the end: it must not come before the instances that were told
/// before it. Synchronized carries the state too, and so takes the place of a State that waits.
void EventQueue::Tell(const ServiceWatcher& watcher, ServiceEvent::Kind kind,
                      const DataCenterStatus& status) {
  const bool synchronized = kind == ServiceEvent::Kind::Synchronized;
  auto told = std::make_unique<ServiceEvent>();
  told->kind = kind;
  told->service = watcher.ServiceName();
  told->dcName = watcher.DataCenterName();
  told->status = status;
  const zr::MutexLock lock(m_mtx);
  if (m_closed || !*watcher.m_current) return;
  DataCenter& dataCenter = m_dataCenters[{told->service, told->dcName}];
  const auto place = m_order.insert(m_order.end(), Waiting{nullptr, std::move(told)});
  Drop(dataCenter.state);
  if (synchronized) Drop(dataCenter.synchronized);
  (synchronized ? dataCenter.synchronized : dataCenter.state) = place;
  Signal();
  m_changed.NotifyOne();
}

std::optional<ServiceEvent> EventQueue::Take() {
  if (m_order.empty()) return std::nullopt;
  const Key* const instance = m_order.front().instance;
  auto event = instance == nullptr ? TakeTold() : TakeInstance(m_instances.find(*instance));
  if (!m_order.empty()) m_changed.NotifyOne();
  return event;
}

ServiceEvent EventQueue::TakeTold() {
  ServiceEvent event = std::move(*m_order.front().told);
  DataCenter& dataCenter = m_dataCenters[{event.service, event.dcName}];
  Drop(event.kind == ServiceEvent::Kind::Synchronized ? dataCenter.synchronized : dataCenter.state);
  Signal();
  return event;
}

void EventQueue::Drop(std::optional<Order::iterator>& place) {
  if (place) m_order.erase(*place);
  place.reset();
}

ServiceEvent EventQueue::TakeInstance(InstanceMap::iterator entry) {
  Instance& instance = entry->second;
  ServiceEvent event;
  event.id = entry->first.second;
  std::tie(event.service, event.dcName) = *entry->first.first;
  if (instance.removed) {
    event.kind = ServiceEvent::Kind::Removed;
    instance.removed = instance.handedOut = false;
    if (!instance.data) Remove(entry);  // else it came back: what it is now comes next, as added
  } else {
    event.kind = instance.handedOut ? ServiceEvent::Kind::Modified : ServiceEvent::Kind::Added;
    event.data = std::move(*instance.data);
    instance.data.reset();
    instance.handedOut = true;
    Dequeue(entry);
  }
  return event;
}

void EventQueue::Remove(InstanceMap::iterator entry) {
  Instance& instance = entry->second;
  instance.data.reset();
  instance.removed = instance.handedOut;
  if (instance.handedOut) return Enqueue(entry);
  Dequeue(entry);  // the consumer never had it, or not any more
  m_instances.erase(entry);
}

void EventQueue::Enqueue(InstanceMap::iterator entry) {
  Instance& instance = entry->second;
  if (!instance.waits) instance.place = m_order.insert(m_order.end(), Waiting{&entry->first, nullptr});
  instance.waits = true;
  Signal();
  m_changed.NotifyOne();
}

void EventQueue::Dequeue(InstanceMap::iterator entry) {
  if (std::exchange(entry->second.waits, false)) m_order.erase(entry->second.place);
  Signal();
}

/// Makes the descriptor readable or not, as it should be.
void EventQueue::Signal() {
  const bool readable = m_closed || !m_order.empty();
  if (readable == m_readable) return;
  m_readable = readable;
  if (readable) {
    eventfd_write(m_descriptor, 1);
  } else {
    eventfd_t count = 0;
    eventfd_read(m_descriptor, &count);
  }
}

}  // namespace zr::halden
