// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "client/epoch.h"
#include "client/farewell.h"

namespace zr::halden::details {

/// Makes servers end sessions whose handles are closed, one after another.
///
///   Idle -> AwaitingAnswer | TakingUp          Begin: the request to end it was sent, or could not be
///   AwaitingAnswer -> Idle                     the server has confirmed it
///   AwaitingAnswer -> TakingUp                 the connection broke, or no answer came in time
///   TakingUp -> AwaitingAnswer                 another handle has the session, and asks to end it
///   TakingUp -> TakingUp                       it has lost the session again, or nobody answers
///   TakingUp -> Idle                           the session is gone; or the third try is in vain: then it ends after
///                                              its timeout
///
/// Threads: the connection's. Ownership: by the connection; timers and handles hold it weakly.
class SessionEnd final : public std::enable_shared_from_this<SessionEnd> {
 public:
  /// Opens a handle that takes up the session and tells it to the function; null when that is impossible.
  using OpenFunction =
      std::function<std::shared_ptr<Epoch>(const clientid_t& session, Epoch::SessionFunction onSession)>;

  /// `failed`: a session was left to its timeout. `done`: none is being ended any more.
  SessionEnd(PostFunction post, OpenFunction open, std::function<void()> failed, std::function<void()> done);

  /// `farewell`: from the session's own handle, if it could ask. `trip`: how far servers are, as far as is known.
  void Begin(const clientid_t& session, std::unique_ptr<Farewell> farewell, Clock::duration trip);
  bool UnderWay() const { return m_state != State::Idle; }

  // As TaskThread::Sockets.
  Clock::time_point Await(std::vector<pollfd>& sockets);
  void Ready(const pollfd& socket);

 private:
  enum class State : std::uint8_t { Idle, AwaitingAnswer, TakingUp };
  struct Session {
    clientid_t id;
    std::unique_ptr<Farewell> farewell;
    Clock::duration trip;
  };
  using Step = void (SessionEnd::*)();

  void Next();
  void AwaitAnswer(std::unique_ptr<Farewell> farewell);
  void TakeUp();
  void OnTakenUp(int state);
  void Ask();
  void Fail();
  void After(Clock::duration delay, Step step);

  const PostFunction m_post;
  const OpenFunction m_open;
  const std::function<void()> m_failed;
  const std::function<void()> m_done;

  State m_state = State::Idle;
  std::deque<Session> m_waiting;  // for their turn
  clientid_t m_session{};         // being ended
  Clock::duration m_patience{};   // how long its servers are waited for
  int m_tries = 0;
  std::unique_ptr<Farewell> m_farewell;  // while AwaitingAnswer
  std::shared_ptr<Epoch> m_epoch;        // while TakingUp
  std::uint64_t m_newestStep = 0;        // the only one that may still be taken
};

}  // namespace zr::halden::details
