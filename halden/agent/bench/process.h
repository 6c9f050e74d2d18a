// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "halden/testing/poll.h"

/// Other programs, and plain sockets to them.
namespace zr::halden::agent {

/// A program that runs until the object goes. `line` is a shell's.
class Process {
 public:
  explicit Process(const std::string& line) : m_pid(fork()) {
    if (m_pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execl("/bin/sh", "sh", "-c", ("exec " + line).c_str(), nullptr);
    _exit(127);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }

  long ResidentKiB() const {
    std::ifstream file("/proc/" + std::to_string(m_pid) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("VmRSS:")) return std::atol(line.c_str() + 6);
    }
    return 0;
  }
  double ProcessorSeconds() const {
    std::ifstream file("/proc/" + std::to_string(m_pid) + "/stat");
    std::string text;
    std::getline(file, text);
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i) fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }

 private:
  pid_t m_pid;
};

inline std::string OutputOf(const std::string& line) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(line.c_str(), "r"), pclose);
  std::string text;
  for (int c = fgetc(pipe.get()); c != EOF; c = fgetc(pipe.get())) text += static_cast<char>(c);
  return text;
}

inline std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

/// Tries again while nobody listens yet.
inline int ConnectTo(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int connected = -1;
  testing::Poll(testing::kLimit, [&] {
    connected = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
    close(connected);
    return false;
  });
  return connected;
}

inline void SendAll(int socket, const std::string& text) {
  static_cast<void>(send(socket, text.data(), text.size(), MSG_NOSIGNAL));
}

}  // namespace zr::halden::agent
