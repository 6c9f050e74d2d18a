// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Text for people and terminals. Pure functions.
namespace zr::halden::tool {

using TimePoint = std::chrono::system_clock::time_point;

/// As one word: put in quotes where it would not read as one.
std::string Word(std::string_view text);

/// Of ASCII's letters.
std::string LowerCase(std::string_view text);

/// Columns that `text`, in UTF-8, takes up on a terminal.
std::size_t Width(std::string_view text);
/// `text` with blanks behind it, or before it, up to `width`.
std::string Padded(std::string_view text, std::size_t width);
std::string RightAligned(std::string_view text, std::size_t width);
/// At most `width` columns of `text`, the last one an ellipsis where something is left out.
std::string Cut(std::string_view text, std::size_t width);

/// `text` in lines of `width` columns at the most, broken at blanks; all but the first are indented, and the first begins
/// there. Unbroken where there is too little room.
std::string Wrapped(std::string_view text, std::size_t indent, std::size_t width);

/// "1 instance", "3 instances"
std::string Counted(std::size_t count, std::string_view what);

/// "10 s", "0.5 s"
std::string SecondsText(std::chrono::milliseconds time);

/// "2026-01-02 03:04:05.678" in the local time zone
std::string LocalTime(TimePoint time);
/// "03:04:05.678" today, else with the date, in the local time zone.
std::string ShortTime(TimePoint time, TimePoint now);
/// "2026-01-02T03:04:05.678Z"
std::string UtcTime(TimePoint time);

TimePoint FromMilliseconds(std::int64_t sinceEpoch);

/// The two largest units of the time since: "3d 4h", "12m 5s", "7s".
std::string Age(TimePoint since, TimePoint now);
/// As above; "-" when it was not said.
std::string Age(std::int64_t startTimeMs, TimePoint now);

/// Of `known`, what `word` may have been meant to be: the most similar first, three at the most.
std::vector<std::string> Similar(std::string_view word, const std::vector<std::string>& known);

/// ", did you mean orders or orders-eu?"; empty where nothing is similar. Safe for a terminal.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& known);

}  // namespace zr::halden::tool
