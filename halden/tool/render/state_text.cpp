// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/state_text.h"

#include <fmt/format.h>
#include <zookeeper/zookeeper.h>

#include <algorithm>

#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

std::string ReadErrorText(const DataCenterStatus& status) {
  const int error = status.watcher.lastError;
  return error == 0 ? std::string() : zerror(error);
}

Cell FreshnessCell(const DataCenterStatus& status) {
  const Freshness freshness = status.watcher.freshness;
  return {std::string(halden::ToString(freshness)),
          freshness == Freshness::Live ? Tone::Good : Tone::Doubtful};
}

Cell NumberCell(std::uint64_t number, Tone toneIfAny = Tone::Plain) {
  return {std::to_string(number), number == 0 ? Tone::Plain : toneIfAny};
}

/// What a row of the state table has no column for.
std::string StateNote(const DataCenterStatus& status, TimePoint now) {
  std::string note;
  const auto add = [&note](const std::string& part) { note += (note.empty() ? "" : "; ") + part; };
  if (const auto since = status.watcher.staleSince) {
    add(fmt::format("stale since {} ({})", ShortTime(*since, now), Age(*since, now)));
  }
  if (const auto asOf = status.watcher.restoredAsOf) {
    add(fmt::format("as of {} ({})", ShortTime(*asOf, now), Age(*asOf, now)));
  }
  const zr::String& error = status.connection.lastErrorText;
  if (!error.empty()) add("last error: " + EscapeControls(error));
  if (const auto text = ReadErrorText(status); !text.empty()) add("last read error: " + text);
  return note;
}

}  // namespace

std::string_view Condition(const DataCenterStatus& status) {
  switch (status.connection.state) {
    case ConnectionState::Connected:
      switch (status.watcher.freshness) {
        case Freshness::Live:
          return "live";
        case Freshness::Stale:
          return "connected again, reading";
        case Freshness::NeverSynchronized:
          return "connected, reading";
        case Freshness::Restored:
          return "restored, reading";
      }
      break;
    case ConnectionState::Connecting:
      if (IsRead(status)) return "connection lost";
      return status.watcher.freshness == Freshness::Restored ? "restored, connecting" : "connecting";
    case ConnectionState::Suspended:
      return "connection lost";
    case ConnectionState::Expired:
      return "session expired";
    case ConnectionState::AuthFailed:
      return "authentication failed";
    case ConnectionState::Stopped:
      return "stopped";
  }
  return "unknown";
}

Tone ConditionTone(const DataCenterStatus& status) {
  if (status.connection.state == ConnectionState::Connected) {
    return status.watcher.freshness == Freshness::Live ? Tone::Good : Tone::Doubtful;
  }
  const bool connecting = status.connection.state == ConnectionState::Connecting;
  return connecting && !IsRead(status) ? Tone::Doubtful : Tone::Bad;
}

bool IsRead(const DataCenterStatus& status) {
  return status.watcher.freshness == Freshness::Live || status.watcher.freshness == Freshness::Stale;
}

std::string StateText(const DataCenterStatus& status, TimePoint now) {
  const std::size_t count = status.watcher.instances;
  const bool live = Condition(status) == "live";
  std::string text(Condition(status));
  if (const auto asOf = status.watcher.restoredAsOf) {
    text += fmt::format(", {} as of {} ({} ago)", Counted(count, "instance"), ShortTime(*asOf, now),
                        Age(*asOf, now));
  } else if (live || count > 0) {
    text += fmt::format(", {}{}", Counted(count, "instance"),
                        live             ? ""
                        : IsRead(status) ? " kept"
                                         : " so far");
  }
  if (status.watcher.held > 0) text += fmt::format(", {} of them held", status.watcher.held);
  if (status.watcher.quarantined > 0) text += fmt::format(", {} unreadable", status.watcher.quarantined);
  const bool connected = status.connection.state == ConnectionState::Connected;
  const std::string error =
      connected ? ReadErrorText(status) : EscapeControls(status.connection.lastErrorText);
  if (!live && !error.empty() && error != Condition(status)) text += fmt::format(" ({})", error);
  return text;
}

std::string ProgressText(const std::vector<DataCenterStatus>& states) {
  std::string text;
  for (const auto& state : states) {
    text += (text.empty() ? "reading: " : ", ") + EscapeControls(state.name) + ' ';
    if (IsRead(state)) {
      text += fmt::format("{} done", state.watcher.instances);
    } else if (state.connection.state == ConnectionState::Connected) {
      text += std::to_string(state.watcher.instances);
    } else {
      text += Condition(state);
    }
  }
  return text;
}

std::string StateLines(const std::vector<DataCenterStatus>& states, const Look& look, TimePoint now) {
  std::size_t width = 0;
  for (const auto& state : states) width = std::max(width, Width(EscapeControls(state.name)));
  std::string text;
  for (const auto& state : states) {
    const std::string name = Padded(EscapeControls(state.name), width) + "  ";
    std::string rest = StateText(state, now);
    if (look.width != 0) rest = Cut(rest, std::max(look.width, Width(name)) - Width(name));
    text += name + Coloured(rest, ConditionTone(state), look.colour) + '\n';
  }
  return text;
}

std::string StateTable(const std::vector<DataCenterStatus>& states, const Look& look, TimePoint now) {
  Table table({{"DC", kLeastName},
               {"SESSION", kLeastText},
               {"FRESHNESS", kLeastText},
               {"INST", 0, true},
               {"HELD", 0, true},
               {"BAD", 0, true},
               {"RECONN", 0, true},
               {"EXPIRED", 0, true},
               {"RESYNC", 0, true}});
  for (const auto& state : states) {
    const auto counters = state.Counters();
    const bool connected = state.connection.state == ConnectionState::Connected;
    table.AddRow({{EscapeControls(state.name)},
                  {std::string(halden::ToString(state.connection.state)),
                   connected ? Tone::Good : ConditionTone(state)},
                  FreshnessCell(state),
                  NumberCell(counters.instances),
                  NumberCell(counters.held, Tone::Doubtful),
                  NumberCell(counters.quarantined, Tone::Bad),
                  NumberCell(counters.reconnects),
                  NumberCell(counters.expiries),
                  NumberCell(counters.resyncs)});
    if (const auto note = StateNote(state, now); !note.empty()) table.AddNote(note);
  }
  return table.Text(look);
}

}  // namespace zr::halden::tool
