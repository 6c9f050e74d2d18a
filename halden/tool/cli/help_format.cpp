// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/help_format.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <string>

#include "render/text.h"

namespace zr::halden::tool {

namespace {

constexpr std::size_t kColumns = 80;

/// Paragraphs are filled anew; lines that begin with a blank stay as they are.
std::string Filled(const std::string& text) {
  std::string filled;
  std::string paragraph;
  const auto end = [&] {
    if (!paragraph.empty()) filled += Wrapped(paragraph, 0, kColumns) + '\n';
    paragraph.clear();
  };
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line.front() != ' ') {
      paragraph += (paragraph.empty() ? "" : " ") + line;
      continue;
    }
    end();
    filled += line + '\n';
  }
  end();
  return filled;
}

class HelpFormat final : public CLI::Formatter {
 private:
  static std::string Row(const std::string& name, const std::string& description) {
    constexpr std::size_t indent = 28;
    const std::string begin = "  " + name;
    // A name that is too long has its line for itself.
    const std::string gap = Width(begin) < indent ? std::string() : '\n' + std::string(indent, ' ');
    return Padded(begin, indent) + gap + Wrapped(description, indent, kColumns) + '\n';
  }
  std::string make_option(const CLI::Option* option, bool isPositional) const override {
    return Row(make_option_name(option, isPositional) + make_option_opts(option), make_option_desc(option));
  }
  std::string make_subcommand(const CLI::App* command) const override {
    return Row(command->get_name(), command->get_description());
  }
  std::string make_footer(const CLI::App* command) const override {
    return Filled(command->get_footer()) + '\n';
  }
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

}  // namespace

std::shared_ptr<CLI::FormatterBase> MakeHelpFormat() {
  return std::make_shared<HelpFormat>();
}

}  // namespace zr::halden::tool
