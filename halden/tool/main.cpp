// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <exception>
#include <type_traits>
#include <variant>

#include "commands.h"
#include "failure.h"
#include "logger/sink.h"
#include "options.h"
#include "signals.h"

namespace zr::halden::tool {

namespace {

/// Gives a closed standard descriptor a place that fails: the next socket would take its number, and get what
/// is printed.
void ReserveStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0)
      static_cast<void>(open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
  }
}

/// A terminal that goes away ends the process too, unless it was started with nohup.
SignalSet StopSignals() {
  struct sigaction hangUp {};
  sigaction(SIGHUP, nullptr, &hangUp);
  if (hangUp.sa_handler == SIG_IGN) return {SIGINT, SIGTERM};
  return {SIGINT, SIGTERM, SIGHUP};
}

void Run(int argc, char** argv) {
  const Invocation invocation = ParseCommandLine(argc, argv);
  const SignalSet stopSignals = StopSignals();  // while this is the only thread
  LineWriter output(STDOUT_FILENO, stopSignals.Descriptor());
  std::visit(
      [&output](const auto& options) {
        using Options = std::decay_t<decltype(options)>;
        if constexpr (std::is_same_v<Options, Information>) {
          output.Write(options.text);
        } else {
          logging::SetMinimumLoggingLevel(options.logLevel);
          Do(options, output);
        }
      },
      invocation);
  output.ThrowIfFailed();
}

}  // namespace

}  // namespace zr::halden::tool

int main(int argc, char** argv) {
  using namespace zr::halden::tool;
  ReserveStandardDescriptors();
  IgnoreBrokenPipes();
  tzset();
  try {
    Run(argc, argv);
    return kSuccess;
  } catch (const Failure& e) {
    Complain(e.what());
    return e.Code();
  } catch (const std::exception& e) {
    Complain(e.what());
  } catch (...) {
    Complain("unknown error");
  }
  return kFailed;
}
