// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <string>

#include "cli/subcommands.h"
#include "cli/words.h"

namespace zr::halden::tool {

Invocation ParseCommandLine(int argc, const char* const* argv) {
  Words words;
  CLI::App app;
  Declare(app, words);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return Information{app.help()};  // of the command that was named, if any
  } catch (const CLI::CallForVersion& e) {
    return Information{std::string(e.what()) + '\n'};
  } catch (const CLI::ParseError& e) {
    Refuse(std::string(e.what()) + " (halden --help tells more)");
  }
  return words.read();
}

}  // namespace zr::halden::tool
