// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "support/ensemble_test.h"

#include <string>

#include "support/await.h"

namespace zr::halden::test {

namespace {

zr::String NextChroot() {
  static int count = 0;
  return "/t" + std::to_string(++count);
}

}  // namespace

ServiceInstanceData MakeInstance(const zr::String& host) {
  ServiceInstanceData data;
  data.set_service_name("orders");
  data.set_host(host);
  data.add_ports()->set_port(8080);
  return data;
}

EnsembleTest::EnsembleTest() : m_chroot(NextChroot()) {
  for (const auto& [name, server] : Servers()) server->Start();
}

EnsembleTest::~EnsembleTest() = default;

EnsembleTest::ServerMap& EnsembleTest::Servers() {
  static ServerMap servers;
  return servers;
}

void EnsembleTest::StartServers(const std::vector<zr::String>& dcNames) {
  ZooKeeperServerOptions options;
  options.maxSessionTimeout = kSessionTimeout;
  for (const auto& name : dcNames) {
    auto& server = Servers()[name];
    if (!server) server = std::make_unique<ZooKeeperServer>(options);
    server->Launch();
  }
  for (const auto& name : dcNames) Servers()[name]->Start();
}

ZooKeeperServer& EnsembleTest::Server(const zr::String& dcName) {
  if (!Servers().contains(dcName)) StartServers({dcName});
  return *Servers()[dcName];
}

ZooKeeperClient& EnsembleTest::Client(const zr::String& dcName) {
  auto& client = m_clients[dcName];
  if (!client) client = MakeClient(dcName);
  return *client;
}

std::unique_ptr<ZooKeeperClient> EnsembleTest::MakeClient(const zr::String& dcName) const {
  return std::make_unique<ZooKeeperClient>(Server(dcName).ConnectString(), m_chroot);
}

zr::String EnsembleTest::ConnectString(const zr::String& dcName) const {
  return Server(dcName).ConnectString(m_chroot);
}

zr::String EnsembleTest::WriteConfig(const std::vector<zr::String>& dcNames) {
  DataCenterEnsembleMapT ensembles;
  for (const auto& name : dcNames) ensembles[name] = ConnectString(name);
  return m_configs.emplace_back(ensembles).Path();
}

std::shared_ptr<Connection> EnsembleTest::MakeConnection(const zr::String& dcName, bool renewExpired,
                                                         const zr::String& auth,
                                                         std::chrono::milliseconds timeout) const {
  return std::make_shared<Connection>(std::vector<zr::String>{ConnectString(dcName)}, renewExpired, auth,
                                      timeout, dcName);
}

ServiceId EnsembleTest::Publish(const zr::String& dcName, const zr::String& host) {
  const ServiceId id = MakeServiceId();
  Client(dcName).Publish(kService, id, MakeInstance(host));
  return id;
}

::testing::AssertionResult EnsembleTest::AwaitState(const Connection& conn, ConnectionState state) {
  return Eventually([&] { return conn.Status().state == state; },
                    [&] { return ToString(conn.Status().state); });
}

::testing::AssertionResult EnsembleTest::AwaitFreshness(const ServiceWatcher& watcher, Freshness freshness) {
  return Eventually([&] { return watcher.Status().freshness == freshness; },
                    [&] { return ToString(watcher.Status().freshness); });
}

}  // namespace zr::halden::test
