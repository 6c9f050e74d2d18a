// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "agent/follow/followed_service.h"
#include "agent/view/service_views.h"
#include "halden/connection_v2.h"
#include "halden/utils.h"

namespace zr::halden::agent {

/// Follows services in data centres, all through one connection for each data centre.
///
/// Threads: the loop's. Ownership: the loop must outlive it. Errors: `Follow` throws ZooError for a connect string that
/// can never work, which a configuration that was read without faults does not have.
class Follower {
 public:
  /// `changed` is called on the loop after a view has changed, or which there are.
  Follower(boost::asio::io_context& loop, std::function<void()> changed);

  /// Follows these services in these data centres from now on, and no others. What stays is not touched. The settings
  /// hold for services that are new.
  void Follow(const DataCenterEnsembleMapT& ensembles, const std::set<std::string>& services,
              const FollowSettings& settings);

  const ServiceViews& Views() const { return m_views; }

  /// Writes what is kept in files and closes all sessions, and waits for it; false when that was not done at the deadline.
  bool Close(std::chrono::milliseconds limit);

 private:
  struct DataCenter {
    zr::String ensemble;
    std::shared_ptr<Connection> conn;
  };

  void ForgetDataCenters(const DataCenterEnsembleMapT& ensembles);
  void ConnectDataCenters(const DataCenterEnsembleMapT& ensembles);
  void RefreshRegularly();

  boost::asio::io_context& m_loop;
  const std::function<void()> m_changed;
  boost::asio::steady_timer m_refresh;
  std::map<std::string, DataCenter> m_dataCenters;
  std::map<std::string, std::shared_ptr<FollowedService>> m_services;
  ServiceViews m_views;
};

}  // namespace zr::halden::agent
