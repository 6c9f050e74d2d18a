// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <ctime>
#include <cwchar>
#include <numeric>
#include <utility>

#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

/// Of the character that `text` begins with, which is taken off. The C library knows the widths, in a locale that knows
/// characters; bytes that are none count as one.
std::size_t TakeWidth(std::string_view& text) {
  static const locale_t characters = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const auto point = TakeCodePoint(text);
  if (!point) text.remove_prefix(1);
  if (!point || *point < 0x80 || characters == nullptr) return 1;
  const locale_t before = uselocale(characters);
  const int width = wcwidth(static_cast<wchar_t>(*point));
  uselocale(before);
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

std::time_t Seconds(TimePoint time) {
  return std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
}

std::int64_t Milliseconds(TimePoint time) {
  const auto part = time - std::chrono::floor<std::chrono::seconds>(time);
  return std::chrono::duration_cast<std::chrono::milliseconds>(part).count();
}

std::string Blanks(std::size_t width, std::string_view before) {
  const std::size_t taken = Width(before);
  return std::string(width > taken ? width - taken : 0, ' ');
}

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

std::string Word(std::string_view text) {
  std::string safe = EscapeControls(text);
  if (!safe.empty() && safe.find_first_of(" \"=") == std::string::npos) return safe;
  std::string quoted = "\"";
  for (const char c : safe) {
    if (c == '"') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

std::size_t Width(std::string_view text) {
  std::size_t width = 0;
  while (!text.empty()) width += TakeWidth(text);
  return width;
}

std::string Padded(std::string_view text, std::size_t width) {
  std::string padded(text);
  padded += Blanks(width, text);
  return padded;
}

std::string RightAligned(std::string_view text, std::size_t width) {
  std::string aligned = Blanks(width, text);
  aligned += text;
  return aligned;
}

std::string Cut(std::string_view text, std::size_t width) {
  if (Width(text) <= width) return std::string(text);
  if (width == 0) return {};
  std::string_view rest = text;
  std::size_t end = 0;
  for (std::size_t columns = TakeWidth(rest); columns < width; columns += TakeWidth(rest)) {
    end = text.size() - rest.size();  // there is more, since all is wider than `width`
  }
  std::string cut(text.substr(0, end));
  cut += "…";
  return cut;
}

std::string Wrapped(std::string_view text, std::size_t indent, std::size_t width) {
  constexpr std::size_t leastRoom = 20;
  if (width < indent + leastRoom) return std::string(text);
  std::string wrapped;
  std::size_t column = indent;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find(' ', begin), text.size());
    const std::string_view word = text.substr(begin, end - begin);
    if (column != indent && column + 1 + Width(word) > width) {
      wrapped += '\n' + std::string(indent, ' ');
      column = indent;
    } else if (begin != 0) {
      wrapped += ' ';
      ++column;
    }
    wrapped += word;
    column += Width(word);
    begin = end + 1;
  }
  return wrapped;
}

std::string Counted(std::size_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string SecondsText(std::chrono::milliseconds time) {
  return fmt::format("{:g} s", std::chrono::duration<double>(time).count());
}

std::string LocalTime(TimePoint time) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}", fmt::localtime(Seconds(time)), Milliseconds(time));
}

std::string ShortTime(TimePoint time, TimePoint now) {
  const std::tm then = fmt::localtime(Seconds(time));
  const std::tm today = fmt::localtime(Seconds(now));
  const bool sameDay = then.tm_year == today.tm_year && then.tm_yday == today.tm_yday;
  return sameDay ? fmt::format("{:%H:%M:%S}.{:03}", then, Milliseconds(time)) : LocalTime(time);
}

std::string UtcTime(TimePoint time) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(Seconds(time)), Milliseconds(time));
}

TimePoint FromMilliseconds(std::int64_t sinceEpoch) {
  // A time that a writer made up must not overflow the clock's finer unit.
  constexpr std::int64_t most =
      std::chrono::floor<std::chrono::milliseconds>(TimePoint::max()).time_since_epoch().count();
  return TimePoint(std::chrono::milliseconds(std::clamp<std::int64_t>(sinceEpoch, 0, most)));
}

std::string Age(TimePoint since, TimePoint now) {
  const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - since).count();
  const auto seconds = std::max<std::int64_t>(age, 0);  // clocks differ between hosts
  constexpr std::array<std::pair<std::int64_t, char>, 4> units{
      {{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}}};
  for (std::size_t i = 0; i + 1 < units.size(); ++i) {
    if (seconds < units[i].first) continue;
    return fmt::format("{}{} {}{}", seconds / units[i].first, units[i].second,
                       seconds % units[i].first / units[i + 1].first, units[i + 1].second);
  }
  return fmt::format("{}s", seconds);
}

std::string Age(std::int64_t startTimeMs, TimePoint now) {
  return startTimeMs <= 0 ? "-" : Age(FromMilliseconds(startTimeMs), now);
}

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
