// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

#include "render/text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

std::string_view VerdictText(Verdict verdict) {
  constexpr std::array<std::string_view, 3> texts{"ok", "warning", "failure"};
  return texts.at(static_cast<std::size_t>(verdict));
}

std::string CheckText(const std::vector<Check>& checks, bool quiet, const Look& look) {
  constexpr std::size_t verdictWidth = 9;
  constexpr std::size_t subjectWidth = 16;
  constexpr std::size_t indent = 2 + verdictWidth + subjectWidth;
  constexpr std::array<Tone, 3> tones{Tone::Good, Tone::Doubtful, Tone::Bad};
  std::array<std::size_t, 3> counts{};
  std::string text;
  std::optional<std::string> dataCenter;
  for (const auto& check : checks) {
    ++counts.at(static_cast<std::size_t>(check.verdict));
    if (quiet && check.verdict == Verdict::Ok) continue;
    if (dataCenter != check.dataCenter && !check.dataCenter.empty()) {
      text += Coloured(EscapeControls(check.dataCenter), Tone::Title, look.colour) + '\n';
    }
    dataCenter = check.dataCenter;
    const Tone tone = tones.at(static_cast<std::size_t>(check.verdict));
    text += "  " + Coloured(Padded(VerdictText(check.verdict), verdictWidth), tone, look.colour);
    text += Padded(check.subject, subjectWidth) + Wrapped(EscapeControls(check.finding), indent, look.width) +
            '\n';
    if (!check.advice.empty()) {
      text += std::string(indent, ' ') + Wrapped("do: " + EscapeControls(check.advice), indent, look.width) +
              '\n';
    }
  }
  const auto [oks, warnings, failures] = counts;
  if (quiet) return text;
  return text +
         fmt::format("{} ok, {}, {}\n", oks, Counted(warnings, "warning"), Counted(failures, "failure"));
}

std::string FaultText(const ConfigFault& fault, bool isError, const Look& look) {
  std::string place = EscapeControls(fault.file);
  if (fault.line != 0) place += fmt::format(":{}:{}", fault.line, fault.column);
  const std::string kind =
      isError ? Coloured("error", Tone::Bad, look.colour) : Coloured("warning", Tone::Doubtful, look.colour);
  return fmt::format("{}: {}: {}\n", place, kind, EscapeControls(fault.message));
}

}  // namespace zr::halden::tool
