// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/render/options.h"

namespace zr::halden::agent {

/// How often each has come, and what was said last.
struct RenderCounters {
  std::uint64_t written = 0;
  std::uint64_t unchanged = 0;
  std::uint64_t heldBack = 0;
  std::uint64_t failed = 0;
  std::string lastFailure;  ///< empty once it has succeeded
};

/// Keeps one file up to date with the services: gathers changes on the agent's loop, and does what waits for the disk or
/// for programs on a thread of its own.
///
/// Threads: all calls, and `lists`, on the loop's thread. Ownership: the loop must outlive it; nothing of it is called
/// once it is gone. Its end kills a command that runs, and waits for the thread, which then ends at once.
/// Errors: the constructor throws RenderError with the place of what is wrong with the template or the options. Later
/// failures are logged (source halden.render, level error), counted, and tried again after a second to a minute.
class FileRenderer {
 public:
  /// The lists of all services that the file is made of, as /v1/services/S/instances returns them. Called only when a
  /// file is about to be made. None: not all of them were read; then nothing is made before the next change.
  using Lists = std::function<std::vector<std::string>()>;

  FileRenderer(const boost::asio::any_io_executor& loop, const RenderOptions& options, Lists lists);
  ~FileRenderer();

  FileRenderer(const FileRenderer&) = delete;
  FileRenderer& operator=(const FileRenderer&) = delete;

  /// Something has changed. The first call, which must not come before every data centre was read once, makes the file
  /// at once; later ones wait as the options say. Cheap.
  void Changed();

  const RenderCounters& Counters() const;

 private:
  class State;

  const std::shared_ptr<State> m_state;  // what the loop still holds of it knows it weakly
};

}  // namespace zr::halden::agent
