// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/reachability.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <sstream>
#include <system_error>

namespace zr::halden::tool {

namespace {

/// 0, or the errno that connecting ended with.
int Connect(const addrinfo& address) {
  constexpr int limitMs = 2000;
  const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  int error = connect(fd, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
  if (error == EINPROGRESS) {
    pollfd writable{fd, POLLOUT, 0};
    socklen_t length = sizeof error;
    if (poll(&writable, 1, limitMs) == 0) {
      error = ETIMEDOUT;
    } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
      error = errno;
    }
  }
  close(fd);
  return error;
}

zr::String WhyOneUnreachable(const zr::String& address) {
  const auto colon = address.rfind(':');  // IPv6 has no brackets here
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int code =
      getaddrinfo(address.substr(0, colon).c_str(), address.substr(colon + 1).c_str(), &hints, &list);
  if (code != 0) return gai_strerror(code);
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
  const int error = Connect(*list);
  return error == 0 ? zr::String() : std::generic_category().message(error);
}

}  // namespace

zr::String WhyUnreachable(const zr::String& addresses) {
  zr::String why = "no address";
  std::istringstream stream(addresses);
  for (zr::String address; std::getline(stream, address, ',');) {
    why = WhyOneUnreachable(address);
    if (why.empty()) break;
  }
  return why;
}

}  // namespace zr::halden::tool
