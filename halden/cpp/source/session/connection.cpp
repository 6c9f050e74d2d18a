// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <utility>

#include "halden/connection_v2.h"
#include "session/connection_core.h"

namespace zr::halden {

const std::shared_ptr<details::ConnectionCore>& details::CoreOf(const Connection& conn) {
  return conn.m_core;
}

Connection::Connection(const std::vector<zr::String>& hosts, bool renewExpired, zr::String auth,
                       std::chrono::milliseconds sessionTimeout, zr::String dcName)
    : m_dcName(std::move(dcName)),
      m_core(std::make_shared<details::ConnectionCore>(
          details::ConnectionOptions{hosts, renewExpired, std::move(auth), sessionTimeout, m_dcName})) {}

Connection::~Connection() {
  m_core->Stop();
}

void Connection::Start(const clientid_t* session) {
  m_core->Start(session);
}

void Connection::Stop() {
  m_core->Stop();
}

void Connection::ForceExpire() {
  m_core->ForceExpire();
}

ConnectionStatus Connection::Status() const {
  return m_core->Status();
}

bool Connection::AwaitClosed(std::chrono::milliseconds limit) const {
  return m_core->AwaitClosed(limit);
}

}  // namespace zr::halden
