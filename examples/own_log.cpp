// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Everything that halden and the ZooKeeper client log goes into the program's own log:   own_log CONFIG SERVICE
#include <halden/global_service_watcher.h>
#include <logger/sink.h>

#include <iostream>
#include <mutex>

/// The program's own log; any other takes its place in the same way.
class OwnLog {
 public:
  void Write(const std::string& level, const std::string& from, const std::string& text) {
    const std::lock_guard lock(m_mtx);
    std::cout << "[own log] " << level << " " << from << ": " << text << "\n" << std::flush;
  }

 private:
  std::mutex m_mtx;
};

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  static OwnLog& log = *new OwnLog;  // halden's threads may log until the process is gone
  zr::logging::SetHandler("own", [](const zr::logging::LogRecord& record) {
    log.Write(std::string(zr::logging::LogLevelName(record.level)), zr::logging::SourcePath(record.source),
              record.msg);
  });
  zr::logging::RemoveHandler("stderr");
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_INFO);

  zr::halden::GlobalServiceWatcher watcher(argv[2], zr::halden::LibraryManaged{argv[1]});
  watcher.StartManagedConnections();
  watcher.AwaitSynchronized(std::chrono::seconds(10));
  watcher.Close(std::chrono::seconds(5));
}
