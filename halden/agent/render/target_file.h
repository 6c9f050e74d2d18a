// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace zr::halden::agent {

/// A file whose whole content is replaced at once: who reads it sees the old or the new, also after a power failure.
///
/// The new content stands beside it, as ".NAME.halden-new", until it takes its place; what a crash leaves of that is
/// overwritten. A link stays, and the file that it names is replaced.
/// Threads: one at a time. Errors: RenderError; the target is then as it was.
class TargetFile {
 public:
  /// Throws when its folder is not there, or the target is something else than a file.
  explicit TargetFile(const std::filesystem::path& path);

  const std::filesystem::path& Path() const { return m_path; }
  const std::filesystem::path& NewPath() const { return m_newPath; }

  /// What it holds; nothing when it is not there.
  std::optional<std::string> Read() const;

  /// Writes the new content, with the owner and the mode of what it is to replace, and makes it last.
  void Stage(const std::string& content) const;
  /// Puts it in the target's place.
  void Commit() const;
  /// Removes it.
  void Discard() const noexcept;

  /// A mark beside the target that outlives the process: its readers have not been told of the content yet.
  bool IsReloadOwed() const;
  void SetReloadOwed(bool owed) const;

 private:
  std::filesystem::path m_path;
  std::filesystem::path m_newPath;
  std::filesystem::path m_markPath;
};

}  // namespace zr::halden::agent
