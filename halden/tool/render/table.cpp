// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

#include "render/text.h"

namespace zr::halden::tool {

namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kMostInPipe = 36;

std::string_view Escape(Tone tone) {
  switch (tone) {
    case Tone::Title:
      return "\x1b[1m";
    case Tone::Good:
      return "\x1b[32m";
    case Tone::Doubtful:
      return "\x1b[33m";
    case Tone::Bad:
      return "\x1b[31m";
    case Tone::Faint:
      return "\x1b[2m";
    case Tone::Plain:
      break;
  }
  return {};
}

}  // namespace

std::string Coloured(std::string_view text, Tone tone, bool colour) {
  std::string coloured(text);
  if (!colour || tone == Tone::Plain || text.empty()) return coloured;
  coloured.insert(0, Escape(tone));
  coloured += "\x1b[0m";
  return coloured;
}

std::vector<std::size_t> Table::Widths(std::size_t limit) const {
  std::vector<std::size_t> widths;
  for (const auto& column : m_columns) widths.push_back(Width(column.title));
  for (const auto& row : m_rows) {
    for (std::size_t i = 0; i < row.cells.size(); ++i) {
      const std::size_t width = Width(row.cells[i].text);
      // Nobody's terminal bounds what goes into a pipe: one long cell must not make all lines long.
      if (limit != 0 || width <= kMostInPipe) widths[i] = std::max(widths[i], width);
    }
  }
  std::size_t total = std::accumulate(widths.begin(), widths.end(), kGap * (widths.size() - 1));
  while (limit != 0 && total > limit) {
    std::size_t widest = widths.size();
    for (std::size_t i = 0; i < widths.size(); ++i) {
      const bool candidate = widths[i] > m_columns[i].least && m_columns[i].least != 0;
      if (candidate && (widest == widths.size() || widths[i] > widths[widest])) widest = i;
    }
    if (widest == widths.size()) break;
    --widths[widest];
    --total;
  }
  return widths;
}

std::string Table::Line(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
                        const Look& look) const {
  const bool bounded = look.width != 0;
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::string text = bounded ? Cut(cells[i].text, widths[i]) : cells[i].text;
    const std::size_t blanks = widths[i] - std::min(widths[i], Width(text));
    const bool last = i + 1 == cells.size();
    if (m_columns[i].number) line.append(blanks, ' ');
    line += Coloured(text, cells[i].tone, look.colour);
    if (!last) line.append(kGap + (m_columns[i].number ? 0 : blanks), ' ');
  }
  line += '\n';
  return line;
}

std::string Table::Text(const Look& look) const {
  const auto widths = Widths(look.width);
  std::vector<Cell> titles;
  for (const auto& column : m_columns) titles.push_back({column.title, Tone::Title});
  std::string text = Line(titles, widths, look);
  for (const auto& row : m_rows) {
    if (!row.cells.empty()) {
      text += Line(row.cells, widths, look);
      continue;
    }
    std::string note(widths.front() + kGap, ' ');
    note += row.note;
    text += Coloured(look.width == 0 ? note : Cut(note, look.width), Tone::Faint, look.colour);
    text += '\n';
  }
  return text;
}

std::string FirstLines(std::string_view text, std::size_t lines) {
  const auto total = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  if (total <= lines) return std::string(text);
  if (lines == 0) return {};
  std::size_t end = 0;
  for (std::size_t line = 1; line < lines; ++line) end = text.find('\n', end) + 1;
  std::string first(text.substr(0, end));
  first += fmt::format("… {} more\n", total - lines + 1);
  return first;
}

}  // namespace zr::halden::tool
