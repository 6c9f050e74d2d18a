// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <iostream>

#include "simulation/ensemble.h"
#include "simulation/likeness/transcript.h"

int main(int argc, char** argv) {
  using namespace zr::halden::simulation;  // NOLINT(google-build-using-namespace)
  const auto wait = [](std::vector<pollfd>& sockets, Time end) {
    for (bool any = false; !any && world->now < end; world->RunUntil(world->now + 100us)) {
      for (auto& socket : sockets) {
        const auto link = Link::Find(socket.fd);
        socket.revents = link ? link->Ready(socket.events) : static_cast<short>(POLLNVAL);
        any = any || socket.revents != 0;
      }
    }
  };
  const auto cut = [](int socket) { Link::Find(socket)->Break(true); };
  for (int seed = 0; seed < (argc > 1 ? std::atoi(argv[1]) : 1); ++seed) {
    World played(static_cast<std::uint64_t>(seed));
    played.faults.reset();
    Ensemble ensemble(0, 1);
    ensemble.distance = {};
    std::cout << Transcript(static_cast<unsigned>(seed), {"10.0.0.0:2181", wait, cut}) << "\n";
  }
}
