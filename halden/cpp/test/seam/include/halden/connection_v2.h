// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "seam/journal.h"
#include "zrstl/string.h"

namespace zr::halden {

class ServiceWatcher;

/// Stands in for the connection: writes its calls to the journal and connects nothing.
class Connection {
 public:
  Connection(const std::vector<zr::String>& hosts, bool renewExpired, zr::String auth,
             std::chrono::milliseconds sessionTimeout, zr::String dcName)
      : m_dcName(std::move(dcName)) {
    std::string step = "Connection(";
    for (const auto& host : hosts) step += "[" + host + "]";
    step += renewExpired ? ", true, '" : ", false, '";
    Step(step + auth + "', " + std::to_string(sessionTimeout.count()) + " ms)");
  }
  ~Connection() { Step("~Connection"); }

  void Start(const clientid_t* session) { Step(session == nullptr ? "Start(null)" : "Start(a session)"); }
  void Stop() { Step("Stop"); }
  void ForceExpire() { Step("ForceExpire"); }
  zr::String GetDCName() { return m_dcName; }

  ServiceWatcher* m_watcher = nullptr;  ///< the last one made for this connection

 private:
  void Step(const std::string& step) { test::Journal::Get().Step(m_dcName + ": " + step); }

  const zr::String m_dcName;
};

}  // namespace zr::halden
