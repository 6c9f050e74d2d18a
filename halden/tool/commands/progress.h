// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <vector>

#include "halden/global_service_watcher.h"

namespace zr::halden::tool {

/// Says on a line of stderr what has been read so far, while that takes long: where stderr is a terminal.
/// Threads: one.
class Progress {
 public:
  explicit Progress(bool quiet);
  ~Progress() { Wipe(); }

  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Show(const std::vector<DataCenterStatus>& states);
  void Wipe();

 private:
  const bool m_wanted;
  const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
  bool m_shown = false;
};

}  // namespace zr::halden::tool
