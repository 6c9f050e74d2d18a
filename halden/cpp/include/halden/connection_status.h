// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// Where a connection stands.
///
///   Stopped    -> Connecting                                    Start
///   Connecting -> Connected | Expired | AuthFailed | Stopped    session event, Stop
///   Connected  -> Suspended | Connecting | Expired | AuthFailed | Stopped
///   Suspended  -> Connected (same session) | Connecting (new session) | Expired | AuthFailed | Stopped
///   Expired    -> Connecting | Stopped                          by itself where allowed, else by Start
///   AuthFailed -> Connecting | Stopped                          as Expired
///
/// AuthFailed: the servers refuse the credential, or its file is missing or faulty and no session is begun without.
enum class ConnectionState : std::uint8_t { Stopped, Connecting, Connected, Suspended, Expired, AuthFailed };

/// The state's name in lower case, for output: "stopped", "connecting", ...
ZR_EXPORT std::string_view ToString(ConnectionState state);
ZR_EXPORT std::ostream& operator<<(std::ostream& out, ConnectionState state);

/// A copy of what a connection knows of itself, for people and metrics.
struct ConnectionStatus {
  ConnectionState state = ConnectionState::Stopped;
  std::int64_t sessionId = 0;    ///< 0 before the first session
  int lastError = 0;             ///< ZooKeeper error code of the last trouble; 0 for none so far
  zr::String lastErrorText;      ///< what it was, for people
  std::uint64_t sessions = 0;    ///< sessions established
  std::uint64_t reconnects = 0;  ///< times that a session went on after a lost connection
  std::uint64_t expiries = 0;    ///< sessions lost to expiry, forced ones included
};

}  // namespace zr::halden
