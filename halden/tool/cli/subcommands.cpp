// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/subcommands.h"

#include <CLI/CLI.hpp>

#include "cli/config_example.h"
#include "cli/config_path.h"
#include "cli/generate.h"
#include "cli/help_format.h"
#include "cli/publish_options.h"
#include "cli/serve_options.h"
#include "halden/service_watcher.h"
#include "logger/sink.h"

namespace zr::halden::tool {

namespace {

constexpr const char* kVersion = "halden " HALDEN_VERSION ", ZooKeeper C client " HALDEN_CLIENT_VERSION;
constexpr const char* kConfigMeaning =
    "The data centres and their ensembles (TOML) (default: $HALDEN_CONFIG, then /etc/halden/halden.toml)";
constexpr const char* kAwaitAnswers = "How long to wait for data centres that do not answer (default: 10)";

std::string ReadService(const Words& words) {
  if (!IsValidServiceName(words.service)) {
    Refuse(fmt::format(
        "bad service name '{}': expected 1 to 255 bytes of UTF-8 without '/', control characters and "
        "what else ZooKeeper refuses, and not '.' or '..'",
        EscapeControls(words.service)));
  }
  return words.service;
}

logging::LogLevel ReadLogLevel(const Words& words, const std::string& word) {
  if (words.verbose) return logging::ZRLOG_INFO;
  const auto level = logging::ParseLogLevel(word);
  if (!level) {
    Refuse(fmt::format("bad --log-level '{}': expected debug, info, warning, error, critical or off",
                       EscapeControls(word)));
  }
  return *level;
}

CommonOptions ReadCommon(const Words& words) {
  return {ConfigPath(words.config),
          ReadLogLevel(words, words.logLevel),
          words.json,
          words.quiet,
          ReadSeconds("--timeout", words.timeout, std::chrono::milliseconds(0)),
          words.dataCenters};
}

std::optional<std::chrono::milliseconds> ReadGuard(const Words& words) {
  return ReadSeconds("--guard", words.guard, std::chrono::milliseconds(1));
}

ViewOptions ReadView(const Words& words) {
  return {ReadCommon(words), ReadService(words), words.live, ReadGuard(words), words.wide, words.snapshots};
}

/// For packagers: the build asks for it.
Invocation ReadGenerate(const CLI::App& command, const Words& words) {
  const CLI::App& app = *command.get_parent();
  const std::string& format = words.format;
  if (format == "bash") return Information{BashCompletion(Describe(app))};
  if (format == "zsh") return Information{ZshCompletion(Describe(app))};
  if (format == "man") return Information{ManualPage(Describe(app))};
  Refuse(fmt::format("bad FORMAT '{}': expected bash, zsh or man", EscapeControls(format)));
}

/// For the completions of shells.
Invocation ReadComplete(const CLI::App& /*command*/, const Words& words) {
  using What = CompleteOptions::What;
  if (words.format == kDataCenters) return CompleteOptions{ConfigPath(words.config), What::DataCenters};
  if (words.format == kServices) return CompleteOptions{ConfigPath(words.config), What::Services};
  Refuse(
      fmt::format("bad WHAT '{}': expected {} or {}", EscapeControls(words.format), kDataCenters, kServices));
}

Invocation ReadList(const CLI::App& /*command*/, const Words& words) {
  return ListOptions{ReadView(words)};
}

Invocation ReadStatus(const CLI::App& /*command*/, const Words& words) {
  return StatusOptions{ReadView(words)};
}

Invocation ReadWatch(const CLI::App& /*command*/, const Words& words) {
  return WatchOptions{ReadCommon(words), ReadService(words), ReadGuard(words), words.wide, words.snapshots};
}

Invocation ReadGet(const CLI::App& /*command*/, const Words& words) {
  return GetOptions{ReadCommon(words), ReadService(words), ReadIdPrefix("ID", words.id)};
}

Invocation ReadServices(const CLI::App& /*command*/, const Words& words) {
  return ServicesOptions{ReadCommon(words)};
}

Invocation ReadDoctor(const CLI::App& command, const Words& words) {
  const bool named = command.count("SERVICE") != 0;
  return DoctorOptions{ReadCommon(words), named ? ReadService(words) : std::string()};
}

Invocation ReadPublish(const CLI::App& command, const Words& words) {
  PublishOptions options{ReadCommon(words), ReadService(words), {}, {}, {}, {}};
  ReadPublishOptions(command, words, options);
  return options;
}

Invocation ReadConfigCheck(const CLI::App& /*command*/, const Words& words) {
  return ConfigCheckOptions{ConfigPath(words.config), logging::ZRLOG_ERROR, words.json, words.quiet};
}

Invocation ReadConfigExample(const CLI::App& /*command*/, const Words& /*words*/) {
  return Information{ConfigExample()};
}

/// A command's name and what it is for.
struct Title {
  const char* name;
  const char* description;
};

/// Makes of a command's words what it is told.
using Reader = Invocation (*)(const CLI::App& command, const Words& words);

CLI::App& AddGroup(CLI::App& app, const Title& title) {
  CLI::App& command = *app.add_subcommand(title.name, title.description);
  command.set_version_flag("--version", kVersion, "Print the version and end");
  return command;
}

CLI::App& AddPlainCommand(CLI::App& app, Words& words, const Title& title, Reader read) {
  CLI::App& command = AddGroup(app, title);
  command.callback(
      [&command, &words, read] { words.read = [&command, &words, read] { return read(command, words); }; });
  return command;
}

void AddOutputOptions(CLI::App& command, Words& words) {
  command.add_flag("--json", words.json, "One JSON object a line");
  command.add_flag("--quiet", words.quiet, "Only results and errors");
}

/// Returns the flag.
CLI::Option* AddLogLevel(CLI::App& command, Words& words, std::string& word) {
  auto* const level = command.add_option("--log-level", word, "debug, info, warning, error, critical or off")
                          ->type_name("LEVEL")
                          ->capture_default_str();
  return command.add_flag("--verbose", words.verbose, "The library's log on stderr")->excludes(level);
}

/// What all commands have that read or write data centres.
CLI::App& AddCommand(CLI::App& app, Words& words, const Title& title, Reader read,
                     const char* timeout = kAwaitAnswers) {
  CLI::App& command = AddPlainCommand(app, words, title, read);
  command.add_option("--config", words.config, kConfigMeaning)->type_name("FILE");
  command.add_option("--timeout", words.timeout, timeout)->type_name("SECONDS");
  AddOutputOptions(command, words);
  AddLogLevel(command, words, words.logLevel)->excludes(command.get_option("--quiet"));
  return command;
}

/// Of commands that may leave data centres out.
void AddFilter(CLI::App& command, Words& words) {
  command.add_option("--dc", words.dataCenters, "Only this data centre (repeatable)")
      ->type_name("NAME")
      ->allow_extra_args(false);
}

void AddWide(CLI::App& command, Words& words) {
  command.add_flag("--wide", words.wide, "Whole ids, also on a terminal");
}

void AddService(CLI::App& command, Words& words, bool required = true) {
  command.add_option("SERVICE", words.service, "The service's name")->required(required);
}

CLI::Option* AddGuard(CLI::App& command, Words& words) {
  return command
      .add_option("--guard", words.guard,
                  "Hold the removal of more than half of a data centre's instances, and of three or more, "
                  "back for so long")
      ->type_name("SECONDS");
}

void AddSnapshots(CLI::App& command, Words& words) {
  command
      .add_option(
          "--snapshots", words.snapshots,
          "Keep what is known in files there, and begin with what they hold (default: the configuration's "
          "snapshot_folder)")
      ->type_name("DIR");
}

void AddWatch(CLI::App& app, Words& words) {
  auto& command = AddCommand(
      app, words, {"watch", "Print what happens to a service's instances, as it happens"}, ReadWatch,
      "End with 1 when a data centre has not been read by then (default: wait for ever)");
  AddService(command, words);
  AddFilter(command, words);
  AddGuard(command, words);
  AddWide(command, words);
  AddSnapshots(command, words);
  command.footer(
      "Ends on SIGINT, SIGTERM and SIGHUP.\n\nExample:\n  halden watch orders --config halden.toml\n");
}

CLI::App& AddView(CLI::App& app, Words& words, const Title& title, Reader read, const char* footer) {
  auto& command = AddCommand(app, words, title, read);
  AddService(command, words);
  AddFilter(command, words);
  auto* const live =
      command.add_flag("--live", words.live, "Stay, and show what changes, until q; needs a terminal");
  live->excludes(command.get_option("--json"));
  live->excludes(command.get_option("--timeout"));  // it shows what is still missing
  AddGuard(command, words)->needs(live);
  AddSnapshots(command, words);
  command.footer(footer);
  return command;
}

void AddReaders(CLI::App& app, Words& words) {
  AddWide(
      AddView(
          app, words, {"list", "Print a service's instances in all data centres"}, ReadList,
          "The data centres' states follow the table; with --quiet they are left out. Returns 1 when a data\n"
          "centre could not be read in time; what is known is printed even so. That nobody publishes the\n"
          "service is said on stderr, with names like it, and is no failure.\n\n"
          "Example:\n  halden list orders --config halden.toml --timeout 3\n"),
      words);
  AddView(app, words, {"status", "Print how each data centre is doing for a service"}, ReadStatus,
          "BAD counts nodes that cannot be read, RECONN the times that a session went on after a lost\n"
          "connection, EXPIRED lost sessions, RESYNC complete reads. Returns 1 when a data centre could not\n"
          "be read in time.\n\n"
          "Example:\n  halden status orders --config halden.toml --live\n");
  auto& get =
      AddCommand(app, words, {"get", "Print all that one instance publishes, and who wrote it"}, ReadGet);
  AddService(get, words);
  get.add_option("ID", words.id, "The instance's id, or how it begins")->required();
  AddFilter(get, words);
  get.footer(
      "Returns 1 when no data centre has it, when several begin so, or when a data centre could not be "
      "read.\n\n"
      "Example:\n  halden get orders 3f2a8c1e --config halden.toml\n");
  auto& services = AddCommand(
      app, words, {"services", "Print what is published, and how many instances of it"}, ReadServices);
  AddFilter(services, words);
  services.footer(
      "\"?\" stands where a service may not be read; the command returns 1 then.\n\n"
      "Example:\n  halden services --config halden.toml\n");
  auto& doctor = AddCommand(
      app, words, {"doctor", "Look for what is wrong or will go wrong, and say what to do"}, ReadDoctor);
  AddService(doctor, words, false);
  AddFilter(doctor, words);
  doctor.footer(
      "Checks the configuration, credentials, names, servers, sessions and access rights; with SERVICE also\n"
      "its nodes, their sizes, what watching them costs, and what anybody could do to them. Returns 1 when a "
      "check failed; a warning is no failure.\n\n"
      "Example:\n  halden doctor orders --config halden.toml\n");
}

void AddPublish(CLI::App& app, Words& words) {
  auto& command =
      AddCommand(app, words, {"publish", "Publish instances of a service until interrupted"}, ReadPublish,
                 "End with 1 when not all are published by then (default: wait for ever)");
  AddService(command, words);
  DeclarePublishOptions(command, words);
  command.footer(
      "An ACL is \"creator\": everybody may read the instances, only who has the data centre's credential "
      "may\n"
      "change them; or a list in ZooKeeper's text form, SCHEME:ID:PERMISSIONS[,...].\n\n"
      "Prints the id of each instance once it is published for sure: where it took the place of a node of\n"
      "another process, two seconds later, since that one may live and take it back. What is in the way is\n"
      "said on stderr, once; outages not with --quiet. SIGUSR1 changes their status to degraded, SIGUSR2\n"
      "back to ok; SIGINT, SIGTERM and SIGHUP remove them and end.\n\n"
      "Example:\n  halden publish orders --config halden.toml --dc eu-west --host 10.0.0.7 \\\n"
      "    --port 8080 --port admin=8081 --attribute zone=a\n");
}

Invocation ReadServe(const CLI::App& /*command*/, const Words& words) {
  return ReadServeOptions(words, ReadLogLevel(words, words.agentLogLevel), ReadGuard(words));
}

void AddServe(CLI::App& app, Words& words) {
  auto& command = AddPlainCommand(
      app, words, {"serve", "Serve what is known of services over HTTP until interrupted"}, ReadServe);
  command.add_option("--config", words.config, kConfigMeaning)->type_name("FILE");
  DeclareServeOptions(command, words);
  AddGuard(command, words);
  AddSnapshots(command, words);
  command.add_flag("--quiet", words.quiet, "Do not print where it listens");
  AddLogLevel(command, words, words.agentLogLevel);
  command.footer(
      "Prints where it can be asked. SIGHUP reads the configuration again; SIGINT and SIGTERM end it. "
      "docs/agent.md\n"
      "has what can be asked.\n\n"
      "Example:\n  halden serve --config halden.toml --service orders\n");
}

void AddConfig(CLI::App& app, Words& words) {
  auto& command = AddGroup(app, {"config", "Check a configuration file, or print an example"});
  command.require_subcommand(1);
  command.footer("Example:\n  halden config check halden.toml\n");
  auto& check = AddPlainCommand(
      command, words, {"check", "Print every fault and doubt of a file with its place"}, ReadConfigCheck);
  check.add_option("FILE", words.config, kConfigMeaning);
  AddOutputOptions(check, words);
  check.footer(
      "Each is a line FILE:LINE:COLUMN: error|warning: TEXT. Returns 1 when there is an error.\n\n"
      "Example:\n  halden config check halden.toml\n");
  AddPlainCommand(command, words, {"example", "Print a commented file to start from"}, ReadConfigExample)
      .footer("Example:\n  halden config example > halden.toml\n");
}

/// For packagers: the build runs it.
void AddGenerate(CLI::App& app, Words& words) {
  auto& command = AddPlainCommand(
      app, words, {"generate", "Print what is derived from the commands and their options"}, ReadGenerate);
  command.group("");  // hidden
  command.add_option("FORMAT", words.format, "bash, zsh or man")->required();
}

/// For completions: they run it.
void AddComplete(CLI::App& app, Words& words) {
  auto& command =
      AddPlainCommand(app, words, {"complete", "Print the names that a word may become"}, ReadComplete);
  command.group("");  // hidden
  command.add_option("WHAT", words.format, "data-centers or services")->required();
  command.add_option("--config", words.config, kConfigMeaning)->type_name("FILE");
}

}  // namespace

void Declare(CLI::App& app, Words& words) {
  app.formatter(MakeHelpFormat());  // commands take it over as they are added
  app.name("halden");
  app.description("Service discovery over ZooKeeper, across data centres");
  app.set_version_flag("--version", kVersion, "Print the version and end");
  app.require_subcommand(1);
  app.footer("Example:\n  halden list orders --config halden.toml\n");
  AddReaders(app, words);
  AddWatch(app, words);
  AddPublish(app, words);
  AddServe(app, words);
  AddConfig(app, words);
  AddGenerate(app, words);
  AddComplete(app, words);
}

}  // namespace zr::halden::tool
