// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string_view>

namespace zr::halden::details {

/// What a publisher is doing about its node. In some phases it rests, in others one exchange with ZooKeeper is
/// under way, and it waits for the answer.
///
///   resting
///     Absent               nothing is wished, and nothing of ours is there
///     Disconnected         goes on when connected
///     BackingOff           goes on after a while, or when something else has changed
///     AwaitingClaim        goes on when another publisher of this connection lets go of the path
///     Published            the node is as wished, and watched
///     Yielded              a rival's node is there, and watched
///   an exchange is under way
///     Looking              whose node is there, and what is in it?
///     Creating
///     CreatingWithParents
///     Writing
///     Marking              writes a foreign node as it is, to delete it and no other
///     Deleting
///
///   Absent              -> Creating, AwaitingClaim
///   Disconnected        -> Looking, Creating, AwaitingClaim, Absent
///   BackingOff          -> Looking, Creating, Absent
///   AwaitingClaim       -> Looking, Creating, Absent
///   Published           -> Looking, Writing, Deleting
///   Yielded             -> Looking, Absent
///   Looking             -> any but AwaitingClaim and CreatingWithParents
///   Creating            -> Looking, CreatingWithParents, BackingOff, Absent
///   CreatingWithParents -> Looking, BackingOff
///   Writing             -> Looking, BackingOff, Absent
///   Marking             -> Deleting, Creating, BackingOff, Absent
///   Deleting            -> Creating, BackingOff, Absent
///   any                 -> Disconnected
///   Absent, Disconnected, AwaitingClaim, Published, Yielded -> the same, for another wish
enum class PublisherPhase : std::uint8_t {
  Absent,
  Disconnected,
  BackingOff,
  AwaitingClaim,
  Published,
  Yielded,
  Looking,
  Creating,
  CreatingWithParents,
  Writing,
  Marking,
  Deleting,
};

bool IsLegal(PublisherPhase from, PublisherPhase to);

/// An exchange: its answer decides what comes next.
inline bool IsUnderWay(PublisherPhase phase) {
  return phase >= PublisherPhase::Looking;
}

std::string_view NameOf(PublisherPhase phase);

}  // namespace zr::halden::details
