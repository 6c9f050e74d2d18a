// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Does my server survive the loss of a data centre? A test with halden::testing, which any test framework could run.
#include <halden/global_service_watcher.h>
#include <halden/testing/error.h>
#include <halden/testing/poll.h>
#include <halden/testing/tcp_proxy.h>
#include <halden/testing/zookeeper_client.h>
#include <halden/testing/zookeeper_ensemble.h>

#include <iostream>
#include <set>

using namespace std::chrono_literals;
namespace kit = zr::halden::testing;

namespace {

/// The server under test: it sends requests to whoever offers "orders", anywhere.
class Server {
 public:
  explicit Server(const std::string& config) : m_orders("orders", zr::halden::LibraryManaged{config}) {
    m_orders.StartManagedConnections();
  }
  ~Server() { m_orders.Close(5s); }

  std::set<std::string> Backends() const {
    std::set<std::string> hosts;
    for (const auto& id : m_orders.ListInstances()) {
      std::shared_ptr<zr::halden::ServiceWatcher> where;
      zr::halden::ServiceInstanceData data;
      if (m_orders.GetInstanceData(id, where, data)) hosts.insert(data.host());
    }
    return hosts;
  }

 private:
  zr::halden::GlobalServiceWatcher m_orders;
};

zr::halden::ServiceInstanceData Host(const std::string& name) {
  zr::halden::ServiceInstanceData data;
  data.set_host(name);
  return data;
}

bool Check(const char* what, const Server& server, const std::set<std::string>& expected) {
  // An election takes long where the machine is busy.
  const bool right = kit::Poll(2 * kit::kLimit, [&] { return server.Backends() == expected; });
  std::cout << (right ? "ok      " : "FAILED  ") << what << std::endl;
  for (const auto& host : right ? std::set<std::string>() : server.Backends())
    std::cout << "  " << host << "\n";
  return right;
}

bool Test() {
  kit::ZooKeeperEnsemble europe(3);
  kit::ZooKeeperServer america;
  europe.Start();
  america.Start();
  kit::TcpProxy ocean(america.Port());  // what is between the server and that data centre
  const kit::ConfigFile config({{"eu-west", europe.ConnectString()}, {"us-east", ocean.ConnectString()}});
  kit::ZooKeeperClient inEurope(europe.ConnectString());
  kit::ZooKeeperClient inAmerica(america.ConnectString());
  const auto paris = zr::halden::MakeServiceId();
  const auto boston = zr::halden::MakeServiceId();
  inEurope.Publish("orders", paris, Host("paris"));
  inAmerica.Publish("orders", boston, Host("boston"));

  ocean.Delay(40ms);
  const Server server(config.Path());
  bool right = Check("both data centres are known", server, {"paris", "boston"});

  europe.Kill();
  inAmerica.Publish("orders", zr::halden::MakeServiceId(), Host("denver"));
  right &=
      Check("one is lost: nobody is forgotten, the other goes on", server, {"paris", "boston", "denver"});
  europe.Start();
  inEurope.Unpublish("orders", paris);
  inEurope.Publish("orders", zr::halden::MakeServiceId(), Host("oslo"));
  right &= Check("it is back, and so is what it says", server, {"oslo", "boston", "denver"});

  ocean.HalfOpen();
  inAmerica.Unpublish("orders", boston);
  inEurope.Publish("orders", paris, Host("paris"));
  right &=
      Check("the other is out of reach, and nobody says so", server, {"oslo", "paris", "boston", "denver"});
  ocean.Heal();
  right &= Check("it can be reached again", server, {"oslo", "paris", "denver"});
  europe.Server(europe.Leader()).Freeze();
  inEurope.Unpublish("orders", paris);
  right &= Check("a leader hangs: the others elect one", server, {"oslo", "denver"});
  return right;
}

}  // namespace

int main() {
  try {
    return Test() ? 0 : 1;
  } catch (const kit::MissingSoftware& error) {
    std::cerr << "skipped: " << error.what() << "\n";
    return 77;  // what CTest and automake can be told to take for "skipped"
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
