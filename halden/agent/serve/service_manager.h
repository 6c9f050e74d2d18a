// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace zr::halden::agent {

/// What started us as a service and wants to hear how it is going (systemd's protocol: a datagram for each message).
///
/// Threads: one. Errors: none: who does not listen is not told.
class ServiceManager {
 public:
  /// Of the environment's NOTIFY_SOCKET and WATCHDOG_USEC.
  ServiceManager();
  ~ServiceManager();

  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  void Tell(std::string_view message) const;  ///< "READY=1", for example
  /// Unless it is what was told last.
  void TellStatus(const std::string& status);

  /// How often at least it must hear "WATCHDOG=1"; null where it does not watch.
  std::optional<std::chrono::microseconds> Watchdog() const { return m_watchdog; }

 private:
  int m_socket = -1;
  std::optional<std::chrono::microseconds> m_watchdog;
  std::string m_status;
};

}  // namespace zr::halden::agent
