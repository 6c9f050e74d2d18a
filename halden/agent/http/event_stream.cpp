// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/event_stream.h"

#include <fmt/format.h>

#include <algorithm>

#include "agent/http/limits.h"
#include "render/json.h"

namespace zr::halden::agent {

namespace {

/// Of what nobody can go on from.
constexpr std::string_view kNoId = "none";

std::string_view NameOf(Change::Kind kind) {
  switch (kind) {
    case Change::Kind::Added:
      return "added";
    case Change::Kind::Modified:
      return "modified";
    case Change::Kind::Removed:
      return "removed";
    case Change::Kind::State:
      return "state";
    case Change::Kind::DataCenterRemoved:
      return "data_center_removed";
  }
  return "unknown";
}

/// Without the blank line that ends it.
std::string Event(std::string_view name, std::string_view data) {
  std::string text("event: ");
  text.append(name).append("\ndata: ").append(data).append("\n");
  return text;
}

std::string ServiceObject(const ServiceView& view, std::string_view key, std::string_view value) {
  return fmt::format(R"({{"service":{},"{}":"{}"}})", tool::JsonText(view.Service()), key, value);
}

std::vector<std::string_view> Tags(std::string_view id) {
  std::vector<std::string_view> tags;
  while (!id.empty()) {
    const auto comma = id.find(',');
    tags.push_back(id.substr(0, comma));
    id.remove_prefix(comma == std::string_view::npos ? id.size() : comma + 1);
  }
  return tags;
}

}  // namespace

EventStream::EventStream(std::vector<std::shared_ptr<const ServiceView>> views, std::string_view lastEventId,
                         Clock::time_point now)
    : m_views(std::move(views)), m_sources(m_views.size()), m_nextHeartbeat(now + kHeartbeat) {
  auto tags = Tags(lastEventId == kNoId ? std::string_view() : lastEventId);
  tags.resize(m_views.size());
  for (std::size_t i = 0; i < m_views.size(); ++i) Welcome(*m_views[i], m_sources[i], tags[i]);
}

void EventStream::Welcome(const ServiceView& view, Source& source, std::string_view tag) const {
  if (tag.empty()) return Restart(view, source, "new");
  const auto revision = view.FromTag(tag);
  if (!revision) return Restart(view, source, "restarted");
  auto cursor = view.Resume(*revision);
  if (!cursor) return Restart(view, source, "too_old");
  source.cursor = std::move(*cursor);
  source.synchronized = true;
  source.resumable = revision;
  source.greeting = Event("resumed", ServiceObject(view, "revision", view.Tag(*revision)));
}

void EventStream::Restart(const ServiceView& view, Source& source, std::string_view reason) const {
  source = {view.Begin(), false, std::nullopt, Event("reset", ServiceObject(view, "reason", reason))};
}

std::string EventStream::Next(Clock::time_point now) {
  std::string text;
  if (!m_begun) text = "retry: 2000\n\n";
  m_begun = true;
  for (std::size_t i = 0; i < m_views.size(); ++i) {
    const std::size_t next = (m_turn + i) % m_views.size();
    TellNext(*m_views[next], m_sources[next], text);
  }
  m_turn = (m_turn + 1) % m_views.size();
  if (now >= m_nextHeartbeat) {
    text += "event: heartbeat\ndata: {}\n\n";
    m_nextHeartbeat = now + kHeartbeat;
  }
  return text;
}

void EventStream::TellNext(const ServiceView& view, Source& source, std::string& text) {
  if (view.IsTooOld(source.cursor)) Restart(view, source, "too_old");
  const auto tell = [&](const std::string& event) {
    text += event;
    AppendId(text);
  };
  if (!source.greeting.empty()) tell(std::exchange(source.greeting, {}));
  while (text.size() < kPieceBytes) {
    if (const auto change = view.Next(source.cursor)) {
      source.resumable = source.synchronized ? change->resumable : std::nullopt;
      tell(Event(NameOf(change->kind), change->object));
    } else {
      if (source.synchronized) return;
      source.synchronized = true;
      source.resumable = source.cursor.Position();
      tell(Event("synced", ServiceObject(view, "revision", view.Tag(source.cursor.Position()))));
    }
  }
}

/// Of several services the id has a tag for each, in the order in which they were asked for.
void EventStream::AppendId(std::string& text) {
  const bool resumable = std::all_of(m_sources.begin(), m_sources.end(),
                                     [](const Source& source) { return source.resumable.has_value(); });
  if (resumable) {
    text += "id: ";
    for (std::size_t i = 0; i < m_views.size(); ++i) {
      if (i != 0) text += ',';
      text += m_views[i]->Tag(*m_sources[i].resumable);
    }
    text += '\n';
  } else if (m_hasId) {
    text.append("id: ").append(kNoId) += '\n';
  }
  text += '\n';
  m_hasId = resumable;
}

std::string EventStream::Farewell() {
  return "retry: 1000\n\n";
}

}  // namespace zr::halden::agent
