// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <utility>

namespace zr::halden::details {

/// Where the reading of one node stands.
///   idle -> reading -> idle;   reading -> reading again (changed meanwhile);   dirty: failed, to be read
///   again
struct ReadState {
  bool reading = false;
  bool again = false;
  bool audit = false;  // the read under way is the audit's: it should find nothing new
  bool dirty = false;
  bool refused = false;      // dirty, and asking again will not help by itself
  bool toldRefused = false;  // ... as the log has been told
};

/// Keeps the sums over all nodes' ReadStates right. A part of a reader; its thread.
class ReadLedger {
 public:
  /// True when the node is to be read now; a read under way is told to be followed by another.
  bool Begin(ReadState& state) {
    if (state.reading) {
      state.again = true;
      return false;
    }
    Clean(state);
    state.reading = true;
    ++m_pending;
    return true;
  }

  /// False when the node has changed since the read began: the answer may be outdated.
  bool End(ReadState& state) {
    state.reading = false;
    --m_pending;
    if (!std::exchange(state.again, false)) return true;
    state.audit = false;  // the event has come
    return false;
  }

  void Fail(ReadState& state, bool refused) {
    state.audit = false;
    if (!std::exchange(state.dirty, true)) ++m_dirty;
    if (refused && !std::exchange(state.refused, true)) ++m_refused;
  }

  void Clean(ReadState& state) {
    if (std::exchange(state.dirty, false)) --m_dirty;
    if (std::exchange(state.refused, false)) --m_refused;
  }

  std::size_t Pending() const { return m_pending; }
  std::size_t Dirty() const { return m_dirty; }
  std::size_t Refused() const { return m_refused; }

 private:
  std::size_t m_pending = 0;  // nodes being read or waiting for it
  std::size_t m_dirty = 0;
  std::size_t m_refused = 0;
};

}  // namespace zr::halden::details
