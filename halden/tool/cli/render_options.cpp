// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/render_options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "agent/render/options.h"

namespace zr::halden::tool {

namespace {

/// `text` read by `parse`; what that finds wrong is told of the option `name`.
template <typename Parse>
auto Read(std::string_view name, const std::string& text, Parse parse) try {
  return parse(text);
} catch (const agent::RenderError& e) {
  Refuse(fmt::format("bad {}: {}", name, EscapeControls(e.what())));
}

}  // namespace

void DeclareRenderOptions(CLI::App& command, Words& words) {
  command
      .add_option("--render", words.renderedFiles,
                  "A file made of a template whenever instances change (repeatable)")
      ->type_name("[SERVICE:]TEMPLATE:TARGET")
      ->allow_extra_args(false);
  command.add_option("--render-wait", words.renderWait, "Seconds to gather changes for (default: 0.5:5)")
      ->type_name("MIN:MAX");
  command
      .add_option("--check", words.check, "Run on a new file, $HALDEN_FILE, before it replaces the old one")
      ->type_name("COMMAND");
  command.add_option("--reload", words.reload, "Run after a file was replaced")->type_name("COMMAND");
  command.add_flag("--allow-empty", words.allowEmpty, "Replace a file also when no instance is left");
}

std::vector<agent::RenderOptions> ReadRenderOptions(const Words& words) {
  const bool isSaidMore =
      words.renderWait || !words.check.empty() || !words.reload.empty() || words.allowEmpty;
  if (words.renderedFiles.empty() && isSaidMore) {
    Refuse("--render-wait, --check, --reload and --allow-empty are about files: name one with --render");
  }
  std::vector<agent::RenderOptions> files;
  for (const auto& text : words.renderedFiles) {
    auto& file = files.emplace_back(Read("--render", text, agent::ParseRender));
    if (words.renderWait) file.wait = Read("--render-wait", *words.renderWait, agent::ParseRenderWait);
    file.check = words.check;
    file.reload = words.reload;
    file.allowEmpty = words.allowEmpty;
  }
  return files;
}

}  // namespace zr::halden::tool
