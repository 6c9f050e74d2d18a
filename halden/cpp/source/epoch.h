// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "halden/connection_v2.h"
#include "zrstl/string.h"

namespace zr::halden::details {

/// The answer to a request. `code` decides which of the others mean something.
struct Reply {
  int code = ZOK;
  std::string value;
  std::vector<std::string> children;
  Stat stat{};
};

using ReplyFunction = std::function<void(Reply&)>;

/// One asynchronous ZooKeeper request.
struct Request {
  enum class Kind : std::uint8_t { Get, GetChildren, Exists, Sync, Create, Set, Delete };

  Kind kind = Kind::Get;
  zr::String path;             ///< absolute, below the chroot
  bool outsideChroot = false;  ///< `path` is below the ensemble's own root instead
  std::shared_ptr<Connection::WatchContext> watch = nullptr;  ///< reads: also set a watch
  std::string data = {};                                      ///< Create, Set
  int mode = 0;                                               ///< Create: ZOO_EPHEMERAL, ...
  int version = -1;                                           ///< Set, Delete: -1 for any
  ReplyFunction reply = {};
};

/// Takes what the client library says, on whatever thread it says it. Must not block.
class EpochEvents {
 public:
  virtual ~EpochEvents() = default;
  virtual void PostSession(std::uint64_t epoch, int state) = 0;
  virtual void PostReply(std::uint64_t epoch, void* slot, Reply reply) = 0;
  virtual void PostWatch(std::uint64_t epoch, void* binding, int type, int state, std::string path) = 0;
};

/// One client handle's life, from open to close, with all that the library holds pointers to: the contexts of
/// requests and watches. They are freed after the close at the latest, since a close leaves some completions
/// uncalled.
///
/// Threads: everything but the library's callbacks runs on the connection's thread. The callbacks touch only
/// what is constant after construction, and post. A posted answer comes back through `Complete` or
/// `Dispatch`, if this epoch is still the current one; else its pointers are stale and must not be used.
class Epoch {
 public:
  Epoch(std::uint64_t number, EpochEvents& events, zr::String root);
  ~Epoch();

  Epoch(const Epoch&) = delete;
  Epoch& operator=(const Epoch&) = delete;

  /// Opens the handle; 0, or the errno that it failed with.
  int Open(const zr::String& addresses, std::chrono::milliseconds timeout, const clientid_t* resume);
  void Authenticate(const zr::String& scheme, const zr::String& credential);
  void SetServers(const zr::String& addresses);
  /// Joins the library's threads: up to some seconds when a server does not answer. Nothing is posted after
  /// it.
  void Close();

  std::uint64_t Number() const { return m_number; }
  clientid_t Session() const;
  /// The session's timeout as the server grants it.
  std::chrono::milliseconds Timeout() const { return std::chrono::milliseconds(zoo_recv_timeout(m_handle)); }
  /// A server took the connection and has not answered yet.
  bool Unanswered() const { return zoo_state(m_handle) == ZOO_ASSOCIATING_STATE; }
  /// As the library sees it, which is ahead of the events it has posted.
  bool ConnectedByNow() const { return zoo_state(m_handle) == ZOO_CONNECTED_STATE; }

  /// At most some hundred requests are with the library at a time; the rest waits here, in order. The answer
  /// is never given from inside this call.
  void Submit(Request request);
  std::size_t Outstanding() const { return m_outstanding + m_waiting.size(); }
  /// How long the server has owed an answer without giving any; answers come in order.
  std::chrono::steady_clock::duration Unheard() const {
    return m_outstanding == 0 ? std::chrono::steady_clock::duration::zero()
                              : std::chrono::steady_clock::now() - m_lastHeard;
  }

  void Complete(void* slot, Reply& reply);
  void Dispatch(void* binding, int type, int state, const std::string& path);

  /// What setting all watches again after a reconnect would send, at least.
  std::size_t WatchBytes() const { return m_watchBytes; }

 private:
  struct Slot {
    Epoch* epoch;
    Request request;
  };
  struct Binding {
    Epoch* epoch;
    std::weak_ptr<Connection::WatchContext> context;
  };

  static void OnSession(zhandle_t*, int type, int state, const char* path, void* epoch) noexcept;
  static void OnWatch(zhandle_t*, int type, int state, const char* path, void* binding) noexcept;
  static void OnData(int code, const char* value, int length, const Stat* stat, const void* slot) noexcept;
  static void OnChildren(int code, const String_vector* names, const Stat* stat, const void* slot) noexcept;
  static void OnStat(int code, const Stat* stat, const void* slot) noexcept;
  static void OnString(int code, const char* value, const void* slot) noexcept;
  static void OnVoid(int code, const void* slot) noexcept;
  static void Post(const void* slot, Reply reply);

  void Send(Request request);
  int Call(Slot* slot, const zr::String& path, Binding* binding);
  Binding* Bind(const std::shared_ptr<Connection::WatchContext>& context);
  void CountWatch(const Request& request, int code);
  void UncountWatch(int type, const std::string& path);

  // Constant after construction; the library's callbacks read only these.
  const std::uint64_t m_number;
  EpochEvents& m_events;
  const zr::String m_root;  // what stands before every path: the chroot, or nothing

  // Owned by the connection's thread.
  zhandle_t* m_handle = nullptr;
  std::deque<Slot> m_slots;  // a deque: the library holds the elements' addresses
  std::vector<Slot*> m_free;
  std::deque<Request> m_waiting;
  std::size_t m_outstanding = 0;
  std::chrono::steady_clock::time_point m_lastHeard;  // the last answer, or request when none was outstanding
  std::deque<Binding> m_bindings;  // every one ever made: the library may hold its address until the close
  std::unordered_map<const Connection::WatchContext*, Binding*> m_bindingOf;
  std::unordered_map<std::size_t, std::size_t> m_watchLength;  // hash of kind and path: bytes in the packet
  std::size_t m_watchBytes = 0;
};

}  // namespace zr::halden::details
