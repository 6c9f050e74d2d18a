// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/serve_options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "cli/config_path.h"
#include "cli/render_options.h"
#include "halden/service_name.h"

namespace zr::halden::tool {

void DeclareServeOptions(CLI::App& command, Words& words) {
  command
      .add_option("--service", words.services, "A service to follow, besides those of [serve] (repeatable)")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command.add_option("--listen", words.listen, "Where to listen; '' for nowhere (default: 127.0.0.1:7470)")
      ->type_name("ADDRESS:PORT");
  command.add_option("--socket", words.socket, "A socket in the file system to listen on, too")
      ->type_name("PATH");
  command
      .add_option("--allow-host", words.allowedHosts,
                  "Another name than localhost that clients may ask under (repeatable)")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command.add_flag("--allow-remote", words.allowRemote,
                   "Listen where others than this machine can ask: there is no authentication");
  DeclareRenderOptions(command, words);
}

ServeOptions ReadServeOptions(const Words& words, logging::LogLevel logLevel,
                              const std::optional<std::chrono::milliseconds>& guard) {
  ServeOptions options{ConfigPath(words.config), logLevel, words.quiet, {}};
  for (const auto& service : words.services) {
    if (!IsValidServiceName(service))
      Refuse(fmt::format("bad --service '{}': expected the name of a service", EscapeControls(service)));
    options.settings.services.insert(service);
  }
  options.settings.listen = words.listen;
  if (words.listen && !words.listen->empty() && !agent::ParseEndpoint(*words.listen))
    Refuse(fmt::format("bad --listen '{}': expected {}", EscapeControls(*words.listen), agent::kEndpoint));
  options.settings.socket = words.socket;
  options.settings.allowedHosts.insert(words.allowedHosts.begin(), words.allowedHosts.end());
  options.settings.allowRemote = words.allowRemote;
  options.settings.guard = guard;
  options.settings.snapshotFolder = words.snapshots;
  options.settings.files = ReadRenderOptions(words);
  return options;
}

}  // namespace zr::halden::tool
