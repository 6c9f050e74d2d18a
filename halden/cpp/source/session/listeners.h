// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/task_thread.h"

namespace zr::halden::details {

/// How a connection has come to be.
///   NewSession   the session was created just now, and its server is up to date; no watch is set, nothing is under way
///   NewHandle    nothing is set or under way either, but the session is older
///   SameHandle   the handle went on, with its watches
enum class Arrival : std::uint8_t { NewSession, NewHandle, SameHandle };

/// What works through a connection. Called on the connection's thread, in the order things happened.
class ConnectionListener {
 public:
  virtual ~ConnectionListener() = default;

  /// Requests can be made.
  virtual void OnConnected(Arrival arrival) = 0;
  /// Requests cannot be made for now. `epochOver`: the handle goes away, and with it every watch and every
  /// request; no answer will come. Else requests under way are answered with an error.
  virtual void OnDisconnected(bool epochOver) = 0;
  /// The session is lost and will not be replaced by itself: ZSESSIONEXPIRED or ZAUTHFAILED.
  virtual void OnSessionError(int code) = 0;
  /// The connection's state is another one.
  virtual void OnStateChanged() {}
};

/// A connection's listeners, held weakly. Its thread.
class Listeners {
 public:
  void Add(const std::shared_ptr<ConnectionListener>& listener) {
    if (m_listeners.size() > 2 * m_living + 16) ForgetDead();
    m_listeners.push_back(listener);
  }

  template <typename Function>
  void Tell(const Function& what) {
    ForgetDead();
    const auto listeners = m_listeners;  // a listener may add another
    for (const auto& weak : listeners) {
      if (const auto listener = weak.lock()) TaskThread::RunGuarded([&] { what(*listener); });
    }
  }

 private:
  void ForgetDead() {
    std::erase_if(m_listeners, [](const auto& weak) { return weak.expired(); });
    m_living = m_listeners.size();
  }

  std::vector<std::weak_ptr<ConnectionListener>> m_listeners;
  std::size_t m_living = 0;  // of these, when it was last looked at
};

}  // namespace zr::halden::details
