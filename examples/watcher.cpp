// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Prints what happens to a service's instances in all data centres:   watcher CONFIG SERVICE
#include <halden/global_service_watcher.h>

#include <iostream>

class Printer : public zr::halden::ServiceWatcherObserver {
  using Watcher = zr::halden::ServiceWatcher;
  using Id = zr::halden::ServiceId;
  using Data = zr::halden::ServiceInstanceData;
  void OnInstanceAdded(Watcher& w, const Id&, const Data& d) override { Say(w, "added", d.host()); }
  void OnInstanceModified(Watcher& w, const Id&, const Data& d) override { Say(w, "modified", d.host()); }
  void OnInstanceRemoved(Watcher& w, const Id& id) override { Say(w, "removed", zr::halden::ToString(id)); }
  void Say(Watcher& w, const char* what, const std::string& who) {
    std::cout << w.DataCenterName() + " " + what + " " + who + "\n" << std::flush;
  }
};

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  zr::halden::GlobalServiceWatcher watcher(argv[2], zr::halden::LibraryManaged{argv[1]});
  watcher.RegisterShared(std::make_shared<Printer>());
  watcher.StartManagedConnections();
  // False, too, when the configuration names no data centre: that is not a service without instances.
  const bool complete = watcher.AwaitSynchronized(std::chrono::seconds(10));
  const auto instances = watcher.Snapshot();
  for (const auto& one : instances) {
    std::cout << one.dcName + " " + zr::halden::Endpoint(one.data) + ", which is " << one.freshness << "\n";
  }
  std::cout << instances.size() << (complete ? "" : " or more") << " instances\n" << std::flush;
  std::cin.get();  // until Enter, or the end of the input
  watcher.Close(std::chrono::seconds(5));
}
