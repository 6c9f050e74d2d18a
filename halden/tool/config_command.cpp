// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <string>

#include "commands.h"
#include "failure.h"
#include "halden/zookeeper_config.h"
#include "json.h"
#include "terminal.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

std::string FaultText(const ConfigFault& fault, bool isError, const Look& look) {
  std::string place = EscapeControls(fault.file);
  if (fault.line != 0) place += fmt::format(":{}:{}", fault.line, fault.column);
  const std::string kind =
      isError ? Coloured("error", Tone::Bad, look.colour) : Coloured("warning", Tone::Doubtful, look.colour);
  return fmt::format("{}: {}: {}\n", place, kind, EscapeControls(fault.message));
}

}  // namespace

void Do(const ConfigCheckOptions& options, LineWriter& output) {
  const ZooKeeperConfig config = ReadZooKeeperConfig(options.path);
  const Look look = LookOf(output.Descriptor());
  std::string text;
  const auto add = [&](const std::vector<ConfigFault>& faults, bool isError) {
    for (const auto& fault : faults) {
      text += options.json ? FaultLine(fault, isError) : FaultText(fault, isError, look);
    }
  };
  add(config.faults, true);
  if (!options.quiet) add(config.warnings, false);
  const bool empty = config.faults.empty() && config.ensembles.empty();
  if (empty) {
    ConfigFault fault;
    fault.file = options.path;
    fault.message = "no data centre: expected at least one in [data_centers]";
    add({fault}, true);
  }
  const bool good = config.faults.empty() && !empty;
  if (good && !options.json && !options.quiet) {
    text += fmt::format("{}: in order, {}\n", EscapeControls(options.path),
                        Counted(config.ensembles.size(), "data centre"));
  }
  output.Write(text);
  output.ThrowIfFailed();
  if (!good) throw Failure(kFailed, "");
}

std::string ConfigExample() {
  return R"(# Where the data centres' ZooKeeper ensembles are, in TOML. "halden config check" tells what is wrong.

[data_centers]

# A data centre's name, and how its ensemble is reached: "host:port[,host:port...][/chroot]". Name every
# member: a client goes on with another one when it loses the one it uses. Names are resolved again while
# none of them answers.
eu-west = "zk1.eu-west.example:2181,zk2.eu-west.example:2181,zk3.eu-west.example:2181"

# A chroot keeps everything below one node of an ensemble that is shared with others. It stands once, at the
# end, and holds for all members. Publishers and clients must agree on it.
us-east = "10.1.0.1:2181,10.1.0.2:2181,10.1.0.3:2181/platform"

# IPv6 addresses stand in brackets.
ap-south = "[2001:db8::1]:2181,[2001:db8::2]:2181,[2001:db8::3]:2181"
)";
}

}  // namespace zr::halden::tool
