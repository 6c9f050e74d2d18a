// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A program that uses ZooKeeper's C client itself, and halden beside it: publishes an instance through halden,
// watches its node over a session of its own, and takes it back:   beside_own_client HOSTS SERVICE
#define THREADED  // its own client is the multi-threaded library, which has calls that wait
#include <halden/event_queue.h>
#include <halden/global_service_watcher.h>
#include <halden/service_publisher.h>
#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <iostream>
#include <semaphore>
#include <stdexcept>

using namespace std::chrono_literals;

namespace {

void Require(bool fulfilled, const std::string& what) {
  if (!fulfilled) throw std::runtime_error("failed: " + what);
}

/// The program's own session.
class OwnClient {
 public:
  explicit OwnClient(const char* hosts) : m_handle(zookeeper_init(hosts, OnEvent, 10000, nullptr, this, 0)) {
    Require(m_handle != nullptr, "a client handle");
  }
  ~OwnClient() { zookeeper_close(m_handle); }

  OwnClient(const OwnClient&) = delete;
  OwnClient& operator=(const OwnClient&) = delete;

  bool AwaitConnected() { return m_connected.try_acquire_for(10s); }
  std::int64_t Session() const { return zoo_client_id(m_handle)->client_id; }

  std::vector<std::string> Children(const std::string& node) {
    String_vector names{};
    Require(zoo_get_children(m_handle, node.c_str(), 0, &names) == ZOK, "the children of " + node);
    std::vector<std::string> paths;
    for (int i = 0; i < names.count; ++i) paths.push_back(node + "/" + names.data[i]);
    deallocate_String_vector(&names);
    return paths;
  }

  /// Begins to watch the node; the session that it belongs to.
  std::int64_t Watch(const std::string& node) {
    Stat stat{};
    Require(zoo_wexists(m_handle, node.c_str(), OnEvent, this, &stat) == ZOK, "a watch on " + node);
    return stat.ephemeralOwner;
  }

  bool AwaitDeletion() { return m_deleted.try_acquire_for(10s); }

 private:
  static void OnEvent(zhandle_t*, int type, int state, const char*, void* self) {
    auto& client = *static_cast<OwnClient*>(self);
    if (type == ZOO_SESSION_EVENT && state == ZOO_CONNECTED_STATE) client.m_connected.release();
    if (type == ZOO_DELETED_EVENT) client.m_deleted.release();
  }

  // Before the handle, whose thread may use them at once.
  std::counting_semaphore<> m_connected{0};
  std::counting_semaphore<> m_deleted{0};
  zhandle_t* const m_handle;
};

using Kind = zr::halden::ServiceEvent::Kind;

bool AwaitEvent(zr::halden::EventQueue& events, Kind kind, const zr::halden::ServiceId& id) {
  while (const auto event = events.PopFor(10s)) {
    if (event->kind == kind && event->id == id) return true;
  }
  return false;
}

void Run(const char* hosts, const std::string& service) {
  const auto conn =
      std::make_shared<zr::halden::Connection>(std::vector<zr::String>{hosts}, true, "", 10s, "here");
  zr::halden::GlobalServiceWatcher watcher(service, zr::halden::ApplicationManaged{});
  const auto events = std::make_shared<zr::halden::EventQueue>();
  watcher.RegisterShared(events);
  watcher.AddConnection(conn);
  conn->Start(nullptr);
  OwnClient own(hosts);
  Require(own.AwaitConnected(), "a session of the own client");

  zr::halden::ServicePublisher publisher(conn, service, zr::halden::MakeServiceId());
  zr::halden::ServiceInstanceData data;
  data.set_host("beside");
  publisher.Publish(data);
  Require(publisher.AwaitPublished(10s), "a publication through halden");
  Require(AwaitEvent(*events, Kind::Added, publisher.Id()), "halden's event: added");
  Require(watcher.AwaitSynchronized(10s), "halden's view of the service");
  std::cout << "halden: " << watcher.Snapshot().size() << " instances\n";

  std::vector<std::string> instances;
  for (const auto& partition : own.Children("/halden/services/" + service)) {
    for (const auto& instance : own.Children(partition)) instances.push_back(instance);
  }
  std::cout << "own client: " << instances.size() << " instances\n";
  const auto published = std::find_if(instances.begin(), instances.end(), [&](const std::string& path) {
    return path.ends_with(zr::halden::ToString(publisher.Id()));
  });
  Require(published != instances.end(), "halden's instance, seen by the own client");
  const std::int64_t owner = own.Watch(*published);
  Require(owner == conn->Status().sessionId, "a node that belongs to halden's session");
  Require(owner != own.Session(), "two sessions");

  publisher.Remove();
  Require(own.AwaitDeletion(), "the own client's event: deleted");
  Require(AwaitEvent(*events, Kind::Removed, publisher.Id()), "halden's event: removed");
  std::cout << "both have seen it go\n";
  conn->Stop();
  Require(conn->AwaitClosed(5s), "the end of halden's session");
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) return 2;
  Run(argv[1], argv[2]);
} catch (const std::exception& e) {
  std::cerr << e.what() << "\n";
  return 1;
}
