// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/event_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/wait_limit.h"

namespace zr::halden {

std::string_view ToString(InstanceChange change) {
  switch (change) {
    case InstanceChange::Added:
      return "added";
    case InstanceChange::Modified:
      return "modified";
    case InstanceChange::Removed:
      return "removed";
  }
  return "unknown";
}

EventQueue::EventQueue() : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (m_descriptor < 0) throw std::system_error(errno, std::generic_category(), "EventQueue: eventfd");
}

EventQueue::~EventQueue() {
  close(m_descriptor);
}

std::optional<InstanceEvent> EventQueue::Pop() {
  std::unique_lock lock(m_mtx);
  m_changed.wait(lock, [this] { return m_closed || !m_pending.empty(); });
  return Take();
}

std::optional<InstanceEvent> EventQueue::PopFor(std::chrono::milliseconds limit) {
  std::unique_lock lock(m_mtx);
  m_changed.wait_for(lock, details::WaitLimit(limit), [this] { return m_closed || !m_pending.empty(); });
  return Take();
}

std::vector<InstanceEvent> EventQueue::Drain() {
  std::vector<InstanceEvent> events;
  const std::lock_guard lock(m_mtx);
  events.reserve(m_pending.size());
  while (auto event = Take()) events.push_back(std::move(*event));
  return events;
}

void EventQueue::Close() {
  const std::lock_guard lock(m_mtx);
  m_closed = true;
  Signal();
  m_changed.notify_all();
}

std::size_t EventQueue::Size() const {
  const std::lock_guard lock(m_mtx);
  return m_pending.size();
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
  const std::lock_guard lock(m_mtx);
  if (m_closed) return;
  const auto [entry, isNew] = m_pending.try_emplace(Key(watcher.DataCenterName(), id));
  Pending& pending = entry->second;
  if (isNew) pending.place = m_order.insert(m_order.end(), entry->first);
  if (data != nullptr) {
    pending.data = *data;
  } else if (m_handedOut.contains(entry->first)) {
    pending.removed = true;
    pending.data.reset();
  } else {
    Erase(entry);  // came and went
  }
  Signal();
  m_changed.notify_one();
}

/// m_mtx is held.
std::optional<InstanceEvent> EventQueue::Take() {
  if (m_order.empty()) return std::nullopt;
  const auto entry = m_pending.find(m_order.front());
  Pending& pending = entry->second;
  InstanceEvent event;
  event.dcName = entry->first.first;
  event.id = entry->first.second;
  if (pending.removed) {
    event.change = InstanceChange::Removed;
    pending.removed = false;
    m_handedOut.erase(entry->first);
    if (pending.data) return event;  // what came after it is next
  } else {
    const bool isNew = m_handedOut.insert(entry->first).second;
    event.change = isNew ? InstanceChange::Added : InstanceChange::Modified;
    event.data = std::move(*pending.data);
  }
  Erase(entry);
  Signal();
  return event;
}

void EventQueue::Erase(std::map<Key, Pending>::iterator entry) {
  m_order.erase(entry->second.place);
  m_pending.erase(entry);
}

/// Makes the descriptor readable or not, as it should be. m_mtx is held.
void EventQueue::Signal() {
  const bool readable = m_closed || !m_pending.empty();
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
