// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <csignal>

#include "agent/serve/agent.h"
#include "commands/commands.h"
#include "io/signals.h"

namespace zr::halden::tool {

void Serve(const ServeOptions& options, LineWriter& output, int stop) {
  const SignalSet reload{SIGHUP};  // before there are threads
  const auto announce = [&](const std::string& url) {
    if (!options.quiet) output.Write("listening on " + url + '\n');
  };
  agent::Agent agent({options.configPath, options.settings, announce},
                     {stop, reload.Descriptor(), [&reload] { static_cast<void>(reload.Take()); }});
  agent.Run();
}

}  // namespace zr::halden::tool
