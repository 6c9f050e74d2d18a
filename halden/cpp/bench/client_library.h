// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/time.h>
#include <zookeeper/zookeeper.h>

#include <thread>

namespace zr::halden::bench {

/// One build of the client library: what a reader calls of it. Both builds have the same names, so that only one can
/// be linked; in such tables they stand side by side.
struct ClientLibrary {
  decltype(&zookeeper_init2) init;
  decltype(&zookeeper_close) close;
  decltype(&zoo_set_servers_resolution_delay) setResolutionDelay;
  decltype(&zoo_awget) awget;
  decltype(&zoo_awget_children2) awgetChildren2;

  // Null in the threaded build, for which the header does not declare them: so their types are spelt out.
  int (*interest)(zhandle_t*, int* descriptor, int* events, timeval* timeout) = nullptr;
  int (*process)(zhandle_t*, int events) = nullptr;
};

/// The build that this program links: two threads of its own for each handle.
const ClientLibrary& ThreadedLibrary();

/// The build without threads, loaded by the first call; throws std::runtime_error where it is not installed.
///
/// It takes its request numbers from one counter for all handles, without a lock. Handles on several threads may so
/// get the same number twice, which harms nothing: a number is only compared with that of the answer, in order.
const ClientLibrary& SingleThreadedLibrary();

/// The thread that a handle of the build without threads lives on, with all its I/O and callbacks, until the
/// destructor has returned: the handle is to be closed after that. It ends by itself with the session.
class HandleThread {
 public:
  HandleThread(const ClientLibrary& library, zhandle_t* handle);
  ~HandleThread();

  HandleThread(const HandleThread&) = delete;
  HandleThread& operator=(const HandleThread&) = delete;

 private:
  void Run();

  const ClientLibrary& m_library;
  zhandle_t* const m_handle;
  const int m_stop;  // an event descriptor, readable when the thread is to end
  std::thread m_thread;
};

}  // namespace zr::halden::bench
