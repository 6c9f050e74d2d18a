// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/render/options.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <string>
#include <system_error>

namespace zr::halden::agent {

namespace {

std::chrono::milliseconds ParseSeconds(std::string_view text, std::string_view whole) {
  constexpr double longest = 3600;
  constexpr double thousand = 1000;
  double seconds = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  // Not the other way round: nothing is true of what is not a number.
  if (error == std::errc() && end == text.data() + text.size() && seconds >= 0 && seconds <= longest) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * thousand));
  }
  throw RenderError("\"" + std::string(whole) +
                    "\" is no time to wait; give MIN:MAX in seconds up to 3600, such as 0.5:5");
}

}  // namespace

RenderOptions ParseRender(std::string_view text) {
  RenderOptions options;
  auto files = text;
  if (std::count(text.begin(), text.end(), ':') == 2) {
    options.service = text.substr(0, text.find(':'));
    files.remove_prefix(options.service.size() + 1);
  }
  const auto colon = files.find(':');
  if (colon == std::string_view::npos || files.rfind(':') != colon || colon == 0 ||
      colon + 1 == files.size() || text.front() == ':') {
    throw RenderError("\"" + std::string(text) +
                      "\" is not [SERVICE:]TEMPLATE:TARGET, with the names of two files");
  }
  options.source = files.substr(0, colon);
  options.target = files.substr(colon + 1);
  return options;
}

std::filesystem::path Resolved(const std::filesystem::path& path) {
  constexpr int mostLinks = 40;  // as the system follows
  std::error_code error;
  auto place = std::filesystem::absolute(path);
  for (int i = 0; i < mostLinks && std::filesystem::is_symlink(std::filesystem::symlink_status(place, error));
       ++i) {
    place = place.parent_path() / std::filesystem::read_symlink(place, error);
  }
  const auto folder = std::filesystem::canonical(place.parent_path(), error);
  return error ? place : folder / place.filename();
}

void RefuseSharedTargets(const std::vector<RenderOptions>& files) {
  std::set<std::filesystem::path> targets;
  for (const auto& file : files) {
    if (targets.insert(Resolved(file.target)).second) continue;
    throw RenderError("\"" + file.target.string() + "\" is the target of two templates");
  }
  for (const auto& file : files) {
    if (!targets.contains(Resolved(file.source))) continue;
    throw RenderError("the template \"" + file.source.string() + "\" would be replaced: it is a target, too");
  }
}

RenderWait ParseRenderWait(std::string_view text) {
  const auto colon = text.find(':');
  RenderWait wait;
  wait.min = ParseSeconds(text.substr(0, colon), text);
  wait.max = colon == std::string_view::npos ? wait.min : ParseSeconds(text.substr(colon + 1), text);
  if (wait.max < wait.min) {
    throw RenderError("\"" + std::string(text) + "\": the longest wait is shorter than the shortest");
  }
  return wait;
}

}  // namespace zr::halden::agent
