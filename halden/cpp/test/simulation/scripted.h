// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace zr::halden::simulation {

// Plays of a fixed course, for what chance seldom meets or no rule for all runs can tell. False, and said why, when
// something is not as it must be.

/// Clients that come back together read what they do not know at once, and what they know at moments of their own.
bool SpreadsReads(std::uint64_t seed);

/// A client that saw the newest and is left with nobody but a leader that was deposed does not believe what that one says.
/// Seeds with one server play nothing.
bool DistrustsDeposedLeaders(std::uint64_t seed);

/// Where one of three servers is silent, hung or cut off, clients that come and clients that it had are soon at another.
bool LeavesSilentServers(std::uint64_t seed);

/// From far away a load, a join, an update and a removal take no more round trips than they need, a lost event is found
/// by the audit, and a watcher that ends costs the others nothing.
bool FollowsFromFarAway(std::uint64_t seed);

/// A publisher whose node may not be read for a moment, time and again, is soon back each time; against somebody who
/// deletes it again and again it wages no war.
bool RetriesInGoodTime(std::uint64_t seed);

/// Over a narrow way a load holds up no write for longer than 64 KiB take, and answers that take long cost no session.
bool LoadsOverANarrowWay(std::uint64_t seed);

}  // namespace zr::halden::simulation
