// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/serve/files.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace zr::halden::agent {

namespace {

/// What cannot be read, or is no template by its size or kind, is told by who parses it.
std::string TextOf(const std::filesystem::path& path) {
  constexpr std::uintmax_t most = 1024UL * 1024;
  std::error_code error;
  if (std::filesystem::file_size(path, error) > most || error) return {};  // a pipe would be waited for
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

void Files::Configure(const std::vector<RenderOptions>& options) {
  RefuseSharedTargets(options);
  std::vector<File> files;
  for (const auto& option : options) {
    File& file = files.emplace_back(File{option, Resolved(option.target).string(), TextOf(option.source)});
    const auto isSame = [&file](const File& known) { return known.IsSame(file); };
    if (std::none_of(m_files.begin(), m_files.end(), isSame)) file.renderer = MakeRenderer(option);
  }
  for (File& file : files) {  // nothing is thrown any more
    const auto isSame = [&file](const File& known) { return known.IsSame(file); };
    if (!file.renderer)
      file.renderer = std::move(std::find_if(m_files.begin(), m_files.end(), isSame)->renderer);
  }
  m_files = std::move(files);
  OnChange();
}

std::unique_ptr<FileRenderer> Files::MakeRenderer(const RenderOptions& options) const {
  auto lists = [this, service = options.service] {
    std::vector<std::string> texts;
    if (Tags(service).empty()) return texts;  // a service or a data centre has come since
    for (const auto& [name, view] : m_views) {
      if (service.empty() || service == name) texts.push_back(view->List({}));
    }
    return texts;
  };
  return std::make_unique<FileRenderer>(m_loop, options, std::move(lists));
}

void Files::OnChange() {
  for (File& file : m_files) {
    std::string tags = Tags(file.options.service);
    if (std::exchange(file.told, tags) != tags && !tags.empty()) file.renderer->Changed();
  }
}

std::vector<FileMetrics> Files::Metrics() const {
  std::vector<FileMetrics> all;
  for (const File& file : m_files) {
    const RenderCounters& counters = file.renderer->Counters();
    all.push_back({file.options.target.string(),
                   {{"written", counters.written},
                    {"unchanged", counters.unchanged},
                    {"held_back", counters.heldBack},
                    {"failed", counters.failed}},
                   !counters.lastFailure.empty()});
  }
  return all;
}

std::string Files::Tags(const std::string& service) const {
  std::string tags;
  for (const auto& [name, view] : m_views) {
    if (!service.empty() && service != name) continue;
    if (!view->WasRead()) return {};
    tags += view->Tag(view->ListRevision()) + ' ';
  }
  return tags;
}

}  // namespace zr::halden::agent
