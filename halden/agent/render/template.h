// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>

#include "agent/render/template_data.h"

namespace zr::halden::agent {

/// A Mustache template, read once.
///
/// `{{name}}` writes a value as one harmless word: what could end it in a configuration file, or mean something there
/// (spaces, quotes, line ends, `#`, `;`, `$`, braces), becomes "_", for whoever publishes an instance chooses its
/// texts. `{{{name}}}` writes it as it is, but for line ends and other control characters, which are gone already.
///
/// Threads: one at a time. Errors: RenderError with file, line and column, from the constructor, for a template that
/// does not parse, uses a name that nothing has, or includes another one.
class Template {
 public:
  explicit Template(const std::filesystem::path& file);

  std::string Render(const TemplateData& data);

 private:
  std::filesystem::path m_file;
  std::string m_text;
  kainjow::mustache::mustache m_parsed;
};

}  // namespace zr::halden::agent
