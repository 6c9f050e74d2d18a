// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "command_line.h"
#include "commands.h"
#include "failure.h"
#include "generate.h"
#include "halden/service_watcher.h"
#include "logger/sink.h"
#include "words.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

std::string ReadService(const Words& words) {
  if (!IsValidServiceName(words.service)) {
    Refuse(
        fmt::format("bad service name '{}': expected 1 to 255 bytes of UTF-8 without '/' and control "
                    "characters, and not '.' or '..'",
                    EscapeControls(words.service)));
  }
  return words.service;
}

logging::LogLevel ReadLogLevel(const Words& words) {
  if (words.verbose) return logging::ZRLOG_INFO;
  const auto level = logging::ParseLogLevel(words.logLevel);
  if (!level) {
    Refuse(fmt::format("bad --log-level '{}': expected debug, info, warning, error, critical or off",
                       EscapeControls(words.logLevel)));
  }
  return *level;
}

std::optional<std::chrono::seconds> ReadSeconds(std::string_view name, const std::optional<std::string>& word,
                                                unsigned least) {
  constexpr unsigned day = 24U * 60 * 60;
  if (!word) return std::nullopt;
  return std::chrono::seconds(ParseNumber<unsigned>(name, *word, least, day));
}

CommonOptions ReadCommon(const Words& words) {
  return {words.config, ReadLogLevel(words), words.json, words.quiet,
          ReadSeconds("--timeout", words.timeout, 0)};
}

ViewOptions ReadView(const Words& words) {
  return {ReadCommon(words), ReadService(words), words.live, ReadSeconds("--guard", words.guard, 1)};
}

std::string Generate(const CLI::App& app, const std::string& format) {
  if (format == "bash") return BashCompletion(Describe(app));
  if (format == "zsh") return ZshCompletion(Describe(app));
  if (format == "man") return ManualPage(Describe(app));
  Refuse(fmt::format("bad FORMAT '{}': expected bash, zsh or man", EscapeControls(format)));
}

Invocation Read(const CLI::App& app, Words& words) {
  const std::string command = app.get_subcommands().front()->get_name();
  if (command == "list") return ListOptions{ReadView(words)};
  if (command == "status") return StatusOptions{ReadView(words)};
  if (command == "watch") {
    return WatchOptions{ReadCommon(words), ReadService(words), ReadSeconds("--guard", words.guard, 1)};
  }
  if (command == "get") return GetOptions{ReadCommon(words), ReadService(words), ReadId("ID", words.id)};
  if (command == "services") return ServicesOptions{ReadCommon(words)};
  if (command == "doctor") {
    const bool named = app.get_subcommand("doctor")->count("SERVICE") != 0;
    return DoctorOptions{ReadCommon(words), named ? ReadService(words) : std::string()};
  }
  if (command == "config") {
    if (app.get_subcommand("config")->got_subcommand("example")) return Information{ConfigExample()};
    return ConfigCheckOptions{words.config, logging::ZRLOG_ERROR, words.json, words.quiet};
  }
  if (command == "generate") return Information{Generate(app, words.format)};
  const auto& publish = *app.get_subcommand("publish");
  words.ports = publish.get_option("--port")->results();
  words.attributes = publish.get_option("--attribute")->results();
  PublishOptions options{ReadCommon(words), ReadService(words), {}, {}, {}, {}};
  ReadInstance(words, options);
  return options;
}

}  // namespace

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
  return Read(app, words);
}

}  // namespace zr::halden::tool
