// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "halden/utils.h"
#include "io/line_writer.h"
#include "session/connection_core.h"

namespace zr::halden::tool {

/// How long one that only reads waits for its session to close: it leaves nothing else behind, and past it the
/// servers end the session by themselves.
inline constexpr std::chrono::seconds kReadersClosingLimit{1};

/// Until when to wait for answers; `cancelled` may become true on another thread.
struct Limit {
  std::chrono::steady_clock::time_point deadline;
  const std::atomic<bool>* cancelled;

  bool Over() const { return *cancelled || std::chrono::steady_clock::now() >= deadline; }
};

struct Question {
  details::Request::Kind kind;
  zr::String path;             ///< below the chroot
  bool outsideChroot = false;  ///< it is below the ensemble's own root instead
};

/// Reads nodes of one ensemble through a session of its own: for commands that ask and end.
///
/// Threads: belongs to one thread. Its operations wait, up to the limit.
/// Errors: the constructor throws ZooError for a connect string that can never work.
class EnsembleReader {
 public:
  EnsembleReader(const zr::String& dataCenter, const zr::String& ensemble, const Limit& limit);
  ~EnsembleReader();

  EnsembleReader(const EnsembleReader&) = delete;
  EnsembleReader& operator=(const EnsembleReader&) = delete;

  /// False when there is none before the limit.
  bool AwaitSession();
  /// An answer to each question, in their order. What a lost connection left open is asked again; what is
  /// open at the limit has the code ZOPERATIONTIMEOUT.
  std::vector<details::Reply> Ask(const std::vector<Question>& questions);
  details::Reply Ask(const Question& question) { return std::move(Ask(std::vector{question}).front()); }

  const zr::String& DataCenter() const { return m_core->DataCenterName(); }
  const zr::String& Ensemble() const { return m_ensemble; }
  ConnectionStatus Status() const { return m_core->Status(); }

 private:
  class Inbox;

  bool Await(const std::function<bool(const Inbox&)>& condition);

  const zr::String m_ensemble;
  const Limit m_limit;
  const std::shared_ptr<Inbox> m_inbox;
  const std::shared_ptr<details::ConnectionCore> m_core;
};

/// Runs `task` for all data centres at once, each with a reader of its own, so that one which does not answer
/// costs the others nothing. The results are sorted by the data centre's name; nothing when there was a
/// reason to end before.
template <typename Result>
std::optional<std::vector<Result>> InEachDataCenter(const DataCenterEnsembleMapT& ensembles,
                                                    std::chrono::milliseconds patience, LineWriter& output,
                                                    const std::function<Result(EnsembleReader&)>& task) {
  constexpr std::chrono::milliseconds interval{50};
  std::atomic<bool> cancelled{false};
  const Limit limit{std::chrono::steady_clock::now() + patience, &cancelled};
  std::map<zr::String, std::future<Result>> running;
  for (const auto& [name, ensemble] : ensembles) {
    running.emplace(name, std::async(std::launch::async, [&, &dataCenter = name, &hosts = ensemble] {
                      EnsembleReader reader(dataCenter, hosts, limit);
                      return task(reader);
                    }));
  }
  std::vector<Result> results;
  for (auto& [name, future] : running) {
    while (!cancelled && future.wait_for(interval) != std::future_status::ready) {
      cancelled = output.AwaitEnd(std::chrono::milliseconds(0));
    }
    results.push_back(future.get());
  }
  if (cancelled) return std::nullopt;
  return results;
}

/// Why the reader was answered with `code`: "eu-west: not read within 10 s: no server is reached: ...". Waits up to a
/// second.
std::string TroubleOf(const EnsembleReader& reader, int code, std::chrono::milliseconds patience);

}  // namespace zr::halden::tool
