// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "ensemble/facts.h"
#include "halden/global_service_watcher.h"
#include "model/connect_string.h"

/// Whether servers take connections, as this process finds it: for whoever is not told why a session fails. Any thread.
namespace zr::halden::tool {

/// Resolves each server, connects to it and asks how it is, all at once. Waits up to `limit`; who has not taken the
/// connection by then is said not to answer.
std::vector<ServerFacts> ExamineServers(const std::vector<details::HostPort>& servers,
                                        std::chrono::milliseconds limit);

/// Why a data centre with the connect string `ensemble` has not been read: its state, or where it has no session, what is
/// in the way. "no server is reached: zk1.eu:2181: Connection refused". Waits up to a second.
std::string WhyUnread(const DataCenterStatus& status, const zr::String& ensemble);

}  // namespace zr::halden::tool
