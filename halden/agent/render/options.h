// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zr::halden::agent {

/// Why a file could not be made: a sentence that names the file and, for a template, line and column.
class RenderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Changes are gathered: a file is made once nothing has changed for `min`, and at the latest `max` after the first of
/// them. Short ones cost a reload for each change, long ones leave what has gone in the file.
struct RenderWait {
  std::chrono::milliseconds min{500};
  std::chrono::milliseconds max{5000};

  bool operator==(const RenderWait&) const = default;
};

/// A file that is to follow the services.
struct RenderOptions {
  std::string service;           ///< the only one that it is about; empty: all that the agent follows
  std::filesystem::path source;  ///< the template
  std::filesystem::path target;
  std::string check;  ///< a shell's line, run on the new file before it takes the target's place; empty: none
  std::string reload;  ///< a shell's line, run after that; empty: none
  std::chrono::milliseconds commandLimit{
      30'000};  ///< either is killed after it, with all that it has started
  RenderWait wait;
  bool allowEmpty = false;  ///< else no list without instances takes the place of a file that is there

  bool operator==(const RenderOptions&) const = default;
};

/// Of "TEMPLATE:TARGET" or "SERVICE:TEMPLATE:TARGET". Throws RenderError.
RenderOptions ParseRender(std::string_view text);

/// The path that links lead to, also where nothing is there yet.
std::filesystem::path Resolved(const std::filesystem::path& path);

/// Throws RenderError where two of them have the same target, or one is a template.
void RefuseSharedTargets(const std::vector<RenderOptions>& files);

/// Of "MIN:MAX" in seconds, such as "0.5:5", or of one number for both. Throws RenderError.
RenderWait ParseRenderWait(std::string_view text);

}  // namespace zr::halden::agent
