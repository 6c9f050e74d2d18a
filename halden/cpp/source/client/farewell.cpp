// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/farewell.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zr::halden::details {

Farewell::Result Farewell::Read() {
  constexpr int bytesAtOnce = 16 * 1024;
  std::array<unsigned char, kAnswerBytes + bytesAtOnce> buffer;  // NOLINT(*-member-init): 16 KB, for nothing
  for (;;) {
    std::copy(m_last.begin(), m_last.end(), buffer.begin());
    const auto count = recv(m_socket.Get(), buffer.data() + kAnswerBytes, bytesAtOnce, MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Result::Waiting;
    if (count <= 0) return Answered() ? Result::Ended : Result::Unknown;
    std::copy_n(buffer.begin() + count, kAnswerBytes, m_last.begin());
    if (Answered()) return Result::Ended;
  }
}

bool Farewell::Answered() const {
  std::array<std::uint32_t, 2> head{};
  std::memcpy(head.data(), m_last.data(), sizeof head);
  return ntohl(head[0]) == kAnswerBytes - sizeof(std::uint32_t) &&
         ntohl(head[1]) == static_cast<std::uint32_t>(m_xid);
}

}  // namespace zr::halden::details
