// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace zr::halden::test {

[[noreturn]] inline void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

inline sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// Binds the socket to a free loopback port and returns its number.
inline std::uint16_t BindToFreePort(int socket) {
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (bind(socket, any, length) != 0 || getsockname(socket, any, &length) != 0) Fail("bind to a free port");
  return ntohs(address.sin_port);
}

}  // namespace zr::halden::test
