// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace zr::halden::details {

/// The time that everything here goes by. Not inline: programs that simulate link another. Any thread.
struct Clock {
  using duration = std::chrono::steady_clock::duration;
  using time_point = std::chrono::steady_clock::time_point;

  static time_point now() noexcept;
};

/// The time of day, for people.
std::chrono::system_clock::time_point TimeOfDay() noexcept;

}  // namespace zr::halden::details
