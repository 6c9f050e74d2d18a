// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "publish/publisher_phase.h"

namespace zr::halden::details {

bool IsLegal(PublisherPhase from, PublisherPhase to) {
  using P = PublisherPhase;
  if (to == P::Disconnected) return true;
  switch (from) {
    case P::Absent:
      return to == P::Absent || to == P::Creating || to == P::AwaitingClaim;
    case P::Disconnected:
    case P::AwaitingClaim:
      return to == P::Looking || to == P::Creating || to == P::AwaitingClaim || to == P::Absent;
    case P::BackingOff:
      return to == P::Looking || to == P::Creating || to == P::Absent;
    case P::Published:
      return to == P::Published || to == P::Looking || to == P::Writing || to == P::Deleting;
    case P::Yielded:
      return to == P::Yielded || to == P::Looking || to == P::Absent;
    case P::Looking:
      return to != P::Looking && to != P::AwaitingClaim && to != P::CreatingWithParents;
    case P::Creating:
      return to == P::Looking || to == P::CreatingWithParents || to == P::BackingOff || to == P::Absent;
    case P::CreatingWithParents:
      return to == P::Looking || to == P::BackingOff;
    case P::Writing:
      return to == P::Looking || to == P::BackingOff || to == P::Absent;
    case P::Marking:
      return to == P::Deleting || to == P::Creating || to == P::BackingOff || to == P::Absent;
    case P::Deleting:
      return to == P::Creating || to == P::BackingOff || to == P::Absent;
  }
  return false;
}

std::string_view NameOf(PublisherPhase phase) {
  switch (phase) {
    case PublisherPhase::Absent:
      return "absent";
    case PublisherPhase::Disconnected:
      return "disconnected";
    case PublisherPhase::BackingOff:
      return "backing off";
    case PublisherPhase::AwaitingClaim:
      return "awaiting the claim";
    case PublisherPhase::Published:
      return "published";
    case PublisherPhase::Yielded:
      return "yielded";
    case PublisherPhase::Looking:
      return "looking";
    case PublisherPhase::Creating:
      return "creating";
    case PublisherPhase::CreatingWithParents:
      return "creating with parents";
    case PublisherPhase::Writing:
      return "writing";
    case PublisherPhase::Marking:
      return "marking";
    case PublisherPhase::Deleting:
      return "deleting";
  }
  return "unknown";
}

}  // namespace zr::halden::details
