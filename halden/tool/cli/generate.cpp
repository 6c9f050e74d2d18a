// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/generate.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

namespace zr::halden::tool {

namespace {

/// "a, b or c" as its parts; nothing for any other text.
std::vector<std::string> Alternatives(std::string text) {
  const auto last = text.find(" or ");
  if (last == std::string::npos) return {};
  text.replace(last, 4, ", ");
  std::vector<std::string> parts;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(", ", begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    if (parts.back().find(' ') != std::string::npos) return {};
    begin = end + 2;
  }
  return parts;
}

OptionSpec Describe(const CLI::Option& option) {
  OptionSpec spec;
  for (const auto& name : option.get_snames()) spec.names.push_back('-' + name);
  for (const auto& name : option.get_lnames()) spec.names.push_back("--" + name);
  if (spec.names.empty()) spec.names.push_back(option.get_name(true));
  if (option.get_items_expected_max() != 0) spec.value = option.get_type_name();
  spec.description = option.get_description();
  spec.byDefault = option.get_default_str();
  spec.choices = Alternatives(spec.description);
  spec.required = option.get_required();
  spec.repeatable = option.get_expected_max() > 1;
  return spec;
}

void DescribeTree(const CLI::App& app, std::vector<std::string> words, std::vector<CommandSpec>& commands) {
  CommandSpec spec{words, app.get_description(), app.get_footer(), {}, {}, {}};
  for (const CLI::Option* option : app.get_options()) {
    (option->get_positional() ? spec.positionals : spec.options).push_back(Describe(*option));
  }
  const auto visible =
      app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
  for (const CLI::App* command : visible) spec.subcommands.push_back(command->get_name());
  commands.push_back(std::move(spec));
  for (const CLI::App* command : visible) {
    words.push_back(command->get_name());
    DescribeTree(*command, words, commands);
    words.pop_back();
  }
}

std::string Joined(const std::vector<std::string>& words) {
  return fmt::format("{}", fmt::join(words, " "));
}

std::string Replaced(std::string text, std::string_view what, std::string_view by) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
  return text;
}

bool TakesFile(const CommandSpec& command) {
  return !command.positionals.empty() && command.positionals.front().IsFile();
}

/// In single quotes for a shell.
std::string Quoted(const std::string& text) {
  return '\'' + Replaced(text, "'", "'\\''") + '\'';
}

std::string ZshSpec(const OptionSpec& option, const std::string& name) {
  std::string explanation = Replaced(option.description, "[", "\\[");
  explanation = Replaced(explanation, "]", "\\]");
  std::string spec = (option.repeatable ? "*" : "") + name + '[' + explanation + ']';
  if (option.value.empty()) return Quoted(spec);
  const std::string message = Replaced(Replaced(Replaced(option.value, "[", ""), "]", ""), ":", "");
  spec += ':' + message + ':';
  if (option.IsFile()) spec += "_files";
  if (!option.choices.empty()) spec += '(' + Joined(option.choices) + ')';
  return Quoted(spec);
}

std::string BashTransitions(const CommandSpec& command) {
  const std::string name = Joined(command.words);
  std::string transitions;
  for (const auto& next : command.subcommands) {
    std::vector<std::string> words = command.words;
    words.push_back(next);
    transitions += fmt::format("      {}) command={} ;;\n", Quoted(fmt::format("{}:{}", name, next)),
                               Quoted(Joined(words)));
  }
  return transitions;
}

std::string BashWords(const CommandSpec& command) {
  std::vector<std::string> words = command.subcommands;
  for (const auto& option : command.options)
    words.insert(words.end(), option.names.begin(), option.names.end());
  return Joined(words);
}

std::string BashValues(const OptionSpec& option) {
  const std::string values = option.IsFile() ? "-f" : "-W " + Quoted(Joined(option.choices));
  return fmt::format("mapfile -t COMPREPLY < <(compgen {} -- \"$word\")", values);
}

std::string ZshFunctionName(const CommandSpec& command) {
  std::string name = "_halden";
  for (const auto& word : command.words) name += '_' + word;
  return name;
}

/// The first word is one of the subcommands; what follows is that one's.
std::string ZshSubcommands(const CommandSpec& command, const std::vector<CommandSpec>& commands) {
  std::string choices;
  std::string cases;
  for (const auto& other : commands) {
    if (other.words.size() != command.words.size() + 1) continue;
    if (!std::equal(command.words.begin(), command.words.end(), other.words.begin())) continue;
    choices += fmt::format("{}{}\\:\"{}\"", choices.empty() ? "" : " ", other.words.back(),
                           Replaced(other.description, ":", "\\:"));
    cases += fmt::format("    {}) {} ;;\n", other.words.back(), ZshFunctionName(other));
  }
  return " \\\n    " + Quoted(fmt::format("1:command:(({}))", choices)) +
         " \\\n    '*::argument:->rest'\n"
         "  [[ $state == rest ]] && case $words[1] in\n" +
         cases + "  esac\n";
}

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

}  // namespace

