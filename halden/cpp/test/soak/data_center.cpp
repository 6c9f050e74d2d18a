// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "soak/data_center.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "support/await.h"
#include "support/zookeeper_client.h"

namespace zr::halden::soak {

namespace {

constexpr std::size_t kInstances = 40;
constexpr int kMaxPauseMs = 15;  // between two writes

test::ZooKeeperServerOptions ServerOptions() {
  test::ZooKeeperServerOptions options;
  options.maxSessionTimeout = DataCenter::kSessionTimeout;
  return options;
}

ServiceId DrawId(Random& random) {
  ServiceId id{};
  std::generate(id.begin(), id.end(), [&] { return static_cast<std::uint8_t>(Roll(random, 256)); });
  return id;
}

}  // namespace

DataCenter::DataCenter(zr::String name, std::size_t servers, std::shared_ptr<test::Ledger> ledger,
                       Random& random)
    : m_name(std::move(name)),
      m_ledger(std::move(ledger)),
      m_ensemble(servers, ServerOptions()),
      m_ids(kInstances) {
  m_ensemble.Start();
  for (std::size_t i = 0; i < servers; ++i) m_ways.emplace_back(m_ensemble.Server(i).Port());
  for (auto& id : m_ids) id = DrawId(random);
  for (auto& conn : m_conns) (conn = MakeConnection())->Start(nullptr);
  for (auto& publisher : m_publishers) {
    publisher = std::make_unique<ServicePublisher>(m_conns[0], kService, DrawId(random));
  }
  m_watcher = std::make_shared<ServiceWatcher>(m_conns[1], kService, ZkErrorHandler());
  m_watcher->RegisterWeak(m_checker);
  m_watcher->Start();
}

DataCenter::~DataCenter() {
  m_writing = false;
  if (m_writer.joinable()) m_writer.join();
}

void DataCenter::HealNetwork() {
  for (auto& way : m_ways) way.Heal();
}

zr::String DataCenter::ConnectString() const {
  zr::String text;
  for (const auto& way : m_ways) text += (text.empty() ? "" : ",") + way.ConnectString();
  return text;
}

std::shared_ptr<Connection> DataCenter::MakeConnection() const {
  return std::make_shared<Connection>(std::vector<zr::String>{ConnectString()}, true, zr::String(),
                                      kSessionTimeout, m_name);
}

ServiceInstanceData DataCenter::Data(const ServiceId& id, Random& random) const {
  return m_ledger->Write({m_name, id}, "h" + std::to_string(random()));
}

void DataCenter::Publish(Random& random) {
  auto& publisher = *m_publishers.at(static_cast<std::size_t>(Roll(random, 2)));
  publisher.Publish(Data(publisher.Id(), random));
}

void DataCenter::Unpublish(Random& random) {
  m_publishers.at(static_cast<std::size_t>(Roll(random, 2)))->Remove();
}

void DataCenter::BeginWrites(Random& random) {
  // Whatever happens to a session in this round may take its nodes.
  for (const auto& publisher : m_publishers) m_ledger->Doubt({m_name, publisher->Id()});
  m_writing = true;
  m_writer = std::thread([this, own = Random(random())]() mutable {
    try {
      test::ZooKeeperClient client(m_ensemble.ConnectString());
      while (m_writing) {
        Write(client, own);
        test::Poll(std::chrono::milliseconds(Roll(own, kMaxPauseMs)), [this] { return !m_writing; });
      }
    } catch (...) {
      m_failure = std::current_exception();
    }
  });
}

void DataCenter::EndWrites() {
  m_writing = false;
  m_writer.join();
  if (m_failure) std::rethrow_exception(std::exchange(m_failure, nullptr));
}

void DataCenter::Write(test::ZooKeeperClient& client, Random& random) {
  const auto& id = m_ids[static_cast<std::size_t>(Roll(random, kInstances))];
  const int what = Roll(random, 200);
  if (what == 0) {
    m_ledger->DeleteAll(m_name);
    client.Delete("/halden/services/orders");
  } else if (what < 50) {
    m_ledger->Delete({m_name, id});
    client.Unpublish(kService, id);
  } else if (what < 60) {
    client.PublishRaw(kService, id, "\xff\xff garbage");
  } else {
    client.Publish(kService, id, Data(id, random));
  }
}

void DataCenter::LoseData() {
  m_ledger->DeleteAll(m_name);
  for (std::size_t i = 0; i < m_ensemble.Size(); ++i) m_ensemble.Server(i).Wipe();
  m_ensemble.Start();
}

void DataCenter::Heal() {
  HealNetwork();
  m_ensemble.Start();
  for (const auto& conn : m_conns) conn->Start(nullptr);
  for (const auto& publisher : m_publishers) {
    publisher->Publish(m_ledger->Write({m_name, publisher->Id()}, "healed"));
  }
  for (const auto& publisher : m_publishers) {
    if (!publisher->AwaitPublished(test::kLimit)) {
      const auto status = publisher->Status();
      zr::String text =
          m_name + ": " + ToString(publisher->Id()) + " is " + zr::String(ToString(status.state));
      text += ", last error " + std::to_string(status.lastError) + ", its connection " +
              zr::String(ToString(m_conns[0]->Status().state)) + ", the servers";
      for (std::size_t i = 0; i < m_ensemble.Size(); ++i) text += " " + m_ensemble.Server(i).Mode();
      throw std::runtime_error(text);
    }
  }
}

void DataCenter::Require(const test::TruthChecker& checker, const ServiceWatcher& watcher) const {
  test::ZooKeeperClient fresh(m_ensemble.ConnectString());
  fresh.Publish("truths", ServiceId(), ServiceInstanceData());  // who has written reads nothing older
  const auto right = checker.AwaitTruth(watcher, fresh);
  if (!right) throw std::runtime_error(right.message());
}

}  // namespace zr::halden::soak
