// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>
#include <system_error>

#include "halden/testing/error.h"

namespace zr::halden::testing {

/// With what errno says.
[[noreturn]] inline void Fail(const std::string& what) {
  throw TestingError(what + ": " + std::generic_category().message(errno));
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
  if (bind(socket, any, length) != 0 || getsockname(socket, any, &length) != 0) Fail("no free loopback port");
  return ntohs(address.sin_port);
}

/// For threads of the kit: the program's signals are its own.
inline void BlockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace zr::halden::testing
