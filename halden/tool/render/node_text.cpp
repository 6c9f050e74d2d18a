// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/node_text.h"

#include <fmt/format.h>

#include <utility>

#include "render/instance_text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

std::string WriterText(const messaging::halden::User& user) {
  std::string text =
      fmt::format("{}@{}, pid {}", EscapeControls(user.name()), EscapeControls(user.host()), user.pid());
  if (!user.writer().empty()) text += ", " + EscapeControls(user.writer());
  return text;
}

std::string TimeText(std::int64_t ms, TimePoint now) {
  if (ms <= 0) return "-";
  const TimePoint time = FromMilliseconds(ms);
  constexpr std::chrono::minutes skew{1};  // of clocks
  if (time > now + skew) return LocalTime(time) + " (in the future)";
  return fmt::format("{} ({} ago)", LocalTime(time), Age(time, now));
}

std::string OrDash(std::string text) {
  return text.empty() ? "-" : std::move(text);
}

}  // namespace

std::string NodeText(const NodeFacts& facts, const Look& look, TimePoint now) {
  std::string text = Coloured(EscapeControls(facts.dataCenter), Tone::Title, look.colour) + '\n';
  const auto add = [&](std::string_view name, const std::string& value, Tone tone = Tone::Plain) {
    text += fmt::format("  {:<10}  {}\n", name, Coloured(value, tone, look.colour));
  };
  if (facts.data) {
    const auto& data = *facts.data;
    add("host", OrDash(EscapeControls(data.host())));
    add("ports", PortText(data));
    const std::string status = StatusText(data);
    add("status", status, status == kStatusOk ? Tone::Good : Tone::Doubtful);
    add("version", OrDash(EscapeControls(data.version())));
    add("weight", data.weight() == 0 ? "-" : std::to_string(data.weight()));
    add("started", TimeText(data.start_time_ms(), now));
    add("attributes", OrDash(AttributeText(data)));
  } else {
    add("unreadable", EscapeControls(facts.error), Tone::Bad);
  }
  add("writer", facts.writer ? WriterText(*facts.writer) : "unknown");
  add("created", TimeText(facts.createdMs, now));
  add("written", facts.writes == 0 ? "once" : TimeText(facts.writtenMs, now));
  add("node", EscapeControls(facts.path));
  add("size", fmt::format("{} bytes{}", facts.bytes, facts.compressed ? ", compressed" : ""));
  add("session",
      facts.sessionId == 0 ? std::string("none: the node stays when its writer goes")
                           : fmt::format("{:#x}", static_cast<std::uint64_t>(facts.sessionId)),
      facts.sessionId == 0 ? Tone::Bad : Tone::Plain);
  return text;
}

}  // namespace zr::halden::tool
