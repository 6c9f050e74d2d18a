// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "io/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace zr::halden::tool {

SignalSet::SignalSet(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  if (const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr); error != 0) {
    throw std::system_error(error, std::generic_category(), "cannot block signals");
  }
  m_descriptor = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (m_descriptor < 0) throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
}

SignalSet::~SignalSet() {
  close(m_descriptor);
}

int SignalSet::Take() const {
  signalfd_siginfo info{};
  const ssize_t got = read(m_descriptor, &info, sizeof info);
  return got == static_cast<ssize_t>(sizeof info) ? static_cast<int>(info.ssi_signo) : 0;
}

void IgnoreBrokenPipes() {
  std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace zr::halden::tool
