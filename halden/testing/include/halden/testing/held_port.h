// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "zrstl/export.h"

namespace zr::halden::testing {

/// A loopback port (127.0.0.1) that is free when it is taken and stays its owner's while nobody listens there: a
/// bound socket that never listens holds it, so that neither another program, nor an outgoing connection, nor
/// another HeldPort gets it meanwhile. A server that sets SO_REUSEADDR, as servers do, can listen there all the same:
/// so a server under test that is restarted finds its port again.
///
/// Threads: constant after construction. Errors: the constructor throws TestingError when there is no free port.
class ZR_EXPORT HeldPort {
 public:
  HeldPort();
  ~HeldPort();

  HeldPort(const HeldPort&) = delete;
  HeldPort& operator=(const HeldPort&) = delete;

  std::uint16_t Number() const { return m_number; }

 private:
  int m_holder = -1;
  std::uint16_t m_number = 0;
};

}  // namespace zr::halden::testing
