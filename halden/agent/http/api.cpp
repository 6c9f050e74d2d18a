// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/api.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <random>

#include "agent/http/prometheus_targets.h"
#include "agent/http/query.h"

namespace zr::halden::agent {

namespace {

using Path = std::vector<std::string>;

Answer Tagged(Answer answer, std::string_view tag) {
  answer.headers += fmt::format("ETag: \"{}\"\r\nCache-Control: no-cache\r\n", tag);
  return answer;
}

Answer NotModified(std::string_view tag) {
  Answer answer;
  answer.status = 304;
  return Tagged(std::move(answer), tag);
}

/// With a tag of what is in it: another version of the program has other files at the same paths.
Answer StaticAnswer(const Request& request, const StaticFile& file) {
  const std::string tag = fmt::format("{:x}", std::hash<std::string_view>()(file.content));
  if (Matches(request.ifNoneMatch, tag)) return NotModified(tag);
  return Tagged(TextAnswer(file.contentType, std::string(file.content)), tag);
}

/// Each a little longer than asked for: those that began together do not come back together.
std::chrono::milliseconds WithJitter(std::chrono::seconds wait) {
  static std::minstd_rand random{std::random_device()()};
  const auto most = std::chrono::milliseconds(wait) / 16;
  return wait + most * static_cast<int>(random() % 1024) / 1024;
}

std::string FreshnessHeader(const ServiceView& view, const Filter& filter) {
  std::string text = "Halden-Freshness: ";
  bool first = true;
  for (const auto& [name, status] : view.States()) {
    if (!filter.TakesDataCenter(name)) continue;
    std::string freshness(halden::ToString(status.watcher.freshness));
    std::replace(freshness.begin(), freshness.end(), ' ', '-');
    text += fmt::format("{}{}={}", first ? "" : ", ", HeaderWord(name), freshness);
    first = false;
  }
  return text + "\r\n";
}

/// The data centres of `view` that the filter takes and that are not as they should be, as a list for people.
std::string Lacking(const ServiceView& view, const Filter& filter,
                    const std::function<bool(Freshness)>& good) {
  std::string names;
  for (const auto& [name, status] : view.States()) {
    if (filter.TakesDataCenter(name) && !good(status.watcher.freshness))
      names += (names.empty() ? "" : ", ") + name;
  }
  return names;
}

/// By this process: what it restored may be of long ago.
bool WasRead(Freshness freshness) {
  return freshness == Freshness::Live || freshness == Freshness::Stale;
}

std::string PathText(const Path& path) {
  std::string text;
  for (const auto& part : path) text += '/' + part;
  return text.empty() ? "/" : text;
}

Answer NoSuchPath(const Path& path) {
  return Problem(404, fmt::format("Ask for one of the agent's paths, such as /v1/services: there is no {}.",
                                  PathText(path)));
}

}  // namespace

Api::Api(const ServiceViews& views, const HttpMetrics& metrics, std::span<const StaticFile> files,
         std::size_t mostBodyBytes)
    : m_views(views), m_metrics(metrics), m_files(files), m_mostBodyBytes(mostBodyBytes) {}

Reply Api::Handle(const Request& request) {
  const Path& path = request.target.path;
  try {
    if (!path.empty() && path[0] == "v1") return HandleVersion1(request);
    const std::string text = PathText(path);
    if (text == "/metrics") {
      return {"metrics",
              TextAnswer("text/plain; version=0.0.4; charset=utf-8", MetricsText(m_views, m_metrics))};
    }
    if (text == "/healthz") return {"healthz", JsonAnswer(R"({"status":"ok"})")};
    if (text == "/readyz") return {"readyz", Ready()};
    for (const StaticFile& file : m_files) {
      if (file.path == text) return {"page", StaticAnswer(request, file)};
    }
  } catch (const Refused& refused) {
    return {"refused", refused.answer};
  }
  return {"none", NoSuchPath(path)};
}

Reply Api::HandleVersion1(const Request& request) {
  const Path& path = request.target.path;
  if (path.size() == 2 && path[1] == "services") return {"services", Services(request)};
  if (path.size() == 2 && path[1] == "events") return {"events", Events(request)};
  if (path.size() == 3 && path[1] == "prometheus") return {"prometheus", Targets(request)};
  if (path.size() >= 4 && path[1] == "services") return HandleService(request, Find(path[2]));
  return {"none", NoSuchPath(path)};
}

Reply Api::HandleService(const Request& request, const std::shared_ptr<const ServiceView>& view) {
  const Path& path = request.target.path;
  if (path.size() == 4 && path[3] == "instances") return {"instances", Instances(request, view)};
  const bool isInstance = path.size() == 6 && path[3] == "instances";
  if (path.size() != 4 && !isInstance) return {"none", NoSuchPath(path)};
  RequireKnown(request.target, path[3] == "events" ? std::initializer_list<std::string_view>{"last_event_id"}
                                                   : std::initializer_list<std::string_view>{});
  if (path[3] == "status") return {"status", JsonAnswer(view->StatusObject())};
  if (path[3] == "events") return {"events", BeginStream{{view}}};
  if (!isInstance) return {"none", NoSuchPath(path)};
  const auto id = ParseServiceId(path[5]);
  const auto instance = id ? view->Instance(path[4], *id) : std::nullopt;
  if (instance) return {"instance", JsonAnswer(*instance)};
  return {"instance",
          Problem(404, fmt::format("Look at /v1/services/{}/instances: '{}' has no instance '{}'.",
                                   view->Service(), path[4], path[5]))};
}

Api::What Api::Services(const Request& request) const {
  RequireKnown(request.target, {});
  std::string text;
  for (const auto& [name, view] : m_views) {
    std::size_t held = 0;
    for (const auto& [dataCenter, status] : view->States()) held += status.watcher.held;
    std::string object = view->StatusObject();
    object.insert(object.find(",\"data_centers\":"),
                  fmt::format(R"(,"instances":{},"held":{})", view->Instances(), held));
    text += (text.empty() ? "" : ",") + object;
  }
  return JsonAnswer("{\"services\":[" + text + "]}");
}

Api::What Api::Instances(const Request& request, const std::shared_ptr<const ServiceView>& view) {
  RequireKnown(request.target, {"data_center", "status", "attribute", "wait", "require"});
  const Filter filter = ReadFilter(request.target, *view);
  const auto wait = ReadWait(request.target);
  const std::string freshness = FreshnessHeader(*view, filter);
  if (ReadRequireLive(request.target)) {
    const auto lacking = Lacking(*view, filter, [](Freshness is) { return is == Freshness::Live; });
    if (!lacking.empty() || view->States().empty()) {
      Answer answer =
          TryLater(fmt::format("Ask again later, or without require=live: not live: {}.", lacking));
      answer.headers += freshness;
      return answer;
    }
  }
  const std::string tag = view->Tag(view->ListRevision());
  if (Matches(request.ifNoneMatch, tag)) {
    Answer unchanged = NotModified(tag);
    unchanged.headers += freshness;
    if (!wait) return unchanged;
    return WaitForChange{view, view->ListRevision(), WithJitter(*wait), std::move(unchanged)};
  }
  Answer answer;
  answer.body = filter.TakesAll() ? Cached(m_lists, view, {}, [&] { return view->List(filter); })
                                  : Budgeted(view->List(filter));
  answer.headers = freshness;
  return Tagged(std::move(answer), tag);
}

Api::What Api::Events(const Request& request) const {
  constexpr std::size_t most = 64;
  RequireKnown(request.target, {"service", "last_event_id"});
  BeginStream stream;
  for (const auto& [name, value] : request.target.query) {
    if (name != "service") continue;
    const auto& view = Find(value);
    const bool twice = std::find(stream.views.begin(), stream.views.end(), view) != stream.views.end();
    if (twice || stream.views.size() == most) return Problem(400, "Name each service once, and 64 at most.");
    stream.views.push_back(view);
  }
  if (stream.views.empty())
    return Problem(400, "Name what to stream: service=NAME, as often as there are services.");
  return stream;
}

Api::What Api::Targets(const Request& request) {
  RequireKnown(request.target, {"data_center", "port"});
  const auto& view = Find(request.target.path[2]);
  const Filter filter = ReadFilter(request.target, *view);
  const auto lacking = Lacking(*view, filter, WasRead);
  if (!lacking.empty() || view->States().empty()) {
    return TryLater(fmt::format("Keep the targets and ask again: not read yet: {}.", lacking));
  }
  const std::string* port = request.target.Find("port");
  std::string asked;
  for (const auto& [name, value] : request.target.query)
    asked.append(name).append("=").append(value).append("\n");
  Answer answer;
  answer.body = Cached(m_targets, view, asked, [&] {
    return PrometheusTargets(*view, filter, port == nullptr ? std::string() : *port);
  });
  return answer;
}

Api::What Api::Ready() const {
  std::string lacking;
  for (const auto& [name, view] : m_views) {
    const auto names = Lacking(*view, {}, WasRead);
    if (!names.empty()) lacking += fmt::format("{}{} in {}", lacking.empty() ? "" : "; ", name, names);
  }
  const bool none = m_views.empty() || m_views.begin()->second->States().empty();
  if (none) return TryLater("Give the agent services and data centres to follow.");
  if (!lacking.empty()) return TryLater(fmt::format("Wait: not read yet: {}.", lacking));
  return JsonAnswer(R"({"status":"ready"})");
}

const std::shared_ptr<const ServiceView>& Api::Find(const std::string& service) const {
  const auto found = m_views.find(service);
  if (found != m_views.end()) return found->second;
  throw Refused{
      Problem(404, fmt::format("Ask for a service that the agent follows (/v1/services), or start it with "
                               "--service for this one: '{}' is none of them.",
                               service))};
}

Api::Text Api::Cached(KnownTexts& known, const std::shared_ptr<const ServiceView>& view,
                      const std::string& asked, const std::function<std::string()>& make) {
  Known& last = known[view->Service()];
  const bool isSame =
      last.text && last.of.lock() == view && last.revision == view->ListRevision() && last.asked == asked;
  if (!isSame) {
    last = {};  // before the new one needs room
    last = {view, view->ListRevision(), asked, Budgeted(make())};
  }
  return last.text;
}

/// Each text counts until its last reader has taken it: readers that are slow must not hold ever more of them. Those
/// that are only kept for the next reader give way.
Api::Text Api::Budgeted(std::string text) {
  const std::size_t size = text.size();
  if (*m_bodyBytes + size > m_mostBodyBytes) {
    for (KnownTexts* known : {&m_lists, &m_targets}) {
      for (auto& [service, one] : *known) {
        if (one.text.use_count() == 1) one = {};
      }
    }
  }
  if (*m_bodyBytes + size > m_mostBodyBytes && *m_bodyBytes != 0) {
    throw Refused{TryLater("Ask again later: too many answers are being read slowly.")};
  }
  *m_bodyBytes += size;
  return {new std::string(std::move(text)), [bytes = m_bodyBytes, size](const std::string* done) {
            *bytes -= size;
            delete done;
          }};
}

}  // namespace zr::halden::agent
