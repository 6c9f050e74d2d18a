// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <exception>
#include <variant>

#include "cli/command_line.h"
#include "commands/commands.h"
#include "io/failure.h"
#include "io/line_writer.h"
#include "io/signals.h"
#include "logger/sink.h"

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
/// The agent takes it for the wish to read its configuration again.
SignalSet StopSignals(const Invocation& invocation) {
  struct sigaction hangUp {};
  sigaction(SIGHUP, nullptr, &hangUp);
  if (hangUp.sa_handler == SIG_IGN || std::holds_alternative<ServeOptions>(invocation))
    return {SIGINT, SIGTERM};
  return {SIGINT, SIGTERM, SIGHUP};
}

/// Which function is each command's.
struct Dispatch {
  LineWriter& output;
  int stop;

  void operator()(const Information& asked) const { output.Write(asked.text); }
  void operator()(const WatchOptions& options) const { WatchService(options, output); }
  void operator()(const ListOptions& options) const { ListInstances(options, output); }
  void operator()(const StatusOptions& options) const { ShowStatus(options, output); }
  void operator()(const GetOptions& options) const { ShowInstance(options, output); }
  void operator()(const ServicesOptions& options) const { ListServices(options, output); }
  void operator()(const DoctorOptions& options) const { DiagnoseEnsembles(options, output); }
  void operator()(const ConfigCheckOptions& options) const { CheckConfiguration(options, output); }
  void operator()(const PublishOptions& options) const { PublishInstances(options, output); }
  void operator()(const CompleteOptions& options) const { OfferNames(options, output); }
  void operator()(const ServeOptions& options) const { Serve(options, output, stop); }
};

void Run(int argc, char** argv) {
  const Invocation invocation = ParseCommandLine(argc, argv);
  const SignalSet stopSignals = StopSignals(invocation);  // while this is the only thread
  LineWriter output(STDOUT_FILENO, stopSignals.Descriptor());
  std::visit(
      [](const auto& options) {
        if constexpr (requires { options.logLevel; }) logging::SetMinimumLoggingLevel(options.logLevel);
      },
      invocation);
  std::visit(Dispatch{output, stopSignals.Descriptor()}, invocation);
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
