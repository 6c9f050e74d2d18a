// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/uuid/string_generator.hpp>
#include <functional>
#include <optional>
#include <string>

#include "agent/test/server/agent_process.h"
#include "support/recording_observer.h"

namespace zr::halden::test {

/// Follows an agent's stream as a browser does: it comes back with the last id that it was given. It reads slowly, a
/// little at each `Read`.
struct StreamReader {
  void RestartAgent() {
    client.reset();
    agent.reset();
    agent.emplace(words);
    restarted = true;
  }

  void Read() {
    if (!client) {
      text.clear();
      begin = lastId.empty() ? "\"new\"" : restarted ? "\"restarted\"" : "resumed";
      client.emplace(agent->Port(), 4096)
          .Get("/v1/services/orders/events", "Last-Event-ID: " + lastId + "\r\n");
    }
    const auto part = client->ReadNow();
    if (!part) return client.reset();
    text += *part;
    for (auto end = text.find("\n\n"); end != std::string::npos; end = text.find("\n\n")) {
      Take(text.substr(0, end + 1));
      text.erase(0, end + 2);
    }
  }

  void Take(const std::string& block) {
    const auto field = [&block](const std::string& before) {
      const auto at = block.find(before);
      const auto from = at == std::string::npos ? block.size() : at + before.size();
      return block.substr(from, block.find_first_of("\"\n", from) - from);
    };
    if (block.find("\nid") != std::string::npos) {
      lastId = field("\nid: ");
      if (lastId == "none") lastId.clear();  // begins anew
      restarted = false;
    }
    const auto name = field("event: ");
    if ((name == "reset" || name == "resumed") && block.find(begin) == std::string::npos)
      wrong += "; the stream began with " + block + "instead of " + begin;
    if (name == "reset") told.clear();
    for (const auto kind : {EventKind::Added, EventKind::Modified, EventKind::Removed}) {
      if (name != ToString(kind)) continue;
      Event event{kind, field("\"data_center\":\""), {}, {}};
      event.id = boost::uuids::string_generator()(field("\"id\":\""));
      event.data.set_host(field("\"host\":\""));
      take(told, event);
    }
  }

  const std::string words;
  const std::function<void(View&, const Event&)> take;
  std::optional<agent::AgentProcess> agent{words};
  std::optional<agent::RawClient> client{};
  std::string text{};      // has come, and is not taken yet
  std::string lastId{};    // empty: begin anew
  std::string begin{};     // what the stream is to begin with
  bool restarted = false;  // the agent, since lastId was given
  std::string wrong{};     // for good
  View told{};
};

}  // namespace zr::halden::test
