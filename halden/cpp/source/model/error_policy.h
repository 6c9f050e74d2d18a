// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace zr::halden::details {

/// What to do about the result of a ZooKeeper request.
enum class ErrorAction : std::uint8_t {
  Done,          ///< it worked
  Absent,        ///< the node does not exist: evidence, not trouble
  Conflict,      ///< the node is not as assumed: look at it again
  AwaitSession,  ///< the connection or session broke: ask again once there is one
  Retry,         ///< the ensemble could not do it now: ask again after a back-off
  Report,        ///< asking again will not help by itself: tell the application, and try again now and then
};

ErrorAction ActionFor(int code);

}  // namespace zr::halden::details
