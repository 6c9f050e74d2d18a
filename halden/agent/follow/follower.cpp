// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/follow/follower.h"

#include <algorithm>
#include <vector>

namespace zr::halden::agent {

namespace {

constexpr std::chrono::seconds kSessionTimeout{30};
constexpr std::chrono::seconds kRefreshInterval{1};

std::shared_ptr<Connection> Connect(const zr::String& name, const zr::String& ensemble) {
  const std::vector<zr::String> hosts{ensemble};
  auto conn = std::make_shared<Connection>(hosts, true, zr::String(), kSessionTimeout, name);
  conn->Start(nullptr);
  return conn;
}

}  // namespace

Follower::Follower(boost::asio::io_context& loop, std::function<void()> changed)
    : m_loop(loop), m_changed(std::move(changed)), m_refresh(loop) {
  RefreshRegularly();
}

void Follower::Follow(const DataCenterEnsembleMapT& ensembles, const std::set<std::string>& services,
                      const FollowSettings& settings) {
  std::erase_if(m_services, [&services](const auto& service) { return !services.contains(service.first); });
  std::erase_if(m_views, [&services](const auto& view) { return !services.contains(view.first); });
  ForgetDataCenters(ensembles);
  for (const auto& name : services) {
    if (m_services.contains(name)) continue;
    const auto service = std::make_shared<FollowedService>(m_loop, name, settings, m_changed);
    for (const auto& [unused, dataCenter] : m_dataCenters) service->Connect(dataCenter.conn);
    service->Start();
    m_services.emplace(name, service);
    m_views.emplace(name, service->View());
  }
  ConnectDataCenters(ensembles);
  m_changed();
}

void Follower::ForgetDataCenters(const DataCenterEnsembleMapT& ensembles) {
  std::erase_if(m_dataCenters, [&](const auto& known) {
    if (ensembles.contains(known.first)) return false;
    for (const auto& [name, service] : m_services) service->Forget(known.second.conn);
    known.second.conn->Stop();
    return true;
  });
}

/// Also those that are reached in another way now: what was known of them stays until they are read anew.
void Follower::ConnectDataCenters(const DataCenterEnsembleMapT& ensembles) {
  for (const auto& [name, ensemble] : ensembles) {
    DataCenter& known = m_dataCenters[name];
    if (known.conn && known.ensemble == ensemble) continue;
    const auto before = std::exchange(known, {ensemble, Connect(name, ensemble)}).conn;
    for (const auto& [unused, service] : m_services) {
      if (before) service->Disconnect(before);
      service->Connect(known.conn);
    }
    if (before) before->Stop();
  }
}

void Follower::RefreshRegularly() {
  m_refresh.expires_after(kRefreshInterval);
  m_refresh.async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    RefreshRegularly();  // first: whatever fails below is looked at again
    for (const auto& [name, service] : m_services) service->Refresh();
  });
}

bool Follower::Close(std::chrono::milliseconds limit) {
  const auto begin = std::chrono::steady_clock::now();
  const auto left = [begin](std::chrono::milliseconds of) {
    const auto rest =
        std::chrono::ceil<std::chrono::milliseconds>(begin + of - std::chrono::steady_clock::now());
    return std::max(rest, std::chrono::milliseconds(0));
  };
  m_refresh.cancel();
  bool done = true;
  for (const auto& [name, service] : m_services) done = service->WriteSnapshots(left(limit / 2)) && done;
  m_services.clear();
  for (const auto& [name, dataCenter] : m_dataCenters) dataCenter.conn->Stop();
  for (const auto& [name, dataCenter] : m_dataCenters)
    done = dataCenter.conn->AwaitClosed(left(limit)) && done;
  return done;
}

}  // namespace zr::halden::agent
