// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>

#include <algorithm>
#include <iostream>

#include "halden/testing/zookeeper_server.h"
#include "simulation/likeness/transcript.h"

int main(int argc, char** argv) {
  using zr::halden::details::Clock;
  zr::halden::testing::ZooKeeperServer server;
  server.Start();
  const auto wait = [](std::vector<pollfd>& sockets, Clock::time_point end) {
    const auto left = std::max<long>(0, (end - Clock::now()) / std::chrono::milliseconds(1));
    if (poll(sockets.data(), sockets.size(), static_cast<int>(left)) < 0) sockets.clear();
  };
  const auto cut = [](int socket) { shutdown(socket, SHUT_RDWR); };
  for (int seed = 0; seed < (argc > 1 ? std::atoi(argv[1]) : 1); ++seed)
    std::cout << zr::halden::simulation::Transcript(static_cast<unsigned>(seed),
                                                    {server.ConnectString(), wait, cut})
              << "\n";
}
