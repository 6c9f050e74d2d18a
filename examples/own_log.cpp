// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Everything that halden and the ZooKeeper client log goes into the program's own log:   own_log CONFIG SERVICE
#include <halden/global_service_watcher.h>
#include <halden/logger/sink.h>
#include <logger/logger.h>  // the program's own, for which the folder of this file is in the include path

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  static Logger& log = *new Logger;  // halden's threads may log until the process is gone
  zr::logging::SetHandler("own", [](const zr::logging::LogRecord& record) {
    log.Write(std::string(zr::logging::LogLevelName(record.level)), zr::logging::SourcePath(record.source),
              record.msg);
  });
  zr::logging::RemoveHandler("stderr");
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_INFO);

  zr::halden::GlobalServiceWatcher watcher(argv[2], zr::halden::LibraryManaged{argv[1]});
  watcher.StartManagedConnections();
  const bool complete =
      watcher.AwaitSynchronized(std::chrono::seconds(10));  // false, too, without data centres
  log.Write("info", "own_log", complete ? "all data centres are there" : "not all data centres are there");
  watcher.Close(std::chrono::seconds(5));
}
