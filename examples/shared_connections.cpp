// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Many services over one connection for each data centre; events are taken on this thread:
//   shared_connections CONFIG SERVICE...
#include <halden/event_queue.h>
#include <halden/global_service_watcher.h>
#include <halden/zookeeper_config.h>

#include <iostream>
#include <map>

using namespace zr::halden;

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const ZooKeeperConfig config = ReadZooKeeperConfig(argv[1]);
  for (const auto& fault : config.faults) std::cerr << fault.Text() << "\n";

  std::vector<std::shared_ptr<Connection>> connections;
  for (const auto& [dcName, ensemble] : config.ensembles) {
    connections.push_back(std::make_shared<Connection>(std::vector<zr::String>{ensemble}, true, "",
                                                       std::chrono::seconds(30), dcName));
    connections.back()->Start(nullptr);
  }

  std::map<std::string, std::unique_ptr<GlobalServiceWatcher>> watchers;
  std::map<std::string, std::shared_ptr<EventQueue>> queues;
  for (int i = 2; i < argc; ++i) {
    auto& watcher = watchers[argv[i]] = std::make_unique<GlobalServiceWatcher>(argv[i], ApplicationManaged{});
    watcher->RegisterShared(queues[argv[i]] = std::make_shared<EventQueue>());
    for (const auto& conn : connections) watcher->AddConnection(conn);
  }
  for (const auto& [service, watcher] : watchers) {
    // True: the queue holds all that is known of all data centres. False, too, when there is no data centre.
    const bool complete = watcher->AwaitDelivered(std::chrono::seconds(10));
    std::cout << service << ": " << watcher->Snapshot().size() << " instances"
              << (complete ? "" : ", and not all data centres are there") << "\n";
    for (const auto& event : queues[service]->Drain()) {
      std::cout << "  " << event.dcName << " " << event.kind << " " << event.data.host() << "\n";
    }
  }
  for (const auto& [service, watcher] : watchers) {
    for (const auto& conn : connections) watcher->RemoveConnection(conn);
  }
  for (const auto& conn : connections) conn->Stop();
  for (const auto& conn : connections) conn->AwaitClosed(std::chrono::seconds(5));
}
