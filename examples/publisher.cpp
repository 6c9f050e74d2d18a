// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Publishes one instance until Enter, or the end of its input:   publisher HOSTS SERVICE HOST PORT
#include <halden/service_publisher.h>

#include <cstdlib>
#include <exception>
#include <iostream>

int main(int argc, char** argv) try {
  if (argc != 5) return 2;
  const std::vector<zr::String> ensemble{argv[1]};
  const auto conn =
      std::make_shared<zr::halden::Connection>(ensemble, true, "", std::chrono::seconds(30), "here");
  conn->Start(nullptr);
  zr::halden::ServicePublisher publisher(conn, argv[2], zr::halden::MakeServiceId());
  zr::halden::ServiceInstanceData data;
  data.set_host(argv[3]);
  data.add_ports()->set_port(static_cast<unsigned>(std::atoi(argv[4])));
  publisher.Publish(data);
  if (!publisher.AwaitPublished(std::chrono::seconds(10))) {
    std::cerr << "not published: " << conn->Status().lastErrorText << " " << publisher.Status().rival << "\n";
    return 1;
  }
  std::cout << "published " << zr::halden::ToString(publisher.Id()) << "\n" << std::flush;
  std::cin.get();
  publisher.Remove();  // nobody is sent here any more, before the program is gone
  publisher.AwaitAbsent(std::chrono::seconds(5));
  conn->Stop();
  return conn->AwaitClosed(std::chrono::seconds(5)) ? 0 : 1;
} catch (const std::exception& e) {
  std::cerr << e.what() << "\n";
  return 1;
}
