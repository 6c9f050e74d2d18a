// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zr::halden::testing {

/// A session in ZooKeeper's own protocol, one request at a time. So the kit needs no client library, of which programs
/// have their own, in either build.
///
/// What gets no answer is asked again, at the next server, in the same session: servers refuse what an earlier
/// connection of the session still has to say after that, so no write comes late. Each connection begins with a sync,
/// so no read goes back. Any thread; one of its own pings, and takes the session to another server where that is
/// needed.
class WireSession {
 public:
  /// "host:port[,host:port...]"; connects with the first request. TestingError where a port is missing.
  explicit WireSession(const std::string& hosts);
  ~WireSession();

  WireSession(const WireSession&) = delete;
  WireSession& operator=(const WireSession&) = delete;

  /// The code that a server answers: ZOK, with what comes behind it in `answer`, or why it refuses. TestingError after
  /// kLimit.
  int Call(std::int32_t operation, const std::string& request, std::string& answer);
  /// For all that is called from here on.
  void Authenticate(const std::string& scheme, const std::string& credential);
  clientid_t Id() const;

 private:
  struct Server {
    std::string host;
    std::string port;
  };

  void KeepAlive();
  std::optional<int> Try(std::int32_t xid, std::int32_t operation, const std::string& request,
                         std::string& answer);
  bool Connect();
  bool Open(const std::string& host, const std::string& port);
  bool Exchange(const std::string& message, std::string& answer) const;
  bool Read(std::string& bytes) const;
  void Disconnect();

  const std::string m_hosts;
  mutable std::mutex m_mtx;  // guards all below; held while a server is asked
  std::condition_variable m_changed;
  bool m_ending = false;
  std::vector<Server> m_servers;
  std::size_t m_next = 0;  // of m_servers
  int m_socket = -1;       // -1 while not connected
  std::int64_t m_session = 0;
  std::chrono::milliseconds m_timeout{0};
  std::string m_password;
  std::string m_authentication;  // the request; empty for none
  std::int32_t m_xid = 0;
  std::thread m_thread;
};

}  // namespace zr::halden::testing
