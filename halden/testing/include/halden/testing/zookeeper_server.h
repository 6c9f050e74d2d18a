// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "halden/testing/held_port.h"
#include "halden/testing/temporary_folder.h"
#include "zrstl/export.h"

namespace zr::halden::testing {

/// How a server runs. The defaults suit tests: little memory, a short tick, nothing written through to the disk.
struct ZooKeeperServerOptions {
  /// The server's unit of time. Sessions expire in whole ticks; their timeouts are at least two of them.
  std::chrono::milliseconds tickTime{100};
  /// The longest session timeout that a client gets, whatever it asks for: a dead client's nodes go after it. Zero:
  /// twenty ticks.
  std::chrono::milliseconds maxSessionTimeout{0};
  /// The largest heap, as Java writes it.
  std::string heap = "64m";
  /// More system properties, each as "name=value", for example "zookeeper.nio.numWorkerThreads=0".
  std::vector<std::string> properties = {};
  /// The program to run, a path or a name to look up in PATH. 8 or later.
  std::string java = "java";
  /// Where the server's classes are: files and, with a "*" at the end, folders of jars. The default is where Debian's
  /// libzookeeper-java and libslf4j-java put them.
  std::string classPath = "/usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar";
};

/// A real ZooKeeper server in a process of its own, on loopback: standalone, or one of a ZooKeeperEnsemble.
///
/// It is made down; its first Start takes about half a second. Its port stays its own, also while the server is down.
/// What it stores survives Stop and Kill, and goes with Wipe and with the object.
///
/// Threads: one at a time, but any; the thread that starts a server may end before it.
/// Ownership: the process is the object's, and is killed with it. It is killed, too, when the program ends, in
/// whatever way; only its temporary folder stays then. A fork of the program has no say over it.
/// Errors: MissingSoftware where there is no Java or no ZooKeeper, TestingError, with the end of the server's log,
/// where it does not do what is asked within kLimit.
class ZR_EXPORT ZooKeeperServer {
 public:
  explicit ZooKeeperServer(ZooKeeperServerOptions options = {});
  ~ZooKeeperServer();

  ZooKeeperServer(const ZooKeeperServer&) = delete;
  ZooKeeperServer& operator=(const ZooKeeperServer&) = delete;

  /// Returns once the server serves; no effect when it does already, except that a frozen one goes on.
  void Start();
  /// The first half of Start, which does not wait: several servers launched first are ready sooner.
  void Launch();

  void Stop();     ///< in order: the server gets to write its data; no effect when it is down
  void Kill();     ///< at once, as a crash; no effect when it is down
  void Restart();  ///< Stop, then Start
  void Wipe();     ///< Kill, and all that it stored is gone; Start may follow

  /// The process stops where it is: connections stay open, the system takes new ones, and nothing answers. Sessions
  /// whose timeout passes meanwhile may be over after Thaw.
  void Freeze();
  void Thaw();  ///< it goes on; no effect on one that is not frozen

  /// There is a process, which may be starting, frozen, or just dying by itself.
  bool Running() const { return m_pid > 0; }
  std::uint16_t Port() const { return m_port.Number(); }
  /// "standalone", "leader", "follower"; empty while it does not serve. Takes a quarter of a second at most.
  std::string Mode() const;
  /// Packets that it has received from clients since it was started; 0 while it does not serve.
  std::uint64_t Received() const;
  /// The last 4,000 bytes of what it has logged, of all its starts.
  std::string LogEnd() const;

  /// "127.0.0.1:<port><chroot>"
  std::string ConnectString(const std::string& chroot = {}) const;

 private:
  friend class ZooKeeperEnsemble;

  /// One of several: `id` is its number, `quorum` has a line "server.N=..." for each of them.
  ZooKeeperServer(ZooKeeperServerOptions options, std::size_t id, std::vector<std::string> quorum);

  void WriteConfig() const;
  std::vector<std::string> CommandLine() const;
  void AwaitReady();
  bool ProcessEnded();
  std::string Says(std::string_view label) const;

  const ZooKeeperServerOptions m_options;
  const std::size_t m_id;  // 0: standalone
  const std::vector<std::string> m_quorum;
  const TemporaryFolder m_folder;
  const HeldPort m_port;
  pid_t m_pid = 0;  // 0 while no process runs
  bool m_frozen = false;
};

}  // namespace zr::halden::testing
