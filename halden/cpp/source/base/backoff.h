// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>

#include "base/chance.h"

namespace zr::halden::details {

/// Delays between tries: doubling from `first` to `limit`, each spread over half to one and a half times its
/// value, so that clients that failed together do not come back together. Owned by one thread.
class Backoff {
 public:
  Backoff(std::chrono::milliseconds first, std::chrono::milliseconds limit)
      : m_first(first), m_limit(limit), m_next(first) {}

  std::chrono::milliseconds Next() {
    const auto base = m_next;
    m_next = std::min(m_limit, m_next * 2);
    return std::chrono::milliseconds(static_cast<long>(static_cast<double>(base.count()) * (0.5 + Chance())));
  }

  void Reset() { m_next = m_first; }

 private:
  std::chrono::milliseconds m_first;
  std::chrono::milliseconds m_limit;
  std::chrono::milliseconds m_next;
};

}  // namespace zr::halden::details
