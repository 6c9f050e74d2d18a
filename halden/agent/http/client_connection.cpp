// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/client_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "agent/http/server.h"

namespace zr::halden::agent {

namespace http = boost::beast::http;
using boost::system::error_code;

namespace {

bool IsLegal(ClientState from, ClientState to) {
  switch (from) {
    case ClientState::Reading:
      return to != ClientState::Lingering;
    case ClientState::Writing:
      return to == ClientState::Reading || to == ClientState::Lingering || to == ClientState::Closed;
    case ClientState::Waiting:
      return to == ClientState::Writing || to == ClientState::Closed;
    case ClientState::Streaming:
    case ClientState::Lingering:
      return to == ClientState::Closed;
    case ClientState::Closed:
      return false;
  }
  return false;
}

/// Kernel memory for what a client does not read; streams are written piece by piece anyway.
void BoundSendBuffer(ClientConnection::Socket& socket, int bytes) {
  error_code ignored;
  socket.set_option(boost::asio::socket_base::send_buffer_size(bytes), ignored);
}

}  // namespace

ClientConnection::ClientConnection(Socket socket, Server& server)
    : m_socket(std::move(socket)),
      m_server(server),
      m_timer(m_socket.get_executor()),
      m_buffer(2 * kMostHeaderBytes) {}

void ClientConnection::Start() {
  error_code ignored;
  m_socket.non_blocking(true, ignored);
  BoundSendBuffer(m_socket, kAnswerBufferBytes);
  SetDeadline(kHeaderLimit);
  ReadHeader();
}

void ClientConnection::TurnAway() {
  error_code ignored;
  m_socket.non_blocking(true, ignored);
  m_begun = Clock::now();
  Answer answer = TryLater("Ask again later: too many clients are connected.");
  answer.close = true;
  Send(std::move(answer));
}

void ClientConnection::SetState(ClientState state) {
  if (!IsLegal(m_state, state)) throw std::logic_error("illegal change of a client connection's state");
  const bool listened = m_state == ClientState::Waiting || m_state == ClientState::Streaming;
  m_state = state;
  if (listened) m_server.RemoveListener(*this);
}

void ClientConnection::SetDeadline(std::chrono::milliseconds limit) {
  m_timer.expires_after(limit);
  m_timer.async_wait([self = shared_from_this()](const error_code& error) {
    // Set anew while this was under way? Then another one is pending.
    if (!error && self->m_timer.expiry() <= Clock::now()) self->OnDeadline();
  });
}

void ClientConnection::OnDeadline() {
  if (m_state == ClientState::Waiting) {
    m_begun = Clock::now();
    Answer unchanged = std::move(m_wait->unchanged);
    Send(std::move(unchanged));
  } else if (m_state == ClientState::Streaming && m_head.empty()) {
    SendPiece();  // a heartbeat is due
  } else {
    if (m_state == ClientState::Reading && !m_idle) m_server.Metrics().CountRejected("slow_request");
    if (!m_head.empty()) m_server.Metrics().CountRejected("slow_reader");
    Close();
  }
}

/// Between two requests. One that was sent ahead is there already.
void ClientConnection::AwaitRequest() {
  if (m_leaving) return Linger();
  SetState(ClientState::Reading);
  if (m_buffer.size() != 0) {
    SetDeadline(kHeaderLimit);
    return ReadHeader();
  }
  m_idle = true;
  SetDeadline(kIdleLimit);
  AwaitBytes([this] {
    if (m_state != ClientState::Reading) return;
    SetDeadline(kHeaderLimit);
    ReadHeader();
  });
}

void ClientConnection::ReadHeader() {
  m_idle = false;
  m_parser.emplace();
  m_parser->header_limit(kMostHeaderBytes);
  http::async_read_header(m_socket, m_buffer, *m_parser,
                          [self = shared_from_this()](const error_code& error, std::size_t /*bytes*/) {
                            if (self->m_state == ClientState::Reading) self->OnHeader(error);
                          });
}

void ClientConnection::OnHeader(const error_code& error) {
  m_begun = Clock::now();
  m_endpoint = "refused";
  if (error) return RefuseHeader(error);
  auto read =
      ReadRequest(m_parser->get().base(), m_parser->keep_alive(), !m_parser->is_done(), m_server.Hosts());
  m_parser.reset();
  if (auto* refusal = std::get_if<Answer>(&read)) {
    m_request = {};
    return Send(std::move(*refusal));
  }
  m_request = std::move(std::get<Request>(read));
  if (const std::string* id = m_request.target.Find("last_event_id");
      id != nullptr && m_request.lastEventId.empty()) {
    m_request.lastEventId = *id;
  }
  Respond();
}

void ClientConnection::RefuseHeader(const error_code& error) {
  const bool gone = error == http::error::end_of_stream || error == http::error::partial_message ||
                    error.category() != http::make_error_code(http::error::bad_method).category();
  if (gone) return Close();
  const bool tooLong = error == http::error::header_limit || error == http::error::buffer_overflow;
  m_server.Metrics().CountRejected(tooLong ? "long_header" : "bad_request");
  m_request = {};
  Answer answer = tooLong ? Problem(431, "Send a header of 8 KiB at most.")
                          : Problem(400, "Send a request of HTTP/1.1 that is well formed.");
  answer.close = true;
  Send(std::move(answer));
}

void ClientConnection::Respond() {
  Reply reply = m_server.Handle(m_request);
  m_endpoint = reply.endpoint;
  if (auto* answer = std::get_if<Answer>(&reply.what)) return Send(std::move(*answer));
  if (m_leaving || (m_request.isHead && std::holds_alternative<BeginStream>(reply.what))) {
    Answer head;
    head.contentType = "text/event-stream";
    head.body = std::make_shared<const std::string>();
    return Send(m_leaving ? TryLater("Ask again: the agent is being restarted.") : std::move(head));
  }
  if (!m_server.AddListener(*this)) {
    m_server.Metrics().CountRejected("listeners");
    return Send(TryLater("Ask again later: too many clients wait or stream."));
  }
  if (auto* wait = std::get_if<WaitForChange>(&reply.what)) return Wait(std::move(*wait));
  Stream(std::get<BeginStream>(std::move(reply.what)));
}

void ClientConnection::Send(Answer answer) {
  SetState(ClientState::Writing);
  m_wait.reset();
  m_server.Metrics().CountRequest(m_endpoint, answer.status);
  m_keepAlive = m_request.keepAlive && !answer.close && !m_leaving;
  m_head = HeaderText(answer, m_keepAlive);
  m_body = m_request.isHead ? nullptr : std::move(answer.body);
  m_sent = 0;
  SetDeadline(kProgressLimit);
  Write();
}

void ClientConnection::Write() {
  const std::size_t ofHead = std::min(m_sent, m_head.size());
  const std::size_t bodySize = m_body ? m_body->size() : 0;
  const std::array<boost::asio::const_buffer, 2> rest{
      boost::asio::buffer(m_head) + ofHead,
      boost::asio::const_buffer(m_body ? m_body->data() : nullptr, bodySize) + (m_sent - ofHead)};
  m_socket.async_write_some(rest, [self = shared_from_this()](const error_code& error, std::size_t bytes) {
    if (self->m_state == ClientState::Closed) return;
    if (error) return self->Close();
    self->OnWritten(bytes);
  });
}

void ClientConnection::OnWritten(std::size_t bytes) {
  m_sent += bytes;
  if (m_sent < m_head.size() + (m_body ? m_body->size() : 0)) {
    SetDeadline(kProgressLimit);
    return Write();
  }
  m_head.clear();
  m_body.reset();
  m_sent = 0;
  if (m_state == ClientState::Streaming) return SendPiece();
  OnAnswered();
}

void ClientConnection::OnAnswered() {
  m_server.Metrics().CountDuration(m_endpoint, Clock::now() - m_begun);
  if (m_keepAlive) return AwaitRequest();
  Linger();
}

/// What the client still sends is read and dropped: closing over it would make the system take the answer back.
void ClientConnection::Linger() {
  if (m_state != ClientState::Lingering) {
    SetState(ClientState::Lingering);
    error_code ignored;
    m_socket.shutdown(Socket::shutdown_send, ignored);
    m_buffer.clear();
    SetDeadline(kLingerLimit);
  }
  m_socket.async_read_some(m_buffer.prepare(kMostHeaderBytes),
                           [self = shared_from_this()](const error_code& error, std::size_t /*bytes*/) {
                             if (self->m_state == ClientState::Closed) return;
                             if (error) return self->Close();
                             self->Linger();
                           });
}

void ClientConnection::Wait(WaitForChange wait) {
  SetState(ClientState::Waiting);
  SetDeadline(wait.limit);
  m_wait = std::move(wait);
  AwaitBytes([] {});  // what it sends ahead can wait
}

void ClientConnection::Stream(BeginStream begin) {
  SetState(ClientState::Streaming);
  BoundSendBuffer(m_socket, kStreamBufferBytes);
  m_server.Metrics().CountRequest(m_endpoint, 200);
  m_stream = std::make_unique<EventStream>(std::move(begin.views), m_request.lastEventId, Clock::now());
  m_request = {};
  m_buffer = boost::beast::flat_buffer(kMostHeaderBytes);
  m_head = StreamHeaderText();
  SetDeadline(kProgressLimit);
  Write();
  AwaitBytes([] {});  // what it sends ahead can wait
}

/// The next piece, if there is one. The deadline is then for its sending, else for the next heartbeat.
void ClientConnection::SendPiece() {
  if (!m_stream) return Close();  // it has been told that this is the end
  const auto now = Clock::now();
  const bool ends = m_leaving || !std::all_of(m_stream->Views().begin(), m_stream->Views().end(),
                                              [this](const auto& view) { return m_server.IsFollowed(view); });
  m_head = ends ? EventStream::Farewell() : m_stream->Next(now);
  if (ends) m_stream.reset();
  if (m_head.empty()) {
    return SetDeadline(std::chrono::ceil<std::chrono::milliseconds>(m_stream->NextHeartbeat() - now));
  }
  SetDeadline(kProgressLimit);
  Write();
}

void ClientConnection::OnChange() {
  if (m_state == ClientState::Streaming && m_head.empty()) SendPiece();
  if (m_state != ClientState::Waiting) return;
  if (m_wait->view->ListRevision() == m_wait->revision && m_server.IsFollowed(m_wait->view)) return;
  m_begun = Clock::now();  // waiting was no work
  m_wait->revision = m_wait->view->ListRevision();
  Reply reply = m_server.Handle(m_request);
  if (auto* answer = std::get_if<Answer>(&reply.what)) Send(std::move(*answer));
}

void ClientConnection::Leave() {
  m_leaving = true;
  if (m_state == ClientState::Reading) return Close();
  if (m_state == ClientState::Waiting) OnDeadline();
  if (m_state == ClientState::Streaming && m_head.empty()) SendPiece();
}

/// Until bytes are there, which `then` is called for, or the client has gone, which ends the connection: while it waits or
/// streams that would be noticed by the next write only. That something can be read may be said of what was read
/// already, so it is looked at.
void ClientConnection::AwaitBytes(std::function<void()> then) {
  m_onBytes = std::move(then);
  if (std::exchange(m_awaitingBytes, true)) return;  // since an earlier request
  m_socket.async_wait(Socket::wait_read, [self = shared_from_this()](const error_code& error) {
    self->m_awaitingBytes = false;
    if (self->m_state != ClientState::Closed) self->OnBytes(error);
  });
}

void ClientConnection::OnBytes(const error_code& error) {
  char byte = 0;
  const auto got = recv(m_socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  const bool nothing = got < 0 && (errno == EAGAIN || errno == EINTR);
  if (error || got == 0 || (got < 0 && !nothing)) return Close();
  const auto then = std::exchange(m_onBytes, nullptr);
  if (nothing) return AwaitBytes(then);
  then();
}

void ClientConnection::Close() {
  if (m_state == ClientState::Closed) return;
  const auto self = shared_from_this();  // the host lets go of it
  SetState(ClientState::Closed);
  m_timer.cancel();
  error_code ignored;
  m_socket.close(ignored);
  m_server.OnClosed(*this);
}

}  // namespace zr::halden::agent
