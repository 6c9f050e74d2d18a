// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/session_end.h"

#include <utility>

namespace zr::halden::details {

namespace {

// A server is waited for so long, and for the round trips of a connection, a session and an answer behind others.
constexpr std::chrono::seconds kPatience{2};
constexpr int kTrips = 4;
constexpr int kTries = 3;

}  // namespace

SessionEnd::SessionEnd(PostFunction post, OpenFunction open, std::function<void()> failed,
                       std::function<void()> done)
    : m_post(std::move(post)),
      m_open(std::move(open)),
      m_failed(std::move(failed)),
      m_done(std::move(done)) {}

void SessionEnd::Begin(const clientid_t& session, std::unique_ptr<Farewell> farewell, Clock::duration trip) {
  m_waiting.push_back({session, std::move(farewell), trip});
  if (m_state == State::Idle) Next();
}

/// The session before is done with, one way or the other.
void SessionEnd::Next() {
  ++m_newestStep;
  m_farewell.reset();
  m_epoch.reset();
  m_tries = 0;
  if (m_waiting.empty()) {
    m_state = State::Idle;
    return m_done();
  }
  m_session = m_waiting.front().id;
  m_patience = kPatience + kTrips * m_waiting.front().trip;
  auto farewell = std::move(m_waiting.front().farewell);
  m_waiting.pop_front();
  farewell ? AwaitAnswer(std::move(farewell)) : TakeUp();
}

void SessionEnd::AwaitAnswer(std::unique_ptr<Farewell> farewell) {
  m_state = State::AwaitingAnswer;
  m_epoch.reset();
  m_farewell = std::move(farewell);
  After(m_patience, &SessionEnd::TakeUp);
}

void SessionEnd::TakeUp() {
  m_state = State::TakingUp;
  m_farewell.reset();
  if (++m_tries > kTries) return Fail();
  m_epoch = m_open(m_session, [weak = weak_from_this()](Epoch& epoch, int state) {
    const auto self = weak.lock();
    if (self && self->m_epoch.get() == &epoch) self->OnTakenUp(state);
  });
  if (!m_epoch) return Fail();
  // It may have begun with a server that is out of reach, or the way is longer than is known.
  After(std::exchange(m_patience, 2 * m_patience), &SessionEnd::TakeUp);
}

/// The handle is not closed from inside what it tells.
void SessionEnd::OnTakenUp(int state) {
  if (state == ZOO_CONNECTED_STATE) {
    After(Clock::duration::zero(), &SessionEnd::Ask);
  } else if (state == ZOO_EXPIRED_SESSION_STATE) {
    After(Clock::duration::zero(), &SessionEnd::Next);
  } else if (state == ZOO_AUTH_FAILED_STATE) {
    After(Clock::duration::zero(), &SessionEnd::Fail);
  }
}

void SessionEnd::Ask() {
  auto farewell = m_epoch->Close();
  farewell ? AwaitAnswer(std::move(farewell)) : TakeUp();
}

void SessionEnd::Fail() {
  m_failed();
  Next();
}

/// Takes the place of a step that was to come.
void SessionEnd::After(Clock::duration delay, Step step) {
  m_post(delay, [weak = weak_from_this(), number = ++m_newestStep, step] {
    const auto self = weak.lock();
    if (self && self->m_newestStep == number) (self.get()->*step)();
  });
}

Clock::time_point SessionEnd::Await(std::vector<pollfd>& sockets) {
  if (m_farewell) sockets.push_back({m_farewell->Socket(), POLLIN, 0});
  const auto epoch = m_epoch;
  return epoch ? epoch->Await(sockets) : Clock::time_point::max();
}

void SessionEnd::Ready(const pollfd& socket) {
  if (m_farewell && m_farewell->Socket() == socket.fd) {
    const auto result = m_farewell->Read();
    if (result == Farewell::Result::Ended) return Next();
    if (result == Farewell::Result::Unknown) return TakeUp();
  } else if (const auto epoch = m_epoch) {
    epoch->Ready(socket);
  }
}

}  // namespace zr::halden::details
