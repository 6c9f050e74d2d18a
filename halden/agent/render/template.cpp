// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/render/template.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <vector>

#include "agent/render/options.h"

namespace zr::halden::agent {

namespace {

std::string ReadTemplate(const std::filesystem::path& file) {
  constexpr std::uintmax_t most = 1024UL * 1024;
  std::error_code error;
  const auto size = std::filesystem::file_size(file, error);  // fails for what is no file
  if (error) throw RenderError("cannot read the template \"" + file.string() + "\": " + error.message());
  if (size > most) throw RenderError("the template \"" + file.string() + "\" is longer than a mebibyte");
  std::ifstream stream(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) {
    throw RenderError("cannot read the template \"" + file.string() +
                      "\": " + std::generic_category().message(errno));
  }
  return text;
}

[[noreturn]] void Fail(const std::filesystem::path& file, std::string_view text, std::size_t offset,
                       const std::string& what) {
  const auto before = text.substr(0, offset);
  const auto line = std::count(before.begin(), before.end(), '\n') + 1;
  const auto column = offset - (before.rfind('\n') + 1) + 1;  // npos + 1 is 0
  throw RenderError(file.string() + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + what);
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const auto begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/// Goes over the tags, up to what does not parse, and fails at a name that nothing has, which would be written as
/// nothing, and at an end of a section that is not the one that is open.
class TagCheck {
 public:
  TagCheck(const std::filesystem::path& file, std::string_view text) : m_file(file), m_text(text) {}

  void Run() {
    for (auto at = m_text.find(m_begin); at != std::string_view::npos; at = m_text.find(m_begin, at)) {
      auto inner = at + m_begin.size();
      const bool verbatim = m_begin == "{{" && m_text.substr(inner).starts_with('{');
      const std::string_view end = verbatim ? "}}}" : m_end;
      if (verbatim) ++inner;
      const auto close = m_text.find(end, inner);
      if (close == std::string_view::npos) return;
      if (!Take(at, Trimmed(m_text.substr(inner, close - inner)))) return;
      at = close + end.size();
    }
  }

 private:
  /// False for what does not parse.
  bool Take(std::size_t at, std::string_view tag) {
    const char sigil = tag.empty() ? ' ' : tag.front();
    if (sigil == '!') return true;
    if (sigil == '=') return SetDelimiters(tag);
    if (sigil == '>') Fail(m_file, m_text, at, "a template cannot include another one");
    const bool marked = std::string_view("#^/&").find(sigil) != std::string_view::npos;
    const auto name = Trimmed(tag.substr(marked ? 1 : 0));
    if (sigil == '/') {
      Close(at, name);
    } else {
      if (!IsKnown(name)) Fail(m_file, m_text, at, "nothing is called \"" + std::string(name) + "\"");
      if (sigil == '#' || sigil == '^') Open(at, name);
    }
    return true;
  }

  /// Parsed sections are gone through, and freed, one inside the other.
  void Open(std::size_t at, std::string_view name) {
    constexpr std::size_t deepest = 100;
    m_sections.push_back(name);
    if (m_sections.size() > deepest) Fail(m_file, m_text, at, "more than 100 sections are open");
  }

  void Close(std::size_t at, std::string_view name) {
    const auto open = m_sections.empty() ? "nothing" : '"' + std::string(m_sections.back()) + '"';
    if (m_sections.empty() || m_sections.back() != name) {
      Fail(m_file, m_text, at, "this closes \"" + std::string(name) + "\", but " + open + " is open");
    }
    m_sections.pop_back();
  }

  /// Below what users name everything may be called anything.
  bool IsKnown(std::string_view name) const {
    if (name == ".") return true;
    const auto isOpen = [](std::string_view section) {
      return OpenNames().contains(section.substr(0, section.find('.')));
    };
    if (std::any_of(m_sections.begin(), m_sections.end(), isOpen)) return true;
    while (true) {
      const auto dot = name.find('.');
      if (!KnownNames().contains(name.substr(0, dot))) return false;
      if (dot == std::string_view::npos || isOpen(name)) return true;
      name.remove_prefix(dot + 1);
    }
  }

  bool SetDelimiters(std::string_view tag) {
    if (tag.size() < 2 || tag.back() != '=') return false;
    const auto both = Trimmed(tag.substr(1, tag.size() - 2));
    if (both.find(' ') == std::string_view::npos) return false;
    m_begin = both.substr(0, both.find(' '));
    m_end = both.substr(both.rfind(' ') + 1);
    return true;
  }

  const std::filesystem::path& m_file;
  const std::string_view m_text;
  std::string_view m_begin = "{{";
  std::string_view m_end = "}}";
  std::vector<std::string_view> m_sections;  // that are open
};

/// The text, once it may be parsed.
const std::string& Checked(const std::filesystem::path& file, const std::string& text) {
  TagCheck(file, text).Run();
  return text;
}

std::string Word(std::string text) {
  constexpr std::string_view unsafe = " \"'`#;$\\{}()<>|&!%";
  std::replace_if(
      text.begin(), text.end(), [unsafe](char c) { return unsafe.find(c) != std::string_view::npos; }, '_');
  return text;
}

}  // namespace

Template::Template(const std::filesystem::path& file)
    : m_file(file), m_text(ReadTemplate(file)), m_parsed(Checked(m_file, m_text)) {
  if (!m_parsed.is_valid()) {
    const std::string message = m_parsed.error_message();  // "... at OFFSET"
    const auto at = message.rfind(" at ");
    std::size_t offset = 0;
    if (at != std::string::npos) {
      std::from_chars(message.data() + at + 4, message.data() + message.size(), offset);
    }
    Fail(m_file, m_text, offset, message.substr(0, at));
  }
  m_parsed.set_custom_escape(Word);
}

std::string Template::Render(const TemplateData& data) {
  NameContext context(data);
  std::string text = m_parsed.render(context);
  if (m_parsed.is_valid()) return text;
  throw RenderError(m_file.string() + ": " + m_parsed.error_message());
}

}  // namespace zr::halden::agent
