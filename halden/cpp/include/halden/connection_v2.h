// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "halden/connection_status.h"
#include "halden/error.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

class Connection;

namespace details {
class ConnectionCore;
const std::shared_ptr<ConnectionCore>& CoreOf(const Connection& conn);
}  // namespace details

/// One ZooKeeper session to one ensemble, kept alive and, where allowed, replaced by a new one when it
/// expires.
///
/// Threads: every operation may be called from any thread, callbacks of this library included, and none waits
/// for the network: `Start`, `Stop` and `ForceExpire` post to the connection's own thread and return. Only
/// `AwaitClosed` waits, with a limit; do not call it from a callback.
/// Ownership: watchers and publishers share ownership of the connection they work through. The destructor
/// closes the session in the background: it neither waits nor joins.
/// Errors: `Start` throws ZooError for what can never work (a malformed host list, a malformed authentication
/// text). An ensemble that is down, names that do not resolve, or a credential's file that is faulty are a state
/// (`Status`), logged to "halden.connection" and retried with back-off.
/// Session: after a lost connection the session goes on if an ensemble member is reached in time. After an
/// expiry the ephemeral nodes are gone; publishers publish again, and watchers read everything anew.
class ZR_EXPORT Connection {
 public:
  /// A ZooKeeper watch event: type (ZOO_CREATED_EVENT, ...), session state, and the node's path below the
  /// chroot.
  using WatchFunction = std::function<void(int, int, zr::String)>;

  /// The entry behind every watch that is set through this connection. One context may serve any number of
  /// watches. Events run on the connection's thread, one at a time.
  /// It must not be used once its connection is gone, except to destroy it.
  struct WatchContext {
    WatchContext(const Connection& conn, WatchFunction&& func);
    /// Copies and moves take the function and whether it is still valid; the copy has a lock of its own and
    /// is not running. Assignment keeps the connection that the target was made for.
    WatchContext(const WatchContext& other);
    WatchContext(WatchContext&& other) noexcept;
    WatchContext& operator=(const WatchContext& other);
    WatchContext& operator=(WatchContext&& other) noexcept;
    ~WatchContext() = default;

    /// Ends the context: no call of the function starts after this returned. True when none is running
    /// either; `done` is then dropped uncalled. False when one is running just then (on another thread, or on
    /// this one, further up the stack): `done` runs right after it, on the thread that ran it.
    bool Invalidate(std::function<void()> done);

    /// Runs the function for one event, unless the context has ended.
    void Invoke(int type, int state, const zr::String& path);

    const Connection& m_conn;
    WatchFunction m_func;         // constant but for assignment
    mutable std::mutex m_mtx;     // guards the three below; not held while the function or the callable runs
    bool m_valid = true;          // false once invalidated
    bool m_invoking = false;      // the function is running
    std::function<void()> m_cbk;  // what Invalidate was given, to run after the function
  };

  /// `hosts`: each element a connect string, "host:port[,host:port...][/chroot][?option=value[&option=value]]"; all
  /// name one ensemble, and the last one's chroot holds for all. Nothing is checked before `Start`.
  /// `renewExpired`: whether a session that expired is replaced by a new one. When false the connection stays
  /// `Expired`, tells its watchers' error handlers, and waits for `Start`. `auth`: "scheme:credential" (for example
  /// "digest:user:password"), given to every session; empty: what the option `auth_file` says, if it is there.
  /// `sessionTimeout`: requested of the server, which clamps it to limits of its own. `dcName`: the data centre's
  /// name.
  ///
  /// Options, with "%", "&" and blanks as "%" and two hexadecimal digits:
  /// - `auth_file`: the absolute path of a file that holds one line "scheme:credential" and is closed to all but its
  ///   owner and group. It is read anew for each session, so that a new credential counts from the next one on. While
  ///   it is faulty no session begins: the state is `AuthFailed`, and `lastErrorText` says why.
  /// - `acl`: what publishers protect their nodes with unless they are told, see ServicePublisher.
  Connection(const std::vector<zr::String>& hosts, bool renewExpired, zr::String auth,
             std::chrono::milliseconds sessionTimeout, zr::String dcName);
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Begins to connect; resumes `session` when given (null: a new session). No effect while already started,
  /// except that an expired connection starts anew.
  void Start(const clientid_t* session);

  /// Begins to close the session. Harmless when stopped already; `Start` may follow.
  void Stop();

  /// Ends the session on the server, so that its ephemeral nodes go, as an expiry would; what follows is as
  /// after an expiry. Without a session there is nothing to end. A `Stop` right after it does not cut it
  /// short.
  void ForceExpire();

  zr::String GetDCName() { return m_dcName; }
  const zr::String& DataCenterName() const { return m_dcName; }

  ConnectionStatus Status() const;

  /// Waits until a stopped connection's session is closed: true then, false at the deadline. For programs
  /// that end: ephemeral nodes go at once instead of after the session timeout.
  bool AwaitClosed(std::chrono::milliseconds limit) const;

 private:
  friend const std::shared_ptr<details::ConnectionCore>& details::CoreOf(const Connection& conn);

  const zr::String m_dcName;
  const std::shared_ptr<details::ConnectionCore> m_core;
};

}  // namespace zr::halden
