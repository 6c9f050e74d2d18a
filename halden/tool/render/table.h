// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "io/terminal.h"

/// Rows and columns as text. Pure; nothing here writes anywhere.
namespace zr::halden::tool {

enum class Tone : std::uint8_t { Plain, Title, Good, Doubtful, Bad, Faint };

/// `text` in the tone's colour, where there are colours.
std::string Coloured(std::string_view text, Tone tone, bool colour);

struct Column {
  std::string title;
  std::size_t least = 0;  ///< may be cut to so many columns where the table is too wide; 0: never
  bool number = false;    ///< right-aligned
};

/// Columns that are left of a name, which rows are told apart by.
inline constexpr std::size_t kLeastName = 12;
inline constexpr std::size_t kLeastText = 4;  // columns of other text that is cut

struct Cell {
  std::string text;  ///< safe for a terminal
  Tone tone = Tone::Plain;
};

class Table {
 public:
  explicit Table(std::vector<Column> columns) : m_columns(std::move(columns)) {}

  void AddRow(std::vector<Cell> cells) { m_rows.push_back({std::move(cells), {}}); }
  /// A line of its own below the row before it, indented.
  void AddNote(std::string note) { m_rows.push_back({{}, std::move(note)}); }

  /// Columns as wide as their widest cell. What is too wide for the look is taken from those that
  /// may be cut, from whichever is the widest then. Without a limit nothing is cut, and columns are no wider than an id:
  /// what is wider moves the rest of its own line.
  std::string Text(const Look& look) const;

 private:
  struct Row {
    std::vector<Cell> cells;
    std::string note;  // where there are no cells
  };

  std::vector<std::size_t> Widths(std::size_t limit) const;
  std::string Line(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
                   const Look& look) const;

  const std::vector<Column> m_columns;
  std::vector<Row> m_rows;
};

/// At most `lines` lines of `text`; the last one says how many more there would be.
std::string FirstLines(std::string_view text, std::size_t lines);

}  // namespace zr::halden::tool
