// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/service_id.h"
#include "zr/messaging/halden/service.pb.h"
#include "zrstl/observable_impl.h"

namespace zr::halden {

using ServiceInstanceData = zr::messaging::halden::ServiceInstanceData;
using ZkErrorHandler = std::function<void(int)>;

class ServiceWatcherObserver {
 public:
  virtual ~ServiceWatcherObserver() = default;
  virtual void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) = 0;
  virtual void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) = 0;
  virtual void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) = 0;
};

/// Stands in for the service watcher: writes its calls to the journal, knows the instances that a test gives
/// it and raises the events that the test asks for.
class ServiceWatcher : public zr::ObservableImpl<ServiceWatcherObserver> {
 public:
  ServiceWatcher(std::shared_ptr<Connection> conn, const zr::String& serviceName, ZkErrorHandler errorHandler)
      : m_errorHandler(std::move(errorHandler)), m_conn(std::move(conn)) {
    Step("ServiceWatcher(" + serviceName + ")");
    m_conn->m_watcher = this;
  }
  ~ServiceWatcher() override { Step("~ServiceWatcher"); }

  void RegisterWeak(std::weak_ptr<ServiceWatcherObserver> observer) override {
    Step("RegisterWeak");
    ObservableImpl::RegisterWeak(std::move(observer));
  }
  void UnregisterWeak(const std::weak_ptr<ServiceWatcherObserver>& observer) override {
    Step("UnregisterWeak");
    ObservableImpl::UnregisterWeak(observer);
  }
  void Start() { Step("watcher Start"); }

  std::vector<ServiceId> ListInstances() const {
    Step("ListInstances");
    std::vector<ServiceId> ids;
    for (const auto& instance : m_instances) ids.push_back(instance.first);
    return ids;
  }
  bool GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const {
    Step("GetInstanceData");
    for (const auto& instance : m_instances) {
      if (instance.first != id) continue;
      data = instance.second;
      return true;
    }
    return false;
  }

  template <typename Event, typename... Args>
  void Raise(Event event, const Args&... args) {
    NotifyObservers(event, *this, args...);
  }
  std::size_t ObserverCount() const { return GetObservers().size(); }

  std::vector<std::pair<ServiceId, ServiceInstanceData>> m_instances;
  const ZkErrorHandler m_errorHandler;

 private:
  void Step(const std::string& step) const { test::Journal::Get().Step(m_conn->GetDCName() + ": " + step); }

  const std::shared_ptr<Connection> m_conn;
};

}  // namespace zr::halden
