// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A server that finds its like, and is found by them, over one connection for each data centre, until SIGINT or SIGTERM:
//   peer CONFIG SERVICE HOST PORT
#include <halden/event_queue.h>
#include <halden/global_service_watcher.h>
#include <halden/service_publisher.h>
#include <halden/zookeeper_config.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <thread>

using namespace std::chrono_literals;

int main(int argc, char** argv) try {
  if (argc != 5) return 2;
  // Before the first thread is started: those of halden block all signals, and the program's own inherit this.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  const auto config = zr::halden::ReadZooKeeperConfig(argv[1]);
  for (const auto& fault : config.faults) std::cerr << fault.Text() << "\n";
  const auto events = std::make_shared<zr::halden::EventQueue>();
  zr::halden::GlobalServiceWatcher watcher(argv[2], zr::halden::LibraryManaged{argv[1]});
  watcher.RegisterShared(events);
  watcher.StartManagedConnections();

  zr::halden::ServiceInstanceData self;
  self.set_host(argv[3]);
  self.add_ports()->set_port(static_cast<unsigned>(std::atoi(argv[4])));
  auto publisher = watcher.MakePublisher(config.local);  // throws where that is no data centre
  publisher.Publish(self);                               // throws where it is not fit to be published

  std::thread consumer([&, own = publisher.Id()] {
    while (const auto event = events->Pop()) {  // until Close
      if (event->IsInstance() && event->id == own) continue;
      std::cout << event->dcName << " " << event->kind << " ";
      if (event->IsInstance()) std::cout << zr::halden::Endpoint(event->data);
      if (!event->IsInstance()) std::cout << event->status.watcher.freshness;
      std::cout << std::endl;
    }
  });
  if (!publisher.AwaitPublished(10s)) {
    std::cerr << "not published yet: " << publisher.Status().state << " " << publisher.Status().rival << "\n";
  }
  int signal = 0;
  sigwait(&ends, &signal);
  publisher.Remove();  // nobody is sent here any more, before the program is gone
  publisher.AwaitAbsent(5s);
  const bool closed = watcher.Close(5s);
  events->Close();
  consumer.join();
  return closed ? 0 : 1;
} catch (const std::exception& e) {
  std::cerr << e.what() << "\n";
  return 1;
}
