// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>

namespace zr::halden::details {

/// A time to wait that no clock overflows at: what is meant to be for ever is a day.
inline std::chrono::milliseconds WaitLimit(std::chrono::milliseconds limit) {
  return std::min<std::chrono::milliseconds>(limit, std::chrono::hours(24));
}

}  // namespace zr::halden::details
