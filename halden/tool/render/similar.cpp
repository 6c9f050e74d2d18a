// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/similar.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

#include "render/text.h"

namespace zr::halden::tool {

namespace {

/// Letters to add, drop, replace, or swap with their neighbour.
std::size_t Distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> before;
  std::vector<std::size_t> last(to.size() + 1);
  std::iota(last.begin(), last.end(), std::size_t{0});
  for (std::size_t i = 1; i <= from.size(); ++i) {
    std::vector<std::size_t> row(to.size() + 1, i);
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t replaced = last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      row[j] = std::min({replaced, last[j] + 1, row[j - 1] + 1});
      const bool swapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before = std::exchange(last, std::move(row));
  }
  return last.back();
}

}  // namespace

std::vector<std::string> Similar(std::string_view word, const std::vector<std::string>& known) {
  constexpr std::size_t most = 3;
  constexpr std::size_t lettersPerSlip = 3;
  const std::string meant = LowerCase(word);
  std::vector<std::pair<std::size_t, std::string>> found;
  for (const auto& name : known) {
    const std::string candidate = LowerCase(name);
    const std::size_t slips =
        std::max<std::size_t>(std::max(meant.size(), candidate.size()) / lettersPerSlip, 1);
    const bool begun = meant.size() >= 2 && candidate.starts_with(meant);
    const std::size_t longer =
        std::max(meant.size(), candidate.size()) - std::min(meant.size(), candidate.size());
    if (!begun && longer > slips) continue;
    const std::size_t distance = begun ? 1 : Distance(meant, candidate);
    if (distance <= slips && name != word) found.emplace_back(distance, name);
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> names;
  for (auto& [distance, name] : found) {
    if (names.size() < most && (names.empty() || names.back() != name)) names.push_back(std::move(name));
  }
  return names;
}

std::string DidYouMean(std::string_view word, const std::vector<std::string>& known) {
  std::string text;
  for (const auto& name : Similar(word, known))
    text += (text.empty() ? ", did you mean " : " or ") + Word(name);
  return text.empty() ? text : text + '?';
}

}  // namespace zr::halden::tool
