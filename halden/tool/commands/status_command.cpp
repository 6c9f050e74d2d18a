// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <string>

#include "commands/commands.h"
#include "commands/view.h"
#include "halden/global_service_watcher.h"
#include "render/json.h"
#include "render/state_text.h"

namespace zr::halden::tool {

void ShowStatus(const StatusOptions& options, LineWriter& output) {
  const auto picture = [&options](const GlobalServiceWatcher& watcher, const Look& look, std::size_t rows) {
    const auto states = watcher.Status();
    if (!options.json) {
      const std::string table = StateTable(states, look, std::chrono::system_clock::now());
      return rows == 0 ? table : FirstLines(table, rows);
    }
    std::string text;
    for (const auto& state : states) text += StateLine(state);
    return text;
  };
  View(options, picture, output);
}

}  // namespace zr::halden::tool
