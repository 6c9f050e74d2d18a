// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client_library.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>

#include "bench.h"

namespace zr::halden::bench {

namespace {

template <typename Function>
void Find(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(library, name));
  if (function == nullptr) throw std::runtime_error(std::string("libzookeeper_st.so.2 has no ") + name);
}

ClientLibrary LoadSingleThreaded() {
  // Bound deeply: its calls of its own functions would else find those of the threaded build, which is linked.
  void* const library = dlopen("libzookeeper_st.so.2", RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  if (library == nullptr) throw std::runtime_error(std::string(dlerror()) + "; install libzookeeper-st2");
  ClientLibrary table{};
  Find(library, "zookeeper_init2", table.init);
  Find(library, "zookeeper_close", table.close);
  Find(library, "zoo_set_servers_resolution_delay", table.setResolutionDelay);
  Find(library, "zoo_awget", table.awget);
  Find(library, "zoo_awget_children2", table.awgetChildren2);
  Find(library, "zookeeper_interest", table.interest);
  Find(library, "zookeeper_process", table.process);
  decltype(&zoo_set_debug_level) setLogLevel = nullptr;
  Find(library, "zoo_set_debug_level", setLogLevel);
  // It composes a log line in a buffer that all handles share, on whichever thread: none at all, then.
  setLogLevel(static_cast<ZooLogLevel>(0));
  return table;
}

}  // namespace

const ClientLibrary& ThreadedLibrary() {
  static const ClientLibrary table{&zookeeper_init2, &zookeeper_close, &zoo_set_servers_resolution_delay,
                                   &zoo_awget, &zoo_awget_children2};
  return table;
}

const ClientLibrary& SingleThreadedLibrary() {
  static const ClientLibrary table = LoadSingleThreaded();
  return table;
}

HandleThread::HandleThread(const ClientLibrary& library, zhandle_t* handle)
    : m_library(library), m_handle(handle), m_stop(eventfd(0, EFD_CLOEXEC)) {
  Require(m_stop >= 0, "no event descriptor");
  m_thread = std::thread([this] { Run(); });
}

HandleThread::~HandleThread() {
  eventfd_write(m_stop, 1);
  m_thread.join();
  close(m_stop);
}

void HandleThread::Run() {
  std::array<pollfd, 2> polled{};
  polled[1] = {m_stop, POLLIN, 0};
  while (polled[1].revents == 0) {
    int descriptor = -1;
    int wanted = 0;
    timeval timeout{};
    if (m_library.interest(m_handle, &descriptor, &wanted, &timeout) == ZINVALIDSTATE) return;
    const int reads = (wanted & ZOOKEEPER_READ) != 0 ? POLLIN : 0;
    const int writes = (wanted & ZOOKEEPER_WRITE) != 0 ? POLLOUT : 0;
    polled[0] = {descriptor, static_cast<short>(reads | writes), 0};
    poll(polled.data(), polled.size(), static_cast<int>(timeout.tv_sec * 1000 + timeout.tv_usec / 1000));
    const bool readable = (polled[0].revents & POLLIN) != 0;
    const bool writable = (polled[0].revents & (POLLOUT | POLLHUP)) != 0;
    int code =
        m_library.process(m_handle, (readable ? ZOOKEEPER_READ : 0) | (writable ? ZOOKEEPER_WRITE : 0));
    // One call reads one answer, and asking for the interest costs as much as that.
    while (readable && code == ZOK) code = m_library.process(m_handle, ZOOKEEPER_READ);
  }
}

}  // namespace zr::halden::bench
