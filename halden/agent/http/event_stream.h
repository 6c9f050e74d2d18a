// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/view/service_view.h"

namespace zr::halden::agent {

/// What one client of a stream is told, as text/event-stream; docs/agent.md has the events. It is made when the client
/// can take it: nothing waits here.
///
/// An event has an id where a client that has taken it, and nothing later, can go on from it. The first that has none
/// takes the id back, so that a browser which loses its connection then begins anew instead of being told twice. It does so
/// by an id of its own: after an empty one clients send none, and the id that they began with, in the query, would count.
class EventStream {
 public:
  using Clock = std::chrono::steady_clock;

  /// `lastEventId`: what the client was told last, empty for nothing.
  EventStream(std::vector<std::shared_ptr<const ServiceView>> views, std::string_view lastEventId,
              Clock::time_point now);

  /// What is to be sent now, in pieces of about kPieceBytes; empty when there is nothing.
  std::string Next(Clock::time_point now);
  Clock::time_point NextHeartbeat() const { return m_nextHeartbeat; }
  const std::vector<std::shared_ptr<const ServiceView>>& Views() const { return m_views; }

  /// The end, when it is the agent's: the client should ask again soon.
  static std::string Farewell();

 private:
  struct Source {
    Cursor cursor;
    bool synchronized = false;          // it has been told `synced` or `resumed`
    std::optional<Revision> resumable;  // as of the last event
    std::string greeting;               // the reset or resumed that is to be told first
  };

  void Restart(const ServiceView& view, Source& source, std::string_view reason) const;
  void Welcome(const ServiceView& view, Source& source, std::string_view tag) const;
  void TellNext(const ServiceView& view, Source& source, std::string& text);
  void AppendId(std::string& text);

  const std::vector<std::shared_ptr<const ServiceView>> m_views;
  std::vector<Source> m_sources;  // one for each view
  std::size_t m_turn = 0;         // whose turn it is to be first: the others may find no room
  bool m_begun = false;
  bool m_hasId = true;  // the client may have one
  Clock::time_point m_nextHeartbeat;
};

}  // namespace zr::halden::agent
