// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/config_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <system_error>
#include <utility>
#include <vector>

#include "base/system_error.h"
#include "zrstl/utf8.h"

namespace zr::halden::details {

namespace {

// More than ten thousand data centres. The parser's time can grow with the square of the size.
constexpr std::size_t kMaxFileBytes = 1UL * 1024 * 1024;
constexpr std::size_t kMaxQuotedBytes = 100;

/// Past the string that begins with the quote at `pos`.
std::size_t SkipString(std::string_view text, std::size_t pos) {
  const char quote = text[pos];
  const zr::String triple(3, quote);
  const bool isLong = text.substr(pos, 3) == triple;
  const std::string_view end = isLong ? std::string_view(triple) : std::string_view(triple).substr(0, 1);
  pos += end.size();
  while (pos < text.size() && text.substr(pos, end.size()) != end) {
    if (text[pos] == '\n' && !isLong) return pos;
    pos += text[pos] == '\\' && quote == '"' ? 2U : 1U;
  }
  pos += end.size();
  // One or two quotes before the three that end it are text.
  for (int extra = 0; isLong && extra < 2 && pos < text.size() && text[pos] == quote; ++extra) ++pos;
  return std::min(pos, text.size());
}

/// How many characters to insert, remove or replace to get from one text to the other.
std::size_t EditDistance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

}  // namespace

zr::String Quoted(std::string_view text) {
  auto cut = std::min(text.size(), kMaxQuotedBytes);
  while (cut < text.size() && cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0U) == 0x80) --cut;
  zr::String quoted = "\"";
  quoted += EscapeControls(text.substr(0, cut));
  quoted += cut == text.size() ? "\"" : "\"...";
  return quoted;
}

zr::String ReadFile(const std::string& path, std::string& text) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) return "is a directory: expected a file";
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  if (!file) return "cannot be opened: " + SystemError() + ": expected a file that can be read";
  std::array<char, 16UL * 1024> block{};
  do {
    file.read(block.data(), block.size());
    text.append(block.data(), static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMaxFileBytes) return "too large: expected at most 1 MiB";
  } while (file);
  return file.bad() ? "cannot be read: " + SystemError() : zr::String();
}

std::size_t FindOverlongKey(std::string_view text) {
  constexpr int maxDots = 15;
  int dots = 0;
  for (std::size_t pos = 0; pos < text.size();) {
    const char c = text[pos];
    if (c == '"' || c == '\'') {
      pos = SkipString(text, pos);
      continue;
    }
    if (c == '#') {
      pos = std::min(text.find('\n', pos), text.size());
      continue;
    }
    if (c == '.' && ++dots > maxDots) return pos;
    if (c == '\n' || c == '=' || c == ',' || c == '[' || c == '{') dots = 0;
    ++pos;
  }
  return std::string_view::npos;
}

bool IsNearly(std::string_view key, std::string_view known) {
  constexpr std::size_t closeEnough = 3;
  return key.size() <= known.size() + closeEnough && EditDistance(key, known) <= closeEnough;
}

}  // namespace zr::halden::details
