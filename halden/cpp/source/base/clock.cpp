// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "base/clock.h"

namespace zr::halden::details {

Clock::time_point Clock::now() noexcept {
  return std::chrono::steady_clock::now();
}

std::chrono::system_clock::time_point TimeOfDay() noexcept {
  return std::chrono::system_clock::now();
}

}  // namespace zr::halden::details
