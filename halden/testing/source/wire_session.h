// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zr::halden::testing {

/// A session that writes, one request at a time, in ZooKeeper's own protocol: big-endian numbers, and texts with their
/// length before them. So the kit needs no client library, of which programs have their own, in either build.
///
/// Each operation waits for the answer and returns its code: ZOK, or why it was refused. What gets no answer is asked
/// again, at the next server, in the same session: servers refuse what an earlier one of the session still has to say
/// after that, so no write comes late. TestingError after kLimit. One thread at a time.
class WireSession {
 public:
  /// "host:port[,host:port...]"; connects with the first operation.
  explicit WireSession(const std::string& hosts);
  ~WireSession();

  WireSession(const WireSession&) = delete;
  WireSession& operator=(const WireSession&) = delete;

  int Create(const std::string& path, const std::string& data);  ///< persistent, open to all
  int Set(const std::string& path, const std::string& data);     ///< whatever its version
  int Delete(const std::string& path);

 private:
  struct Server {
    std::string host;
    std::string port;
  };

  int Call(std::int32_t operation, const std::string& request);
  std::optional<int> Try(std::int32_t operation, const std::string& request);
  bool Connect();
  bool Exchange(const std::string& message, std::string& answer) const;
  bool Read(std::string& bytes) const;
  void Disconnect();

  const std::string m_hosts;
  std::vector<Server> m_servers;
  std::size_t m_next = 0;  // of m_servers
  int m_socket = -1;       // -1 while not connected
  std::int64_t m_session = 0;
  std::string m_password;
  std::int32_t m_xid = 0;
};

}  // namespace zr::halden::testing
