// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "cli/generate.h"
#include "cli/joined.h"

namespace zr::halden::tool {

namespace {

/// Text for troff: nothing in it is a request or an escape.
std::string Roff(std::string text) {
  text = Replaced(std::move(text), "\\", "\\e");
  text = Replaced(std::move(text), "-", "\\-");
  if (!text.empty() && (text.front() == '.' || text.front() == '\'')) text.insert(0, "\\&");
  return text;
}

/// Paragraphs; lines that begin with a blank are shown as they are.
std::string RoffText(const std::string& text) {
  std::string roff;
  bool verbatim = false;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    const bool indented = line.starts_with(' ');
    if (indented != verbatim) roff += indented ? ".nf\n" : ".fi\n";
    verbatim = indented;
    roff += line.empty() ? ".PP\n" : Roff(line) + '\n';
  }
  if (verbatim) roff += ".fi\n";
  return roff;
}

std::string RoffUsage(const CommandSpec& command) {
  std::string usage = fmt::format("\\fB{}\\fR", Roff(Joined(command.words)));
  for (const auto& positional : command.positionals) {
    const std::string& name = positional.names.front();
    usage += positional.required ? fmt::format(" \\fI{}\\fR", name) : fmt::format(" [\\fI{}\\fR]", name);
  }
  for (const auto& option : command.options) {
    if (option.required)
      usage += fmt::format(" \\fB{}\\fR \\fI{}\\fR", Roff(option.names.back()), Roff(option.value));
  }
  return usage + " [\\fIOPTION\\fR ...]";
}

std::string RoffOption(const OptionSpec& option) {
  std::string text = ".TP\n";
  for (const auto& name : option.names) {
    text += fmt::format("{}\\fB{}\\fR", &name == &option.names.front() ? "" : ", ", Roff(name));
  }
  if (!option.value.empty()) text += fmt::format(" \\fI{}\\fR", Roff(option.value));
  text += '\n' + Roff(option.description);
  if (!option.byDefault.empty()) text += Roff(fmt::format(" (default: {})", option.byDefault));
  return text + (option.required ? " (required).\n" : ".\n");
}

/// What stands at the end of the page.
constexpr std::string_view kClosingSections =
    ".SH EXIT STATUS\n"
    ".TP\n0\nDone, or ended by a signal that asked for it, with nothing left to do.\n"
    ".TP\n1\nFailed; what is wrong is said on stderr. \\fBpublish\\fR also when it ends and cannot remove "
    "its nodes.\n"
    ".TP\n2\nWrong usage.\n"
    ".SH ENVIRONMENT\n"
    ".TP\n\\fBHALDEN_CONFIG\\fR\nThe configuration file, where \\fB\\-\\-config\\fR is not given.\n"
    ".TP\n\\fBNO_COLOR\\fR\nWhere it is set, nothing is coloured.\n"
    ".TP\n\\fBTERM\\fR\nWhere it is \"dumb\" or not set, nothing is coloured and \\fB\\-\\-live\\fR is "
    "refused.\n"
    ".TP\n\\fBTZ\\fR\nThe time zone of the times for people. Those in JSON are in UTC.\n"
    ".SH FILES\n"
    ".TP\n\\fI/etc/halden/halden.toml\\fR\n"
    "The configuration file, where neither \\fB\\-\\-config\\fR nor \\fBHALDEN_CONFIG\\fR names one. "
    "\\fBhalden config example\\fR prints one to start from.\n"
    ".SH SEE ALSO\n"
    "What is printed for programs: docs/json.md; what each fault looks like: docs/operations.md, both in "
    "halden's "
    "sources.\n";

bool IsLeaf(const CommandSpec& command) {
  return !command.words.empty() && command.subcommands.empty();
}

bool Has(const std::vector<OptionSpec>& options, const OptionSpec& option) {
  return std::any_of(options.begin(), options.end(), [&](const OptionSpec& other) {
    return other.names == option.names && other.description == option.description &&
           other.required == option.required;
  });
}

/// Those that most commands have, in the words that most have for them.
std::vector<OptionSpec> OptionsInCommon(const std::vector<CommandSpec>& commands) {
  const auto leaves = std::count_if(commands.begin(), commands.end(), IsLeaf);
  std::vector<OptionSpec> common;
  for (const auto& command : commands) {
    if (!IsLeaf(command)) continue;
    for (const auto& option : command.options) {
      const auto sharers = std::count_if(commands.begin(), commands.end(), [&](const CommandSpec& other) {
        return IsLeaf(other) && Has(other.options, option);
      });
      if (2 * sharers > leaves && !Has(common, option)) common.push_back(option);
    }
  }
  return common;
}

std::string RoffCommand(const CommandSpec& command, const std::vector<OptionSpec>& everywhere,
                        const std::vector<OptionSpec>& common) {
  std::string text = ".SS " + Roff(Joined(command.words)) + '\n' + RoffUsage(command) + "\n.PP\n";
  text += Roff(command.description) + ".\n";
  std::string shared;
  for (const auto& option : command.options) {
    if (Has(everywhere, option)) continue;
    if (!Has(common, option)) text += RoffOption(option);
    if (Has(common, option))
      shared += fmt::format("{}\\fB{}\\fR", shared.empty() ? "" : ", ", Roff(option.names.back()));
  }
  if (!shared.empty()) text += ".PP\nAnd of the common options: " + shared + ".\n";
  return text + ".PP\n" + RoffText(command.footer);
}

}  // namespace

std::string ManualPage(const std::vector<CommandSpec>& commands) {
  const CommandSpec& program = commands.front();
  const auto common = OptionsInCommon(commands);
  std::string text = fmt::format(
      ".TH HALDEN 1 \"\" \"halden {}\" \"User Commands\"\n"
      ".SH NAME\nhalden \\- {}\n"
      ".SH SYNOPSIS\n\\fBhalden\\fR \\fICOMMAND\\fR [\\fIOPTION\\fR ...]\n"
      ".SH DESCRIPTION\n"
      "Follows and publishes services whose instances are registered in ZooKeeper, in any number of data "
      "centres,\n"
      "each with an ensemble of its own.\n",
      HALDEN_VERSION, Roff(program.description));
  text += ".SH OPTIONS\n";
  for (const auto& option : program.options) text += RoffOption(option);
  if (!common.empty()) text += ".SS Common options\nOf the commands that name them:\n";
  for (const auto& option : common) {
    if (!Has(program.options, option)) text += RoffOption(option);
  }
  text += ".SH COMMANDS\n";
  for (const auto& command : commands) {
    if (IsLeaf(command)) text += RoffCommand(command, program.options, common);
  }
  text += kClosingSections;
  return text;
}

}  // namespace zr::halden::tool
