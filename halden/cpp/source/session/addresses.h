// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "base/task_thread.h"
#include "client/name_resolution.h"

namespace zr::halden::details {

/// An ensemble's numeric addresses, as far as they are known. Names are resolved on a thread that exists only
/// meanwhile, since a resolver can block for long.
///
/// Threads: the connection's.
class Addresses {
 public:
  /// `error`: why no host resolves; empty when any does.
  using DoneFunction = std::function<void(const zr::String& error)>;

  Addresses(std::vector<HostPort> hosts, PostFunction post);

  /// "address:port,address:port..."; empty before any host has resolved. What was known once stays, if a later
  /// try finds nothing.
  const zr::String& Text() const { return m_state->text; }
  bool AreNames() const { return m_areNames; }

  /// Resolves anew; `done` follows on this thread, at once if there are only addresses to take over. Not when
  /// a resolution is under way already: that one's `done` will do.
  void Resolve(DoneFunction done);

 private:
  struct State {
    zr::String text;
    bool resolving = false;
  };

  const std::vector<HostPort> m_hosts;
  const bool m_areNames;
  const PostFunction m_post;
  const std::shared_ptr<State> m_state = std::make_shared<State>();
};

}  // namespace zr::halden::details
