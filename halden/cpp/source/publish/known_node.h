// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <string>
#include <vector>

#include "client/request.h"

namespace zr::halden::details {

/// What a publisher knows of its instance's node.
///
///   Absent     none, for all that is known: who creates it is told if there is one
///   Unknown    there may be one, of whomever
///   Held       ours, as far as is known: a look will tell
///   Confirmed  this session's, and nothing has been heard of it since the last look
///   Foreign    another session's, at the last look
///
///   Absent            --creation begun--------> Unknown --done------> Held
///   Confirmed         --deletion begun--------> Unknown
///   Unknown, Held     --looked----------------> Absent, Confirmed, Foreign
///   Confirmed         --write begun, doubt----> Held;    Foreign --doubt--> Unknown
///   any               --deleted, session over-> Absent
///
/// Threads: the connection's.
class KnownNode {
 public:
  enum class Kind : std::uint8_t { Absent, Unknown, Held, Confirmed, Foreign };

  Kind What() const { return m_kind; }
  /// Nothing, or a node of a session of ours that is to be found and deleted.
  bool MayBeOurs() const { return !m_sessions.empty(); }
  /// The node that was looked at: does it belong to any session of ours?
  bool OfOurSessions() const;
  bool Holds(const std::string& bytes) const { return m_kind == Kind::Confirmed && m_bytes == bytes; }

  /// Of a write that is not known to have been carried out a server that lags behind does not know.
  bool MayBeWritten() const { return m_kind == Kind::Held && m_version == kAnyVersion; }

  // Of the last look.
  const std::string& Bytes() const { return m_bytes; }
  std::int64_t Owner() const { return m_owner; }
  int Version() const { return m_version; }
  /// No other one, created since.
  bool IsSame(const Stat& stat) const { return m_created == stat.czxid; }

  void OnCreationBegun(std::int64_t session);
  void OnDeletionBegun();
  void OnWriteBegun();
  void OnWritten(int version);
  void OnMarked(int version) { m_version = version; }
  void OnAbsent();
  /// Of an answer that there is one. Why the node is not as we left it; null where it is, or was not held.
  const char* OnLooked(Reply& reply, std::int64_t session);
  /// Something may have happened to it.
  void Doubt();
  void OnSessionOver() { m_kind = Kind::Absent; }

 private:
  static constexpr int kAnyVersion = -1;

  Kind m_kind = Kind::Absent;
  std::string m_bytes;
  std::int64_t m_owner = 0;
  std::int64_t m_created = 0;            // the transaction
  int m_version = kAnyVersion;           // as we left it, or looked at it
  std::vector<std::int64_t> m_sessions;  // that may own a node of ours
};

}  // namespace zr::halden::details
