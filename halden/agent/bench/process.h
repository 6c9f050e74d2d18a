// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
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
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "halden/testing/poll.h"

/// Other programs, and plain sockets to them.
namespace zr::halden::agent {

/// A program that runs until the object goes, or it is ended. `line` is a shell's.
class Process {
 public:
  /// What it writes to the one descriptor can be read here, and what is written here it finds at the other.
  explicit Process(const std::string& line, int writes = -1, int reads = -1) {
    std::array<int, 2> in{-1, -1};
    std::array<int, 2> out{-1, -1};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      constexpr int aside = 20;  // neither may be where the other is to go
      const int from = fcntl(in[0], F_DUPFD_CLOEXEC, aside);
      const int to = fcntl(out[1], F_DUPFD_CLOEXEC, aside);
      if (reads >= 0) dup2(from, reads);
      if (writes >= 0) dup2(to, writes);
      execl("/bin/sh", "sh", "-c", ("exec " + line).c_str(), nullptr);
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    m_in = in[1];
    m_out = out[0];
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    Signal(SIGKILL);
    End();
    close(m_in);
    close(m_out);
  }

  void Signal(int signal) const {
    if (m_pid > 0) kill(m_pid, signal);
  }
  /// What it returned; -1 where a signal ended it. Waits for it.
  int End() {
    int status = -1;
    if (m_pid > 0) waitpid(std::exchange(m_pid, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void Write(const std::string& text) const { static_cast<void>(!write(m_in, text.data(), text.size())); }
  /// Up to `end`, which is taken away; nothing when its output ends before, or nothing comes for twenty seconds.
  std::optional<std::string> Read(char end) {
    auto at = m_text.find(end);
    for (; at == std::string::npos; at = m_text.find(end)) {
      pollfd readable{m_out, POLLIN, 0};
      std::array<char, 65536> part{};
      if (poll(&readable, 1, 20'000) <= 0) return std::nullopt;
      const ssize_t length = read(m_out, part.data(), part.size());
      if (length <= 0) return std::nullopt;
      m_text.append(part.data(), static_cast<std::size_t>(length));
    }
    auto text = m_text.substr(0, at);
    m_text.erase(0, at + 1);
    return text;
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
  pid_t m_pid = 0;
  int m_in = -1;
  int m_out = -1;
  std::string m_text;
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
