// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agent/http/api.h"
#include "agent/http/event_stream.h"
#include "agent/http/limits.h"

namespace zr::halden::agent {

/// Where a client's connection stands.
///
///   Reading   -> Writing                         a request's header, or what is wrong with it
///             -> Waiting, Streaming              when the answer is that
///   Writing   -> Reading | Lingering             the answer's last byte
///   Waiting   -> Writing                         the list has changed, or the time is up
///   Lingering -> Closed                          the client closes, or does not for two seconds
///   any       -> Closed                          the client has gone, a deadline passed; a stream that ends
enum class ClientState : std::uint8_t { Reading, Writing, Waiting, Streaming, Lingering, Closed };

class Server;

/// One client, from its first byte to its last: requests one after the other, one answer at a time. It has one timer,
/// which stands for whatever it must do next; when that passes, it is closed.
///
/// Threads: the loop's. Ownership: the server shares it until it is closed; operations that are pending share
/// it, too, and end when it is closed.
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  using Socket = boost::asio::generic::stream_protocol::socket;
  using Clock = std::chrono::steady_clock;

  /// `server` must outlive it.
  ClientConnection(Socket socket, Server& server);

  void Start();
  /// Instead of `Start`: there are too many.
  void TurnAway();
  /// Views have changed, or which there are.
  void OnChange();
  /// The agent ends: what is being answered is answered, what waits or streams is sent away.
  void Leave();
  void Close();

 private:
  using Parser = boost::beast::http::request_parser<boost::beast::http::empty_body>;

  void SetState(ClientState state);
  void SetDeadline(std::chrono::milliseconds limit);
  void OnDeadline();

  void AwaitRequest();
  void ReadHeader();
  void OnHeader(const boost::system::error_code& error);
  void RefuseHeader(const boost::system::error_code& error);
  void Respond();
  void Send(Answer answer);
  void Write();
  void OnWritten(std::size_t bytes);
  void OnAnswered();
  void Linger();

  void Wait(WaitForChange wait);
  void Stream(BeginStream begin);
  void SendPiece();
  void AwaitBytes(std::function<void()> then);
  void OnBytes(const boost::system::error_code& error);

  Socket m_socket;
  Server& m_server;
  boost::asio::steady_timer m_timer;
  ClientState m_state = ClientState::Reading;
  boost::beast::flat_buffer m_buffer;
  std::optional<Parser> m_parser;
  Request m_request;
  std::string_view m_endpoint = "none";
  Clock::time_point m_begun;                  // of the request
  std::string m_head;                         // being sent; of a stream the next piece
  std::shared_ptr<const std::string> m_body;  // behind it
  std::size_t m_sent = 0;                     // of both
  bool m_keepAlive = true;                    // after this answer
  bool m_leaving = false;                     // the agent ends
  bool m_idle = false;                        // between two requests
  bool m_awaitingBytes = false;
  std::function<void()> m_onBytes;        // once they are there
  std::optional<WaitForChange> m_wait;    // in Waiting
  std::unique_ptr<EventStream> m_stream;  // in Streaming
};

}  // namespace zr::halden::agent
