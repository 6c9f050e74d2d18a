// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/service_watcher.h"

#include <stdexcept>
#include <utility>

#include "model/node_codec.h"
#include "session/connection_core.h"
#include "watch/service_reader.h"
#include "watch/watcher_delivery.h"

namespace zr::halden {

namespace {

std::shared_ptr<Connection> Checked(std::shared_ptr<Connection> conn) {
  if (!conn) throw std::invalid_argument("ServiceWatcher: null connection");
  return conn;
}

const zr::String& CheckedName(const zr::String& name) {
  if (!IsValidServiceName(name)) throw std::invalid_argument("ServiceWatcher: invalid service name");
  return name;
}

}  // namespace

void Check(const std::optional<MassRemovalGuard>& guard) {
  if (!guard) return;
  if (!(guard->share >= 0 && guard->share < 1)) {
    throw std::invalid_argument("MassRemovalGuard: the share must be at least 0 and less than 1");
  }
  if (guard->gracePeriod <= std::chrono::milliseconds::zero()) {
    throw std::invalid_argument("MassRemovalGuard: the grace period must be longer than nothing");
  }
  if (guard->least == 0) throw std::invalid_argument("MassRemovalGuard: the least number must be at least 1");
}

ServiceWatcher::ServiceWatcher(std::shared_ptr<Connection> conn, const zr::String& serviceName,
                               ZkErrorHandler errorHandler)
    : m_serviceName(CheckedName(serviceName)),
      m_conn(Checked(std::move(conn))),
      m_delivery(
          std::make_shared<details::WatcherDelivery>(details::CoreOf(*m_conn), std::move(errorHandler))),
      m_reader(new details::ServiceReader(details::CoreOf(*m_conn), m_serviceName, m_delivery)) {}

ServiceWatcher::~ServiceWatcher() {
  *m_current = false;
  m_reader->Stop();
}

void ServiceWatcher::Start() {
  const std::weak_ptr<ServiceWatcher> self = shared_from_this();
  if (m_started.exchange(true)) return;
  try {  // from here on both threads are there: nothing below can fail for want of one, or of a descriptor
    details::CoreOf(*m_conn)->Shared<details::ObserverThread>()->Post([] {});
    details::CoreOf(*m_conn)->Post([] {});
  } catch (...) {
    m_started = false;
    throw;
  }
  m_delivery->Start(self);
  m_reader->Start(*m_conn);
}

std::vector<ServiceId> ServiceWatcher::ListInstances() const {
  return m_delivery->ListInstances();
}

bool ServiceWatcher::GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const {
  const auto payload = m_delivery->Find(id);
  if (!payload) return false;
  data = details::ParsePayload(*payload);
  return true;
}

std::vector<ServiceId> ServiceWatcher::ListHeldInstances() const {
  return m_delivery->ListHeld();
}

void ServiceWatcher::SetMassRemovalGuard(const std::optional<MassRemovalGuard>& guard) {
  Check(guard);
  m_delivery->SetGuard(guard);
}

void ServiceWatcher::SetStatusHandler(DataCenterStatusHandler handler) {
  m_delivery->SetStatusHandler(std::move(handler));
}

void ServiceWatcher::SetAudit(const AuditIntervals& intervals) {
  m_reader->SetAudit(intervals);
}

const zr::String& ServiceWatcher::ServiceName() const {
  return m_serviceName;
}

const zr::String& ServiceWatcher::DataCenterName() const {
  return m_conn->DataCenterName();
}

ServiceWatcherStatus ServiceWatcher::Status() const {
  return m_delivery->Status();
}

DataCenterStatus ServiceWatcher::DataCenter() const {
  return {m_conn->DataCenterName(), m_conn->Status(), m_delivery->Status()};
}

std::vector<ServiceInstance> ServiceWatcher::Snapshot() const {
  const auto known = m_delivery->Snapshot();
  std::vector<ServiceInstance> instances;
  instances.reserve(known.instances.size());
  for (const auto& [id, payload, held] : known.instances) {
    instances.push_back({DataCenterName(), id, details::ParsePayload(payload), known.freshness, held});
  }
  return instances;
}

bool ServiceWatcher::AwaitSynchronized(std::chrono::milliseconds limit) const {
  return m_delivery->AwaitSynchronized(limit);
}

bool ServiceWatcher::AwaitDelivered(std::chrono::milliseconds limit) const {
  return m_delivery->AwaitDelivered(limit);
}

}  // namespace zr::halden
