// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/render/target_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>

#include "agent/render/options.h"
#include "base/file_descriptor.h"

namespace zr::halden::agent {

namespace {

using details::FileDescriptor;
using Path = std::filesystem::path;

[[noreturn]] void Fail(const std::string& what, const Path& path, int error = errno) {
  throw RenderError(what + " \"" + path.string() + "\": " + std::generic_category().message(error));
}

std::optional<struct stat> StatusOf(const Path& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) return status;
  if (errno == ENOENT) return std::nullopt;
  Fail("cannot look at", path);
}

void RequireFile(const struct stat& status, const Path& path) {
  if (!S_ISREG(status.st_mode)) Fail("not a file that could be replaced:", path, EINVAL);
}

void WriteAll(int file, std::string_view text, const Path& path) {
  while (!text.empty()) {
    const ssize_t written = write(file, text.data(), text.size());
    if (written < 0 && errno != EINTR) Fail("cannot write", path);
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
}

void Keep(const struct stat& status, int file, const Path& path) {
  constexpr mode_t permissions = 07777;
  struct stat own {};
  if (fstat(file, &own) != 0) Fail("cannot look at", path);
  const bool isOwners = own.st_uid == status.st_uid && own.st_gid == status.st_gid;
  if (!isOwners && fchown(file, status.st_uid, status.st_gid) != 0) {
    Fail("cannot give its present owner to", path);
  }
  if (fchmod(file, status.st_mode & permissions) != 0) Fail("cannot give its present mode to", path);
}

void SyncFolder(const Path& folder) {
  const FileDescriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened || fsync(opened.Get()) != 0) Fail("cannot sync", folder);
}

}  // namespace

TargetFile::TargetFile(const std::filesystem::path& path)
    : m_path(Resolved(path)),
      m_newPath(m_path.parent_path() / ("." + m_path.filename().string() + ".halden-new")),
      m_markPath(m_path.parent_path() / ("." + m_path.filename().string() + ".halden-reload")) {
  const auto folder = StatusOf(m_path.parent_path());
  if (!folder || !S_ISDIR(folder->st_mode)) {
    throw RenderError("there is no folder \"" + m_path.parent_path().string() + "\"");
  }
  const auto status = StatusOf(m_path);
  if (status) RequireFile(*status, m_path);
}

std::optional<std::string> TargetFile::Read() const {
  const FileDescriptor file(
      open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // it may be a pipe by now
  if (!file && errno == ENOENT) return std::nullopt;
  struct stat status {};
  if (!file || fstat(file.Get(), &status) != 0) Fail("cannot read", m_path);
  RequireFile(status, m_path);
  std::string text;
  std::array<char, 65536> part{};
  while (true) {
    const ssize_t length = read(file.Get(), part.data(), part.size());
    if (length == 0) return text;
    if (length < 0 && errno != EINTR) Fail("cannot read", m_path);
    if (length > 0) text.append(part.data(), static_cast<std::size_t>(length));
  }
}

void TargetFile::Stage(const std::string& content) const {
  const auto replaced = StatusOf(m_path);
  Discard();
  // What replaces a file that few may read must not be readable by more for a moment.
  const mode_t mode = replaced ? S_IRUSR | S_IWUSR : S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
  const FileDescriptor file(open(m_newPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!file) Fail("cannot create", m_newPath);
  if (replaced) Keep(*replaced, file.Get(), m_newPath);
  WriteAll(file.Get(), content, m_newPath);
  if (fsync(file.Get()) != 0) Fail("cannot sync", m_newPath);
}

void TargetFile::Commit() const {
  if (rename(m_newPath.c_str(), m_path.c_str()) != 0) Fail("cannot replace", m_path);
  SyncFolder(m_path.parent_path());
}

void TargetFile::Discard() const noexcept {
  unlink(m_newPath.c_str());
}

bool TargetFile::IsReloadOwed() const {
  return StatusOf(m_markPath).has_value();
}

void TargetFile::SetReloadOwed(bool owed) const {
  if (!owed) {
    if (unlink(m_markPath.c_str()) != 0 && errno != ENOENT) Fail("cannot remove", m_markPath);
    return;
  }
  const FileDescriptor mark(open(m_markPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!mark) Fail("cannot create", m_markPath);
}

}  // namespace zr::halden::agent
