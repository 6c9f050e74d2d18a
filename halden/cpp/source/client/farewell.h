// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>

#include "base/file_descriptor.h"

namespace zr::halden::details {

/// What is left of a connection whose handle was closed with the request to end its session: the socket, on
/// which the answer comes behind all others. Kept open until then: to close a socket with answers unread
/// resets the connection, and a server that has not read the request by then never does.
class Farewell {
 public:
  enum class Result : std::uint8_t {
    Waiting,
    Ended,   ///< the server has confirmed the end of the session
    Unknown  ///< the connection broke before that
  };

  /// `xid`: the request's number.
  Farewell(FileDescriptor socket, std::int32_t xid) : m_socket(std::move(socket)), m_xid(xid) {}

  int Socket() const { return m_socket.Get(); }
  /// Reads what has come; does not wait.
  Result Read();

 private:
  // Length, request's number, transaction's number, error: the last that a server says.
  static constexpr std::size_t kAnswerBytes = 20;

  bool Answered() const;

  FileDescriptor m_socket;
  std::int32_t m_xid;
  std::array<unsigned char, kAnswerBytes> m_last{};  // the last bytes read
};

}  // namespace zr::halden::details
