// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Says for each line of its input where that request goes to: to the local data centre, or to the next one where that is
// stale or empty:   load_balancer CONFIG SERVICE
#include <halden/global_service_watcher.h>
#include <halden/routing_table.h>
#include <halden/zookeeper_config.h>

#include <iostream>
#include <semaphore>
#include <string>
#include <thread>

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const auto config = zr::halden::ReadZooKeeperConfig(argv[1]);
  for (const auto& fault : config.faults) std::cerr << fault.Text() << "\n";
  if (config.ensembles.empty()) return 1;

  zr::halden::RoutingTable table({config.local});  // the others follow by name
  const auto events = std::make_shared<zr::halden::EventQueue>();
  zr::halden::GlobalServiceWatcher watcher(argv[2], zr::halden::LibraryManaged{argv[1]});
  watcher.RegisterShared(events);
  watcher.StartManagedConnections();
  std::counting_semaphore<> synchronized{0};
  std::thread consumer([&] {
    while (const auto event = events->Pop()) {  // until Close
      table.Apply(*event);
      if (event->kind == zr::halden::ServiceEvent::Kind::Synchronized) synchronized.release();
    }
  });

  // Balancing begins as soon as one data centre is there: the others may be out of reach for long.
  if (!synchronized.try_acquire_for(10s)) std::cerr << "no data centre is there yet\n";
  for (std::string request; std::getline(std::cin, request);) {
    const auto first = table.Pick();
    if (!first) {
      std::cout << request << ": nobody serves it" << std::endl;
      continue;
    }
    std::cout << request << ": " << first->dcName << " " << zr::halden::Endpoint(first->data);
    // Who died a moment ago is listed until its session ends: so the next one is asked where one does not answer.
    const auto second = table.Pick({first});
    if (second && (second->id != first->id || second->dcName != first->dcName))
      std::cout << ", else " << second->dcName << " " << zr::halden::Endpoint(second->data);
    std::cout << std::endl;
  }
  watcher.Close(5s);
  events->Close();
  consumer.join();
}
