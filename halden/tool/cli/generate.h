// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

/// What is derived from the declared commands and options. Pure functions.
namespace zr::halden::tool {

// What names can be asked for, for completions.
inline constexpr std::string_view kDataCenters = "data-centers";
inline constexpr std::string_view kServices = "services";

struct OptionSpec {
  std::vector<std::string> names;  ///< "-h", "--help"; of a positional, its one name
  std::string value;               ///< "FILE"; empty for a flag
  std::string description;
  std::string byDefault;
  std::vector<std::string> choices;  ///< the values it takes, where they are few
  bool required = false;
  bool repeatable = false;

  bool IsFile() const { return value == "FILE" || names.front() == "FILE"; }
  /// What `halden complete` prints the names of; empty for what it does not.
  std::string_view Completed() const {
    return names.back() == "--dc"       ? kDataCenters
           : names.front() == "SERVICE" ? kServices
                                        : std::string_view();
  }
};

struct CommandSpec {
  std::vector<std::string> words;  ///< "config", "check"; none for the program itself
  std::string description;
  std::string footer;
  std::vector<OptionSpec> options;
  std::vector<OptionSpec> positionals;
  std::vector<std::string> subcommands;
};

/// The program and all its commands, hidden ones left out, each before its own subcommands.
std::vector<CommandSpec> Describe(const CLI::App& app);

std::string BashCompletion(const std::vector<CommandSpec>& commands);
std::string ZshCompletion(const std::vector<CommandSpec>& commands);
std::string ManualPage(const std::vector<CommandSpec>& commands);

}  // namespace zr::halden::tool