std::vector<CommandSpec> Describe(const CLI::App& app) {
  std::vector<CommandSpec> commands;
  DescribeTree(app, {}, commands);
  return commands;
}

std::string BashCompletion(const std::vector<CommandSpec>& commands) {
  std::string transitions;
  std::string words;
  std::map<std::string, std::string> values;  // what follows an option, whatever the command
  for (const auto& command : commands) {
    transitions += BashTransitions(command);
    words += fmt::format("    {}) words={}{} ;;\n", Quoted(Joined(command.words)), Quoted(BashWords(command)),
                         TakesFile(command) ? " files=yes" : "");
    for (const auto& option : command.options) {
      if (!option.value.empty()) values[option.names.back()] = BashValues(option);
    }
  }
  std::string cases;
  for (const auto& [name, action] : values) cases += fmt::format("    {}) {}; return ;;\n", name, action);
  return "# Completion of the command halden for bash; made by \"halden generate bash\".\n"
         "_halden() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  local command='' words='' files='' i\n"
         "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "    case \"$command:${COMP_WORDS[i]}\" in\n" +
         transitions +
         "    esac\n"
         "  done\n"
         "  compopt -o filenames 2>/dev/null\n"
         "  case $before in\n" +
         cases +
         "  esac\n"
         "  case $command in\n" +
         words +
         "  esac\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
         "  [[ -z $files ]] || mapfile -t -O \"${#COMPREPLY[@]}\" COMPREPLY < <(compgen -f -- \"$word\")\n"
         "}\n"
         "complete -F _halden halden\n";
}

std::string ZshCompletion(const std::vector<CommandSpec>& commands) {
  std::string text =
      "#compdef halden\n"
      "# Completion of the command halden for zsh; made by \"halden generate zsh\".\n";
  for (const auto& command : commands) {
    text += fmt::format("\n{}() {{\n  local curcontext=\"$curcontext\" state line\n  _arguments -C",
                        ZshFunctionName(command));
    for (const auto& option : command.options) {
      for (const auto& name : option.names) text += " \\\n    " + ZshSpec(option, name);
    }
    for (const auto& positional : command.positionals) {
      const std::string action = positional.IsFile() ? "_files" : " ";
      text +=
          " \\\n    " + Quoted((positional.required ? ":" : "::") + positional.names.front() + ':' + action);
    }
    text += command.subcommands.empty() ? "\n" : ZshSubcommands(command, commands);
    text += "}\n";
  }
  return text + "\n_halden \"$@\"\n";
}

std::string ManualPage(const std::vector<CommandSpec>& commands) {
  const CommandSpec& program = commands.front();
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
  text += ".SH COMMANDS\n";
  for (const auto& command : commands) {
    if (command.words.empty() || !command.subcommands.empty()) continue;
    text += ".SS " + Roff(Joined(command.words)) + '\n' + RoffUsage(command) + "\n.PP\n";
    text += Roff(command.description) + ".\n";
    for (const auto& option : command.options) {
      const bool common = std::any_of(program.options.begin(), program.options.end(),
                                      [&](const auto& other) { return other.names == option.names; });
      if (!common) text += RoffOption(option);
    }
    text += ".PP\n" + RoffText(command.footer);
  }
  return text +
         ".SH EXIT STATUS\n"
         ".TP\n0\nDone, or ended by a signal that asked for it.\n"
         ".TP\n1\nFailed; what is wrong is said on stderr.\n"
         ".TP\n2\nWrong usage.\n"
         ".SH ENVIRONMENT\n"
         ".TP\n\\fBNO_COLOR\\fR\nWhere it is set, nothing is coloured.\n"
         ".TP\n\\fBTERM\\fR\nWhere it is \"dumb\" or not set, nothing is coloured and \\fB\\-\\-live\\fR is "
         "refused.\n";
}

}  // namespace zr::halden::tool
