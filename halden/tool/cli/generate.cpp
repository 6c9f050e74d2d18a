// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/generate.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <utility>

#include "cli/joined.h"

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

OptionSpec DescribeOption(const CLI::Option& option) {
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
    (option->get_positional() ? spec.positionals : spec.options).push_back(DescribeOption(*option));
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

bool TakesFile(const CommandSpec& command) {
  return !command.positionals.empty() && command.positionals.front().IsFile();
}

bool TakesService(const CommandSpec& command) {
  return !command.positionals.empty() && command.positionals.front().Completed() == kServices;
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
  if (!option.Completed().empty()) spec += fmt::format(" _halden_ask {}", option.Completed());
  if (!option.choices.empty()) spec += '(' + Joined(option.choices) + ')';
  return Quoted(spec);
}

std::string BashTransitions(const CommandSpec& command) {
  const std::string name = Joined(command.words);
  std::string transitions;
  for (const auto& next : command.subcommands) {
    std::vector<std::string> words = command.words;
    words.push_back(next);
    transitions += fmt::format("      {}) command={}; continue ;;\n",
                               Quoted(fmt::format("{}:{}", name, next)), Quoted(Joined(words)));
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
  if (!option.Completed().empty()) return fmt::format("_halden_ask {}", option.Completed());
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

/// Asks the program itself for names. Nothing that it prints is expanded: others have written it.
constexpr std::string_view kBashAsk =
    "_halden_ask() {\n"
    "  local name\n"
    "  while IFS= read -r name; do\n"
    "    [[ $name != \"$word\"* ]] || COMPREPLY+=(\"$name\")\n"
    "  done < <(\"$program\" complete \"$1\" \"${config[@]}\" 2>/dev/null)\n"
    "}\n";
constexpr std::string_view kZshAsk =
    "\n_halden_ask() {\n"
    "  local -a config names\n"
    "  [[ -z ${opt_args[--config]} ]] || config=(--config ${(Q)opt_args[--config]/#\\~/$HOME})\n"
    "  names=(${(f)\"$(command halden complete $1 $config 2>/dev/null)\"})\n"
    "  compadd -a names\n"
    "}\n";

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
    words +=
        fmt::format("    {}) words={}{}{} ;;\n", Quoted(Joined(command.words)), Quoted(BashWords(command)),
                    TakesFile(command) ? " files=yes" : "", TakesService(command) ? " service=yes" : "");
    for (const auto& option : command.options) {
      if (!option.value.empty()) values[option.names.back()] = BashValues(option);
    }
  }
  std::string cases;
  std::string withValues;
  for (const auto& [name, action] : values) {
    cases += fmt::format("    {}) {}; return ;;\n", name, action);
    withValues += (withValues.empty() ? "" : "|") + name;
  }
  return "# Completion of the command halden for bash; made by \"halden generate bash\".\n" +
         std::string(kBashAsk) +
         "_halden() {\n"
         "  local program=$1 word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  local command='' words='' files='' service='' given=0 i\n"
         "  local -a config=()\n"
         "  COMPREPLY=()\n"
         "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "    case ${COMP_WORDS[i]} in\n"
         "      --config) config=(--config \"${COMP_WORDS[i + 1]/#\\~/$HOME}\") ;;&\n"
         "      " +
         withValues +
         ") ((++i)); continue ;;\n"
         "      -*) continue ;;\n"
         "    esac\n"
         "    case $command:${COMP_WORDS[i]} in\n" +
         transitions +
         "    esac\n"
         "    ((++given))\n"
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
         "  [[ -n $service && $given == 0 && $word != -* ]] || return 0\n"
         "  COMPREPLY=()\n"
         "  _halden_ask services\n"
         "}\n"
         "complete -F _halden halden\n";
}

std::string ZshCompletion(const std::vector<CommandSpec>& commands) {
  std::string text =
      "#compdef halden\n"
      "# Completion of the command halden for zsh; made by \"halden generate zsh\".\n" +
      std::string(kZshAsk);
  for (const auto& command : commands) {
    text += fmt::format(
        "\n{}() {{\n  local curcontext=\"$curcontext\" state line\n  typeset -A opt_args\n"
        "  _arguments -C",
        ZshFunctionName(command));
    for (const auto& option : command.options) {
      for (const auto& name : option.names) text += " \\\n    " + ZshSpec(option, name);
    }
    for (const auto& positional : command.positionals) {
      const std::string asked =
          positional.Completed().empty() ? " " : fmt::format(" _halden_ask {}", positional.Completed());
      const std::string action = positional.IsFile() ? "_files" : asked;
      text +=
          " \\\n    " + Quoted((positional.required ? ":" : "::") + positional.names.front() + ':' + action);
    }
    text += command.subcommands.empty() ? "\n" : ZshSubcommands(command, commands);
    text += "}\n";
  }
  return text + "\n_halden \"$@\"\n";
}

}  // namespace zr::halden::tool
