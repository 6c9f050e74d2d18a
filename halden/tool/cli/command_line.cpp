// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/command_line.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "cli/subcommands.h"
#include "cli/words.h"
#include "render/text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

/// "halden config check"
std::string FullName(const CLI::App& command) {
  const CLI::App* const parent = command.get_parent();
  return parent == nullptr ? command.get_name() : FullName(*parent) + ' ' + command.get_name();
}

[[noreturn]] void RefuseAt(const CLI::App& command, const std::string& why) {
  Refuse(fmt::format("{} ({} --help tells more)", why, FullName(command)));
}

std::vector<const CLI::App*> Commands(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* /*command*/) { return true; });
}

std::vector<std::string> VisibleNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : Commands(app)) {
    if (!command->get_group().empty()) names.push_back(command->get_name());
  }
  return names;
}

[[noreturn]] void RefuseOption(const CLI::App& command, const std::string& word) {
  const std::string name = word.substr(0, word.find('='));
  std::vector<std::string> known;
  for (const CLI::Option* option : command.get_options()) {
    for (const auto& longName : option->get_lnames()) known.push_back("--" + longName);
  }
  RefuseAt(command, fmt::format("unknown option '{}'{}", EscapeControls(name), DidYouMean(name, known)));
}

/// Which command is meant, before the parser sees the words: it would take a misspelt one for an argument too many.
void CheckCommands(const CLI::App& app, int argc, const char* const* argv) {
  const CLI::App* command = &app;
  for (int i = 1; i < argc && !VisibleNames(*command).empty(); ++i) {
    const std::string word = argv[i];
    if (word.starts_with('-')) {
      if (command->get_option_no_throw(word) != nullptr) return;
      RefuseAt(*command,
               fmt::format("'{}' stands before the command: options come behind it", EscapeControls(word)));
    }
    const auto commands = Commands(*command);
    const auto next = std::find_if(commands.begin(), commands.end(),
                                   [&](const CLI::App* each) { return each->get_name() == word; });
    if (next == commands.end()) {
      RefuseAt(*command, fmt::format("unknown command '{}'{}", EscapeControls(word),
                                     DidYouMean(word, VisibleNames(*command))));
    }
    command = *next;
  }
  if (const auto names = VisibleNames(*command); !names.empty()) {
    RefuseAt(*command, fmt::format("a command is missing: {}", fmt::join(names, ", ")));
  }
}

/// The command that was named, or the program itself.
const CLI::App& NamedCommand(const CLI::App& app) {
  const CLI::App* command = &app;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().front();
  return *command;
}

[[noreturn]] void RefuseExtras(const CLI::App& command) {
  std::vector<std::string> words = command.remaining();
  for (auto& word : words) {
    if (word.starts_with('-')) RefuseOption(command, word);
    word = '\'' + EscapeControls(word) + '\'';
  }
  RefuseAt(command, fmt::format("not expected: {}", fmt::join(words, " ")));
}

}  // namespace

Invocation ParseCommandLine(int argc, const char* const* argv) {
  Words words;
  CLI::App app;
  Declare(app, words);
  CheckCommands(app, argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return Information{app.help()};  // of the command that was named, if any
  } catch (const CLI::CallForVersion& e) {
    return Information{std::string(e.what()) + '\n'};
  } catch (const CLI::ExtrasError&) {
    RefuseExtras(NamedCommand(app));
  } catch (const CLI::ParseError& e) {
    RefuseAt(NamedCommand(app), e.what());
  }
  return words.read();
}

}  // namespace zr::halden::tool
