// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <deque>
#include <memory>

namespace zr::halden::details {

/// One with many requests to make, of which none is urgent. The connection's thread.
class BulkReader {
 public:
  virtual ~BulkReader() = default;
  /// Makes the next of its requests; false when there is no other one.
  virtual bool SendNext() = 0;
};

/// Whose turn it is to make a request: one after another, one request each, so that none waits for all of another's.
/// Holds them weakly. The connection's thread.
class BulkTurns {
 public:
  void Ask(const std::weak_ptr<BulkReader>& reader) {
    const auto same = [&](const auto& one) { return !one.owner_before(reader) && !reader.owner_before(one); };
    if (std::none_of(m_waiting.begin(), m_waiting.end(), same)) m_waiting.push_back(reader);
  }

  bool Empty() const { return m_waiting.empty(); }

  /// Lets the first make one request.
  void Serve() {
    const auto weak = m_waiting.front();
    m_waiting.pop_front();
    const auto reader = weak.lock();
    if (reader && reader->SendNext()) m_waiting.push_back(weak);
  }

 private:
  std::deque<std::weak_ptr<BulkReader>> m_waiting;
};

}  // namespace zr::halden::details
