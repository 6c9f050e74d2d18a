// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace zr::halden::test {

/// A folder under the system's temporary one, removed with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();

  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

struct ZooKeeperServerOptions {
  /// The server's unit of time. Sessions expire in whole ticks.
  std::chrono::milliseconds tickTime{100};
  /// What requested session timeouts are clamped to. Zero: twenty ticks.
  std::chrono::milliseconds maxSessionTimeout{0};
  std::string heap = "64m";
  /// Where it is one of several: its number, and "server.N=..." for each of them. None: a standalone server.
  int id = 0;
  std::vector<std::string> quorum;
  /// More system properties, each as "name=value", for example "zookeeper.nio.numWorkerThreads=0".
  std::vector<std::string> properties;
};

/// A loopback port that is free when it is taken and stays its owner's while nobody listens there: a bound
/// socket that never listens holds it, so that neither another program nor a client's outgoing connection gets
/// it meanwhile.
class HeldPort {
 public:
  HeldPort();
  ~HeldPort();

  HeldPort(const HeldPort&) = delete;
  HeldPort& operator=(const HeldPort&) = delete;

  std::uint16_t Number() const { return m_number; }

 private:
  int m_holder = -1;
  std::uint16_t m_number = 0;
};

/// A real server in a process of its own, on loopback: standalone, or one of a ZooKeeperEnsemble.
///
/// Its port stays its own, also while the server is down. Data survives Stop and Kill, and goes with
/// the object.
///
/// Threads: one thread, which must live as long as the server is to: the process is killed when the thread
/// that started it ends, so that no test, however it ends, leaves a server behind.
/// Errors: std::runtime_error, with the end of the server's log where that can tell why.
class ZooKeeperServer {
 public:
  explicit ZooKeeperServer(ZooKeeperServerOptions options = {});
  ~ZooKeeperServer();

  ZooKeeperServer(const ZooKeeperServer&) = delete;
  ZooKeeperServer& operator=(const ZooKeeperServer&) = delete;

  /// Returns once the server serves; no effect when it does already, except that a paused one goes on.
  void Start();
  /// The first half of Start, which does not wait: several servers launched first are ready sooner.
  void Launch();

  void Stop();  ///< in order: the server gets to write its data
  void Kill();  ///< at once, as a crash
  void Wipe();  ///< Kill, and everything it held is gone

  void Pause();  ///< the process freezes: connections stay open and nothing answers
  void Resume();

  bool Running() const { return m_pid > 0; }
  std::uint16_t Port() const { return m_port.Number(); }
  /// "standalone", "leader", "follower"; empty while it does not serve.
  std::string Mode() const;
  /// Packets received so far.
  std::uint64_t Received() const;

  /// "127.0.0.1:<port><chroot>"
  std::string ConnectString(const std::string& chroot = {}) const;

 private:
  void WriteConfig() const;
  void AwaitReady();
  bool ProcessEnded();
  std::string LogEnd() const;
  std::string Says(std::string_view label) const;

  const ZooKeeperServerOptions m_options;
  const TemporaryFolder m_folder;
  const HeldPort m_port;
  pid_t m_pid = 0;  // 0 while no process runs
  bool m_paused = false;
};

}  // namespace zr::halden::test
