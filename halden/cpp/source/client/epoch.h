// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <zookeeper/zookeeper.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/task_thread.h"
#include "client/farewell.h"
#include "client/request.h"
#include "client/send_window.h"
#include "client/watch_budget.h"

namespace zr::halden::details {

/// One client handle's life, from open to close: its input and output, its requests and its watches.
///
/// Threads: all of it on the connection's thread. Answers, events and session states are told from inside
/// `Await` and `Ready`, one after another, in the order in which the server sent them; that the library
/// refuses a request, from a task.
/// Ownership: shared by its owner and, for the length of a call, by whoever calls. From inside what it tells,
/// its owner may let go of it; nothing is told after that.
class Epoch final : public std::enable_shared_from_this<Epoch> {
 public:
  /// `state`: ZOO_CONNECTED_STATE, ... `Close` must not be called from inside it, `Abandon` may.
  using SessionFunction = std::function<void(Epoch&, int state)>;
  /// The event of a watch: as of Connection::WatchFunction.
  using EventFunction = std::function<void(int type, int state, const zr::String& path)>;

  /// `root`: what stands before every path; may be empty. `window` is told of all that is sent and answered; it is up
  /// to those who have many requests to ask it.
  Epoch(PostFunction post, zr::String root, SessionFunction onSession, EventFunction onEvent,
        std::shared_ptr<SendWindow> window = std::make_shared<SendWindow>());
  ~Epoch();

  Epoch(const Epoch&) = delete;
  Epoch& operator=(const Epoch&) = delete;

  /// Opens the handle; 0, or the errno that it failed with.
  int Open(const zr::String& addresses, std::chrono::milliseconds timeout, const clientid_t* resume);
  void Authenticate(const zr::String& scheme, const zr::String& credential);
  /// That it was opened with.
  const zr::String& Addresses() const { return m_addresses; }

  /// Ends: no request is answered any more. With it goes the session, if the handle is connected and the
  /// request to end it can be sent: then the answer is to be awaited.
  std::unique_ptr<Farewell> Close();
  /// Ends, and leaves the session to whoever takes it up.
  void Abandon();

  // As TaskThread::Sockets.
  Clock::time_point Await(std::vector<pollfd>& sockets);
  void Ready(const pollfd& socket);

  clientid_t Session() const;
  /// The session's timeout as the server grants it.
  std::chrono::milliseconds Timeout() const { return std::chrono::milliseconds(zoo_recv_timeout(m_handle)); }
  /// How long the server that is tried has not answered, whether it took the connection or not; zero while none is.
  Clock::duration Unanswered() const {
    return ConnectedNow() || !m_way.tried ? Clock::duration::zero() : Clock::now() - *m_way.tried;
  }
  /// The next one is tried then.
  void GiveUpServer();
  const WatchBudget& Watches() const { return m_watches; }
  /// Events have told of what no answer since has come after: they move nothing that the handle shows the next server.
  bool HeardAhead() const { return m_heardAhead; }

  /// The answer is never given from inside this call.
  void Submit(Request request);
  /// How long the server has owed an answer without giving any; answers come in order.
  Clock::duration Unheard() const {
    return m_sent.empty() ? Clock::duration::zero() : Clock::now() - m_lastHeard;
  }
  /// How long nothing was said to a server that owes answers: the library does not ping meanwhile.
  Clock::duration Unsaid() const {
    return m_sent.empty() ? Clock::duration::zero() : Clock::now() - m_way.spoke;
  }

 private:
  struct Slot {
    Epoch* epoch;
    Request request;
    std::array<zoo_op_result_t, 2> results;  // of the operations of a transaction; nobody looks at them
    bool lost;  // answered without the library, which may come back to it in the close
    SendWindow::Sent sent;
  };
  struct Way {
    int socket = -1;                         // as the library told last
    bool full = false;                       // the socket takes no more for now
    bool lost = false;                       // just now, after some time, and no other try was made yet
    std::optional<Clock::time_point> tried;  // began to, the server that the library is at now
    Clock::time_point knocked;               // asked the server for a session
    Clock::time_point since;                 // connected last
    Clock::time_point resume;                // the library is not to be asked before
    Clock::time_point asked;                 // ... and was last
    Clock::time_point spoke;                 // made the last request
  };
  /// Open -> Closing (let go of inside a call of the library) -> Closed;   Open -> Closed
  enum class Life : std::uint8_t { Open, Closing, Closed };

  static void OnSession(zhandle_t*, int type, int state, const char* path, void* epoch) noexcept;
  static void OnWatch(zhandle_t*, int type, int state, const char* path, void* epoch) noexcept;
  static void OnData(int code, const char* value, int length, const Stat* stat, const void* slot) noexcept;
  static void OnChildren(int code, const String_vector* names, const Stat* stat, const void* slot) noexcept;
  static void OnAccess(int code, ACL_vector* access, Stat* stat, const void* slot) noexcept;
  static void OnStat(int code, const Stat* stat, const void* slot) noexcept;
  static void OnString(int code, const char* value, const void* slot) noexcept;
  static void OnVoid(int code, const void* slot) noexcept;
  template <typename Fill>
  static void Answer(const void* slot, int code, const Stat* stat, const Fill& fill) noexcept;

  template <typename Function>
  int InLibrary(const Function& function);
  bool ConnectedNow() const { return m_handle != nullptr && zoo_state(m_handle) == ZOO_CONNECTED_STATE; }
  int Process(int events);
  void Flush();
  void ReadAll();
  void TakeSocket(int socket);

  int Call(Slot* slot, const zr::String& path);
  void MissLost(const Slot& answered);
  void Complete(Slot& slot, Reply& reply);
  void Dispatch(int type, int state, const std::string& path);

  const PostFunction m_post;
  const zr::String m_root;
  const SessionFunction m_onSession;
  const EventFunction m_onEvent;

  zhandle_t* m_handle = nullptr;
  zr::String m_addresses;
  Life m_life = Life::Open;
  bool m_inLibrary = false;
  Way m_way;

  std::deque<Slot> m_slots;  // a deque: the library holds the elements' addresses
  std::vector<Slot*> m_free;
  std::deque<Slot*> m_sent;       // without an answer, in order
  Clock::time_point m_lastHeard;  // the last answer, or request when none was outstanding
  bool m_heardAhead = false;
  WatchBudget m_watches;
  const std::shared_ptr<SendWindow> m_window;
};

}  // namespace zr::halden::details
