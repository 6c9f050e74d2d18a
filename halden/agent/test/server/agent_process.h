// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "agent/bench/process.h"
#include "halden/testing/poll.h"

namespace zr::halden::agent {

/// A client that says and reads bytes, as no library would let it.
class RawClient {
 public:
  explicit RawClient(std::uint16_t port, int receiveBuffer = 0)
      : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receiveBuffer != 0) setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  RawClient(RawClient&& other) noexcept
      : m_socket(std::exchange(other.m_socket, -1)), m_text(std::move(other.m_text)) {}
  RawClient& operator=(RawClient&&) = delete;
  ~RawClient() {
    if (m_socket >= 0) close(m_socket);
  }

  void Send(const std::string& bytes) const {
    static_cast<void>(send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  void Get(const std::string& target, const std::string& headers = {}) const {
    Send("GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n");
  }
  /// What has come up to and with `end`, which is taken away; all that came if the connection ends before, or it
  /// does not come within twenty seconds.
  std::string ReadUntil(const std::string& end) {
    const auto deadline = std::chrono::steady_clock::now() + testing::kLimit;
    auto at = m_text.find(end);
    while (at == std::string::npos && std::chrono::steady_clock::now() < deadline && ReadMore())
      at = m_text.find(end);
    const auto length = at == std::string::npos ? m_text.size() : at + end.size();
    std::string read = m_text.substr(0, length);
    m_text.erase(0, length);
    return read;
  }
  /// Up to the end of the next event of that name.
  std::string ReadEvent(const std::string& name) {
    std::string read = ReadUntil("event: " + name + '\n');
    return read += ReadUntil("\n\n");
  }
  std::string ReadToEnd() { return ReadUntil("no answer has this in it"); }
  /// What has come by now; null once the other has ended it and all was read.
  std::optional<std::string> ReadNow() const {
    std::array<char, 4096> part{};
    const ssize_t length = recv(m_socket, part.data(), part.size(), MSG_DONTWAIT);
    if (length == 0 || (length < 0 && errno != EAGAIN)) return std::nullopt;
    return std::string(part.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
  }
  /// Goes away without a word, or with a reset.
  void Reset() {
    const linger hard{1, 0};
    setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(std::exchange(m_socket, -1));
  }

 private:
  bool ReadMore() {
    constexpr int limitMs = 20'000;
    pollfd readable{m_socket, POLLIN, 0};
    std::array<char, 65536> part{};
    if (poll(&readable, 1, limitMs) <= 0) return false;
    const ssize_t length = recv(m_socket, part.data(), part.size(), 0);
    if (length > 0) m_text.append(part.data(), static_cast<std::size_t>(length));
    return length > 0;
  }

  int m_socket;
  std::string m_text;
};

/// `halden serve`, at a port of its own or a given one. Killed when it outlives the test.
class AgentProcess {
 public:
  explicit AgentProcess(const std::string& words, std::uint16_t port = 0)
      : m_process(
            HALDEN_COMMAND " serve --log-level off --listen 127.0.0.1:" + std::to_string(port) + ' ' + words,
            STDOUT_FILENO) {
    const auto text = m_process.Read('\n').value_or("");
    EXPECT_NE(text.find("listening on http://127.0.0.1:"), std::string::npos) << text;
    m_port = static_cast<std::uint16_t>(std::atoi(text.substr(text.rfind(':') + 1).c_str()));
  }

  std::uint16_t Port() const { return m_port; }
  void Signal(int signal) const { m_process.Signal(signal); }
  int End() { return m_process.End(); }
  long ResidentKiB() const { return m_process.ResidentKiB(); }

  /// The whole answer to a request that ends its connection.
  std::string Ask(const std::string& target, const std::string& headers = {}) const {
    RawClient client(m_port);
    client.Get(target, headers + "Connection: close\r\n");
    return client.ReadToEnd();
  }
  /// The answer, once it has this in it.
  std::string Await(const std::string& target, const std::string& part) const {
    std::string answer;
    testing::Poll(testing::kLimit, [&] { return (answer = Ask(target)).find(part) != std::string::npos; });
    return answer;
  }

 private:
  Process m_process;
  std::uint16_t m_port = 0;
};

}  // namespace zr::halden::agent
