// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <list>
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

  /// Lets the first make one request. It cannot lose its place by running out of memory.
  void Serve() {
    std::list<std::weak_ptr<BulkReader>> first;
    first.splice(first.begin(), m_waiting, m_waiting.begin());
    const auto reader = first.front().lock();
    if (reader && reader->SendNext()) m_waiting.splice(m_waiting.end(), first);
  }

 private:
  std::list<std::weak_ptr<BulkReader>> m_waiting;
};

}  // namespace zr::halden::details
