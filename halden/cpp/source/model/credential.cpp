// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/credential.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/file_descriptor.h"
#include "base/system_error.h"
#include "zrstl/utf8.h"

namespace zr::halden::details {

namespace {

constexpr std::size_t kMaxBytes = 4096;

/// What is wrong with the file, but for what it holds.
zr::String WhyUnusable(const struct stat& file) {
  if (!S_ISREG(file.st_mode)) return "is not a file";
  if ((file.st_mode & S_IROTH) != 0) return "may be read by everybody: expected a mode like 0600 or 0640";
  if ((file.st_mode & S_IWOTH) != 0) return "may be written by everybody: expected a mode like 0600 or 0640";
  if (static_cast<std::size_t>(file.st_size) > kMaxBytes)
    return "too large: expected one line scheme:credential";
  return {};
}

/// Returns what is wrong. Waits for nothing: who opens a pipe would, for its other end.
zr::String ReadText(const zr::String& path, std::string& text) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat found {};
  if (!file || fstat(file.Get(), &found) != 0) return "cannot be opened: " + SystemError();
  if (auto why = WhyUnusable(found); !why.empty()) return why;
  std::array<char, kMaxBytes> block{};
  for (;;) {
    const ssize_t length = read(file.Get(), block.data(), block.size());
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return "cannot be read: " + SystemError();
    if (length == 0 || text.size() > kMaxBytes) break;
    text.append(block.data(), static_cast<std::size_t>(length));
  }
  explicit_bzero(block.data(), block.size());
  return {};
}

/// What is wrong with the text, with its place.
zr::String WhyMalformed(std::string_view text, Credential& credential) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  const auto at = [](std::size_t column) { return ":1:" + std::to_string(column + 1) + ": "; };
  if (text.empty()) return ": is empty: expected one line scheme:credential";
  if (const auto line = text.find('\n'); line != std::string_view::npos)
    return ":2:1: more than one line: expected scheme:credential alone";
  const auto odd =
      std::find_if(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; });
  if (odd != text.end()) {
    const auto what =
        *odd == '\r' ? "carriage return: expected lines to end as in Unix" : "control character";
    return at(static_cast<std::size_t>(odd - text.begin())) + what;
  }
  credential = SplitCredential(text);
  if (credential.scheme.empty() || credential.scheme.find(' ') != zr::String::npos)
    return at(0) + "no scheme: expected scheme:credential, as in digest:user:password";
  const auto behind = credential.scheme.size() + 1;
  if (credential.secret.empty()) return at(behind) + "no credential behind the scheme";
  const auto user = credential.secret.find(':');
  if (credential.scheme == "digest" && (user == zr::String::npos || user == 0))
    return at(behind) + "not a digest: expected digest:user:password";
  return {};
}

}  // namespace

Credential SplitCredential(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return {};
  return {zr::String(text.substr(0, colon)), zr::String(text.substr(colon + 1))};
}

ReadCredential ReadCredentialFile(const zr::String& path) {
  ReadCredential result;
  std::string text;
  zr::String why = ReadText(path, text);
  why = why.empty() ? WhyMalformed(text, result.value) : ": " + why;
  explicit_bzero(text.data(), text.size());
  if (!why.empty()) result = {{}, EscapeControls(path) + why};
  return result;
}

}  // namespace zr::halden::details
