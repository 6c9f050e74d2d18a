// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/testing/held_port.h"

#include <unistd.h>

#include "loopback.h"

namespace zr::halden::testing {

HeldPort::HeldPort() : m_holder(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (m_holder < 0) Fail("no socket");
  const int on = 1;
  setsockopt(m_holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  m_number = BindToFreePort(m_holder);
}

HeldPort::~HeldPort() {
  close(m_holder);
}

}  // namespace zr::halden::testing
