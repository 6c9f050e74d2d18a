// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>

#include <functional>
#include <string>
#include <vector>

#include "base/clock.h"

namespace zr::halden::simulation {

/// What the two programs differ in: one has a real server and the real client library, the other the simulated ones.
struct Side {
  std::string address;
  /// Until something has happened to one of the sockets, or `end`.
  std::function<void(std::vector<pollfd>& sockets, details::Clock::time_point end)> wait;
  /// Breaks the connection that has this socket.
  std::function<void(int socket)> cut;
};

/// Plays a random sequence of requests, of two clients, and tells what came of each: codes, nodes, events, in their order.
std::string Transcript(unsigned seed, const Side& side);

}  // namespace zr::halden::simulation
