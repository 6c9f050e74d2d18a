// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <exception>
#include <utility>

#include "halden/connection_v2.h"

namespace zr::halden {

Connection::WatchContext::WatchContext(const Connection& conn, WatchFunction&& func)
    : m_conn(conn), m_func(std::move(func)) {}

Connection::WatchContext::WatchContext(const WatchContext& other) : m_conn(other.m_conn) {
  const std::lock_guard lock(other.m_mtx);
  m_func = other.m_func;
  m_valid = other.m_valid;
}

// The source is copied from: its function may be running, and must not lose itself meanwhile.
Connection::WatchContext::WatchContext(WatchContext&& other) noexcept
    : WatchContext(static_cast<const WatchContext&>(other)) {}  // NOLINT(performance-move-constructor-init)

Connection::WatchContext& Connection::WatchContext::operator=(const WatchContext& other) {
  if (this == &other) return *this;
  WatchFunction func;
  bool valid = false;
  {
    const std::lock_guard lock(other.m_mtx);
    func = other.m_func;
    valid = other.m_valid;
  }
  const std::lock_guard lock(m_mtx);  // one at a time: two assignments crossing each other cannot deadlock
  m_func.swap(func);
  m_valid = valid;
  return *this;
}

Connection::WatchContext& Connection::WatchContext::operator=(WatchContext&& other) noexcept {
  return *this = static_cast<const WatchContext&>(other);
}

bool Connection::WatchContext::Invalidate(std::function<void()> done) {
  const std::lock_guard lock(m_mtx);
  m_valid = false;
  if (!m_invoking) return true;
  if (!m_cbk) {
    m_cbk = std::move(done);
  } else if (done) {
    m_cbk = [first = std::move(m_cbk), second = std::move(done)] {
      first();
      second();
    };
  }
  return false;
}

void Connection::WatchContext::Invoke(int type, int state, const zr::String& path) {
  WatchFunction func;
  {
    const std::lock_guard lock(m_mtx);
    if (!m_valid) return;
    m_invoking = true;
    func = m_func;  // a copy: the function may be assigned to, or this context end, while it runs
  }
  std::exception_ptr failure;
  try {
    if (func) func(type, state, path);
  } catch (...) {
    failure = std::current_exception();
  }
  std::function<void()> done;
  {
    const std::lock_guard lock(m_mtx);
    m_invoking = false;
    done.swap(m_cbk);
  }
  if (done) done();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace zr::halden
