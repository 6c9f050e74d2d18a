// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/serve/files.h"

#include <utility>

namespace zr::halden::agent {

void Files::Configure(const std::vector<RenderOptions>& options) {
  RefuseSharedTargets(options);
  std::vector<File> files;
  for (const auto& option : options) {
    auto lists = [this, service = option.service] {
      std::vector<std::string> texts;
      if (Tags(service).empty()) return texts;  // a service or a data centre has come since
      for (const auto& [name, view] : m_views) {
        if (service.empty() || service == name) texts.push_back(view->List({}));
      }
      return texts;
    };
    files.push_back({option.service,
                     option.target.string(),
                     std::make_unique<FileRenderer>(m_loop, option, std::move(lists)),
                     {}});
  }
  m_files = std::move(files);
  OnChange();
}

void Files::OnChange() {
  for (File& file : m_files) {
    std::string tags = Tags(file.service);
    if (std::exchange(file.told, tags) != tags && !tags.empty()) file.renderer->Changed();
  }
}

std::vector<FileMetrics> Files::Metrics() const {
  std::vector<FileMetrics> all;
  for (const File& file : m_files) {
    const RenderCounters& counters = file.renderer->Counters();
    all.push_back({file.target,
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
