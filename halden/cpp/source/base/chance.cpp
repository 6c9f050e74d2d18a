// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "base/chance.h"

#include <random>

namespace zr::halden::details {

double Chance() {
  thread_local std::minstd_rand random{std::random_device{}()};
  return std::uniform_real_distribution<double>(0, 1)(random);
}

}  // namespace zr::halden::details
