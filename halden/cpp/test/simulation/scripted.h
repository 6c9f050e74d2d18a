// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace zr::halden::simulation {

struct DataCenter;

// Plays of a fixed course, for what chance seldom meets or no rule for all runs can tell, in a world without other faults.
using Course = void (*)(DataCenter& dc);

/// False, and said why, when something is not as it must be.
bool PlayScripted(std::uint64_t seed, Course course);

/// Clients that come back together read what they do not know at once, and what they know at moments of their own.
void SpreadsReads(DataCenter& dc);

/// A client that saw the newest and is left with nobody but a leader that was deposed does not believe what that one says.
/// Seeds with one server play nothing.
void DistrustsDeposedLeaders(DataCenter& dc);

/// Where one of three servers is silent, hung or cut off, clients that come and clients that it had are soon at another.
void LeavesSilentServers(DataCenter& dc);

/// From far away a load, a join, an update and a removal take no more round trips than they need, a lost event is found
/// by the audit, and a watcher that ends costs the others nothing.
void FollowsFromFarAway(DataCenter& dc);

/// A publisher whose node may not be read for a moment, time and again, is soon back each time; against somebody who
/// deletes it again and again it wages no war.
void RetriesInGoodTime(DataCenter& dc);

/// Over a narrow way a load holds up no write for longer than 64 KiB take, and answers that take long cost no session.
void LoadsOverANarrowWay(DataCenter& dc);

}  // namespace zr::halden::simulation
