// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace zr::halden::tool {

namespace {

constexpr const char* kVersion = "halden " HALDEN_VERSION ", ZooKeeper C client " HALDEN_CLIENT_VERSION;
constexpr const char* kAwaitAnswers = "How long to wait for data centres that do not answer (default: 10)";

/// Leaves out which options exclude each other: who gives both is told.
class HelpFormat final : public CLI::Formatter {
 public:
  HelpFormat() { column_width(28); }

 private:
  std::string make_option_opts(const CLI::Option* option) const override {
    const bool flag = option->get_items_expected_max() == 0;
    return flag || option->get_positional() ? std::string() : ' ' + option->get_type_name();
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    std::string text = option->get_description();
    if (!option->get_default_str().empty()) text += " (default: " + option->get_default_str() + ')';
    if (option->get_required() && !option->get_positional()) text += " (required)";
    return text;
  }
};

CLI::App& AddPlainCommand(CLI::App& app, const char* name, const char* description) {
  CLI::App& command = *app.add_subcommand(name, description);
  command.set_version_flag("--version", kVersion, "Print the version and end");
  return command;
}

void AddOutputOptions(CLI::App& command, Words& words) {
  command.add_flag("--json", words.json, "One JSON object a line");
  command.add_flag("--quiet", words.quiet, "Only results and errors");
}

/// What all commands have that read or write data centres.
CLI::App& AddCommand(CLI::App& app, Words& words, const char* name, const char* description,
                     const char* timeout = kAwaitAnswers) {
  CLI::App& command = AddPlainCommand(app, name, description);
  command.add_option("--config", words.config, "The data centres and their ensembles (TOML)")
      ->required()
      ->type_name("FILE");
  command.add_option("--timeout", words.timeout, timeout)->type_name("SECONDS");
  AddOutputOptions(command, words);
  auto* const level =
      command.add_option("--log-level", words.logLevel, "debug, info, warning, error, critical or off")
          ->type_name("LEVEL")
          ->capture_default_str();
  auto* const verbose = command.add_flag("--verbose", words.verbose, "The library's log on stderr");
  verbose->excludes(level);
  verbose->excludes(command.get_option("--quiet"));
  return command;
}

void AddService(CLI::App& command, Words& words, bool required = true) {
  command.add_option("SERVICE", words.service, "The service's name")->required(required);
}

CLI::Option* AddGuard(CLI::App& command, Words& words) {
  return command
      .add_option("--guard", words.guard,
                  "Hold the removal of more than half of a data centre's instances back for so long")
      ->type_name("SECONDS");
}

void AddWatch(CLI::App& app, Words& words) {
  auto& command =
      AddCommand(app, words, "watch", "Print what happens to a service's instances, as it happens",
                 "End with 1 when a data centre has not been read by then (default: wait for ever)");
  AddService(command, words);
  AddGuard(command, words);
  command.footer(
      "Ends on SIGINT, SIGTERM and SIGHUP.\n\nExample:\n  halden watch orders --config halden.toml\n");
}

void AddView(CLI::App& app, Words& words, const char* name, const char* description, const char* footer) {
  auto& command = AddCommand(app, words, name, description);
  AddService(command, words);
  auto* const live = command.add_flag("--live", words.live, "Stay, and show what changes; needs a terminal");
  live->excludes(command.get_option("--json"));
  live->excludes(command.get_option("--timeout"));  // it shows what is still missing
  AddGuard(command, words)->needs(live);
  command.footer(footer);
}

void AddReaders(CLI::App& app, Words& words) {
  AddView(app, words, "list", "Print a service's instances in all data centres",
          "The data centres' states follow the table; with --quiet they are left out. Returns 1 when a data\n"
          "centre could not be read in time; what is known is printed even so.\n\n"
          "Example:\n  halden list orders --config halden.toml --timeout 3\n");
  AddView(app, words, "status", "Print how each data centre is doing for a service",
          "BAD counts nodes that cannot be read, RECONN the times that a session went on after a lost\n"
          "connection, EXPIRED lost sessions, RESYNC complete reads. Returns 1 when a data centre could not\n"
          "be read in time.\n\n"
          "Example:\n  halden status orders --config halden.toml --live\n");
  auto& get = AddCommand(app, words, "get", "Print all that one instance publishes, and who wrote it");
  AddService(get, words);
  get.add_option("ID", words.id, "The instance's id")->required();
  get.footer(
      "Returns 1 when no data centre has it, or when one could not be read.\n\n"
      "Example:\n  halden get orders 3f2a8c1e-5b7d-4e09-9a64-0c1d2e3f4a5b --config halden.toml\n");
  AddCommand(app, words, "services", "Print what is published, and how many instances of it")
      .footer("Example:\n  halden services --config halden.toml\n");
  auto& doctor =
      AddCommand(app, words, "doctor", "Look for what is wrong or will go wrong, and say what to do");
  AddService(doctor, words, false);
  doctor.footer(
      "Checks the configuration, names, servers, sessions and access rights; with SERVICE also its nodes,\n"
      "their sizes, and what watching them costs. Returns 1 when a check failed; a warning is no failure.\n\n"
      "Example:\n  halden doctor orders --config halden.toml\n");
}

void AddPublish(CLI::App& app, Words& words) {
  auto& command = AddCommand(app, words, "publish", "Publish instances of a service until interrupted",
                             "End with 1 when not all are published by then (default: wait for ever)");
  AddService(command, words);
  command.add_option("--dc", words.dataCenter, "The data centre to publish in")
      ->required()
      ->type_name("NAME");
  command.add_option("--host", words.host, "Where the instance is reached")->required()->type_name("HOST");
  command.add_option("--port", words.ports, "A port; the main one has no name (repeatable)")
      ->required()
      ->type_name("[NAME=]PORT")
      ->allow_extra_args(false);
  command.add_option("--attribute", words.attributes, "Anything else to say of the instance (repeatable)")
      ->type_name("KEY=VALUE")
      ->allow_extra_args(false);
  auto* const count =
      command.add_option("--count", words.count, "Publish so many, told apart by the attribute \"index\"")
          ->type_name("N");
  command.add_option("--id", words.publishedId, "The instance's id (default: a new one)")
      ->type_name("UUID")
      ->excludes(count);
  command.add_option("--status", words.status, "ok or degraded")->type_name("STATUS")->capture_default_str();
  command.add_option("--weight", words.weight, "Relative share of requests; 0: not said")
      ->type_name("W")
      ->capture_default_str();
  command.add_option("--service-version", words.serviceVersion, "The instance's version")->type_name("V");
  command.footer(
      "Prints the id of each instance once it is published. SIGUSR1 changes their status to degraded,\n"
      "SIGUSR2 back to ok; SIGINT, SIGTERM and SIGHUP remove them and end.\n\n"
      "Example:\n  halden publish orders --config halden.toml --dc eu-west --host 10.0.0.7 \\\n"
      "    --port 8080 --port admin=8081 --attribute zone=a\n");
}

void AddConfig(CLI::App& app, Words& words) {
  auto& command = AddPlainCommand(app, "config", "Check a configuration file, or print an example");
  command.require_subcommand(1);
  command.footer("Example:\n  halden config check halden.toml\n");
  auto& check = AddPlainCommand(command, "check", "Print every fault and doubt of a file with its place");
  check.add_option("FILE", words.config, "The configuration file (TOML)")->required();
  AddOutputOptions(check, words);
  check.footer(
      "Each is a line FILE:LINE:COLUMN: error|warning: TEXT. Returns 1 when there is an error.\n\n"
      "Example:\n  halden config check halden.toml\n");
  AddPlainCommand(command, "example", "Print a commented file to start from")
      .footer("Example:\n  halden config example > halden.toml\n");
}

/// For packagers: the build runs it.
void AddGenerate(CLI::App& app, Words& words) {
  auto& command =
      AddPlainCommand(app, "generate", "Print what is derived from the commands and their options");
  command.group("");  // hidden
  command.add_option("FORMAT", words.format, "bash, zsh or man")->required();
}

}  // namespace

void Declare(CLI::App& app, Words& words) {
  app.formatter(std::make_shared<HelpFormat>());  // commands take it over as they are added
  app.name("halden");
  app.description("Service discovery over ZooKeeper, across data centres");
  app.set_version_flag("--version", kVersion, "Print the version and end");
  app.require_subcommand(1);
  app.footer("Example:\n  halden list orders --config halden.toml\n");
  AddReaders(app, words);
  AddWatch(app, words);
  AddPublish(app, words);
  AddConfig(app, words);
  AddGenerate(app, words);
}

}  // namespace zr::halden::tool
