// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/render/options.h"
#include "agent/render/target_file.h"
#include "agent/render/template.h"

namespace zr::halden::agent {

/// What became of one attempt to bring a file up to date.
enum class RenderResult : std::uint8_t {
  Unchanged,  ///< its bytes are what they would be
  Written,    ///< and its readers were told
  HeldBack,   ///< a list is empty, and what is there stays
  Failed,     ///< it is to be tried again
};

struct RenderOutcome {
  RenderResult result = RenderResult::Unchanged;
  std::string reason;  ///< of HeldBack: the service that is empty; of Failed: what went wrong
  std::size_t instances = 0;
  std::size_t bytes = 0;
};

/// One file made of a template, with its commands; each step waits for the disk and for programs.
///
/// Threads: one at a time. Errors: the constructor throws RenderError for what is wrong with the template or the
/// target's folder; later failures are outcomes.
class Rendering {
 public:
  /// Commands are killed once `stop`, which must outlive it, is readable.
  Rendering(const RenderOptions& options, int stop);

  /// Of the services' lists, as ReadLists takes them. A file that the check refuses never takes the target's place. A
  /// reload that has failed, or that the process did not live to see, is made up for by the next call.
  RenderOutcome Run(const std::vector<std::string>& lists);

 private:
  RenderOutcome Bring(const TemplateData& data);
  void Replace(const std::string& content);
  /// Throws RenderError when it fails.
  void RunChecked(const char* what, const std::string& line) const;

  const RenderOptions m_options;
  const int m_stop;
  const TargetFile m_target;
  Template m_template;
};

}  // namespace zr::halden::agent
