// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "global_service_watcher_impl.h"
#include "halden/error.h"
#include "logger/sink.h"
#include "seam/journal.h"

namespace zr::halden {

/// Stands in for the facade. The watcher has it for a friend, so it can tell whether the registry is locked.
class GlobalServiceWatcher {
 public:
  static bool IsLocked(GlobalServiceWatcherImpl& watcher) {
    // Tried on a thread of its own: the calling one may be the one that holds it.
    const auto tryLock = [&] { return std::unique_lock(watcher.m_mtx, std::try_to_lock).owns_lock(); };
    return !std::async(std::launch::async, tryLock).get();
  }
};

namespace test {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Lines = std::vector<std::string>;

inline Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

/// Log lines of the global watcher as the journal shows them.
inline std::string Log(const std::string& level, const std::string& text) {
  return level + " halden.global_service_watcher: " + text;
}
inline std::string Info(const std::string& text) {
  return Log("info", text);
}
inline std::string Warning(const std::string& text) {
  return Log("warning", text);
}

class GlobalWatcherTest : public ::testing::Test {
 protected:
  GlobalWatcherTest() {
    m_journal.m_isLocked = [this] { return m_watcher && GlobalServiceWatcher::IsLocked(*m_watcher); };
    zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_INFO);
    zr::logging::SetHandler("stderr", [](const zr::logging::LogRecord& record) {
      EXPECT_EQ(record.id, 0u);
      EXPECT_EQ(record.decodeType, zr::logging::ZRLOG_DECODE_AS_KV);
      EXPECT_TRUE(std::string_view(record.file).ends_with("global_service_watcher_impl.cpp")) << record.file;
      Journal::Get().Step(std::string(zr::logging::LogLevelName(record.level)) + " " +
                          zr::logging::SourcePath(record.source) + ": " + record.msg);
    });
  }
  ~GlobalWatcherTest() override {
    m_journal.m_actions.clear();
    m_watcher.reset();
    m_journal.m_isLocked = nullptr;
    m_journal.Take();
  }

  /// Makes the watcher under test; the journal is left with what its construction did.
  void Construct(bool managed) {
    m_watcher = std::make_shared<GlobalServiceWatcherImpl>(m_facade, "orders", managed, "zk.toml", m_handler);
  }

  void Make(bool managed, DataCenterEnsembleMapT ensembles = {}) {
    g_config = {true, std::move(ensembles)};
    Construct(managed);
    m_journal.Take();
  }

  /// Library-managed and connected to two data centres.
  void MakeEastAndWest() {
    Make(true, {{"east", "e:2181"}, {"west", "w:2181"}});
    m_watcher->StartManagedConnections();
    m_journal.Take();
  }

  /// A connection as an application would make it.
  std::shared_ptr<Connection> MakeConnection(const zr::String& dcName) {
    const std::vector<zr::String> hosts{"app:2181"};
    auto conn = std::make_shared<Connection>(hosts, false, "", std::chrono::seconds(1), dcName);
    m_journal.Take();
    return conn;
  }

  ServiceWatcher& WatcherOf(const zr::String& dcName) {
    const auto conn = m_watcher->GetConnection(dcName);
    if (!conn) throw std::runtime_error("no connection to " + dcName);
    return *conn->m_watcher;
  }

  Journal& m_journal = Journal::Get();
  GlobalServiceWatcher m_facade;
  ZkErrorHandler m_handler;
  std::shared_ptr<GlobalServiceWatcherImpl> m_watcher;
};

}  // namespace test
}  // namespace zr::halden
