// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "snapshot/snapshot_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/uuid/name_generator_sha1.hpp>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/clock.h"
#include "base/file_descriptor.h"
#include "base/system_error.h"
#include "halden/service_id.h"
#include "model/layout.h"

namespace zr::halden::details {

namespace {

using Outcome = SnapshotWritten::Outcome;

// A clock that was set back by more makes what it wrote before seem to come from the future.
constexpr std::chrono::minutes kClockSlack{1};

zr::String ErrorText(const char* what) {
  return zr::String(what) + ": " + SystemError();
}

/// Letters, digits, "-" and "_" as they are, and dots but for the first; all else as "%2F". A name that gets too long is
/// told by what it hashes to.
std::string Escaped(const zr::String& name) {
  constexpr std::size_t most = 100;  // two of them and the rest in the 255 bytes of a file's name
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                         c == '-' || c == '_' || (c == '.' && !text.empty());
    if (isPlain) {
      text += c;
    } else {
      text += {'%', kHexDigits[byte >> 4U], kHexDigits[byte & 0xFU]};
    }
  }
  if (text.size() <= most) return text;
  const boost::uuids::name_generator_sha1 hash(boost::uuids::ns::oid());
  return text.substr(0, most - 40) + "%%" + ToString(hash(name.data(), name.size()));
}

FileDescriptor OpenFolder(const std::string& folder) {
  return FileDescriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Empty for a file that only this process's user can have written.
zr::String WhyNotTrusted(int file) {
  struct stat status {};
  if (fstat(file, &status) != 0) return ErrorText("fstat");
  if (!S_ISREG(status.st_mode)) return "it is no regular file";
  if (status.st_uid != geteuid()) return "it is of another user";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others may write it";
  if (static_cast<std::size_t>(status.st_size) > kMaxSnapshotBytes) return "it is too long";
  return {};
}

/// At most `most` bytes; short where the file is.
std::string ReadBytes(int file, std::size_t most) {
  std::string bytes(most, '\0');
  std::size_t length = 0;
  while (length < most) {
    const auto got = pread(file, bytes.data() + length, most - length, static_cast<off_t>(length));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    length += static_cast<std::size_t>(got);
  }
  bytes.resize(length);
  return bytes;
}

zr::String WriteBytes(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto put = write(file, bytes.data(), bytes.size());
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return ErrorText("write");
    bytes.remove_prefix(static_cast<std::size_t>(put));
  }
  return {};
}

FileDescriptor OpenExisting(int folder, const std::string& name) {
  return FileDescriptor(openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

/// The file beside the snapshot that the next one is written to, locked: whoever dies lets go of it. Of two that opened it
/// the second finds, once it has the lock, that the first has made it the snapshot, and makes another.
struct Draft {
  FileDescriptor file;
  SnapshotWritten result;  ///< of who has none
};
Draft OpenDraft(int folder, const std::string& name) {
  constexpr int tries = 10;
  for (int i = 0; i < tries; ++i) {
    FileDescriptor file(
        openat(folder, name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!file) return {{}, {Outcome::Failed, ErrorText("open")}};
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) break;
      return {{}, {Outcome::Failed, ErrorText("flock")}};
    }
    struct stat opened {};
    struct stat named {};
    if (fstat(file.Get(), &opened) != 0) return {{}, {Outcome::Failed, ErrorText("fstat")}};
    const bool isThere = fstatat(folder, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0;
    if (!isThere || named.st_ino != opened.st_ino || named.st_dev != opened.st_dev) continue;
    if (const auto why = WhyNotTrusted(file.Get()); !why.empty()) {
      return {{}, {Outcome::Failed, "its draft cannot be used, " + why}};
    }
    return {std::move(file), {}};
  }
  return {{}, {Outcome::Busy, {}}};
}

/// Whether the snapshot that is there, of whatever ensemble, was true later than `asOf`.
bool IsNewer(int folder, const std::string& name, std::chrono::system_clock::time_point asOf) {
  const auto file = OpenExisting(folder, name);
  if (!file || !WhyNotTrusted(file.Get()).empty()) return false;
  const auto time = SnapshotTime(ReadBytes(file.Get(), kSnapshotHeaderBytes));
  return time && *time > asOf && *time <= TimeOfDay() + kClockSlack;
}

/// Through to the disk before it takes the name: else a crash of the machine could leave the name with nothing behind it.
zr::String Replace(int folder, const std::string& draft, int file, const std::string& name,
                   std::string_view bytes) {
  if (ftruncate(file, 0) != 0) return ErrorText("ftruncate");
  if (auto error = WriteBytes(file, bytes); !error.empty()) return error;
  if (fsync(file) != 0) return ErrorText("fsync");
  if (renameat(folder, draft.c_str(), folder, name.c_str()) != 0) return ErrorText("rename");
  static_cast<void>(fsync(folder));  // without it a crash may bring back the one before, which is whole, too
  return {};
}

/// What root leaves in the folder of a service's own user, that user could neither read nor replace.
bool IsForOthers(int folder) {
  struct stat status {};
  return geteuid() == 0 && fstat(folder, &status) == 0 && status.st_uid != 0;
}

FileDescriptor MakeFolder(const std::string& folder) {
  auto opened = OpenFolder(folder);
  if (opened || errno != ENOENT) return opened;
  std::filesystem::path path(folder);
  if (!path.has_filename()) path = path.parent_path();  // a slash at its end
  std::error_code ignored;                              // what is wrong shows below
  std::filesystem::create_directories(path.parent_path(), ignored);
  static_cast<void>(mkdir(path.c_str(), 0700));
  return OpenFolder(folder);
}

zr::String WhyUnfit(const ServiceSnapshot& snapshot, const zr::String& service, const zr::String& dcName,
                    const SnapshotLimits& limits) {
  if (snapshot.service != service) return "it is of another service";
  if (snapshot.dcName != dcName) return "it is of another data centre";
  if (snapshot.asOf > limits.now + kClockSlack) return "it is from the future";
  const auto age = std::chrono::duration_cast<std::chrono::seconds>(limits.now - snapshot.asOf);
  if (age > limits.maxAge) {
    return "it is " + std::to_string(age.count()) + " s old, expected at most " +
           std::to_string(limits.maxAge.count());
  }
  return {};
}

}  // namespace

std::string SnapshotFileName(const zr::String& service, const zr::String& dcName) {
  return Escaped(service) + "@" + Escaped(dcName) + ".snapshot";
}

SnapshotRead ReadSnapshotFile(const std::string& folder, const zr::String& service, const zr::String& dcName,
                              const SnapshotLimits& limits) {
  const auto opened = OpenFolder(folder);
  const auto file = opened ? OpenExisting(opened.Get(), SnapshotFileName(service, dcName)) : FileDescriptor();
  if (!file) return {std::nullopt, errno == ENOENT ? zr::String() : ErrorText("open")};
  if (auto why = WhyNotTrusted(file.Get()); !why.empty()) return {std::nullopt, std::move(why)};
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) return {std::nullopt, ErrorText("fstat")};
  auto decoded = DecodeSnapshot(ReadBytes(file.Get(), static_cast<std::size_t>(status.st_size)));
  if (!decoded.snapshot) return {std::nullopt, std::move(decoded.error)};
  if (auto why = WhyUnfit(*decoded.snapshot, service, dcName, limits); !why.empty()) {
    return {std::nullopt, std::move(why)};
  }
  return {std::move(decoded.snapshot), {}};
}

SnapshotWritten WriteSnapshotFile(const std::string& folder, ServiceSnapshot snapshot) {
  const auto name = SnapshotFileName(snapshot.service, snapshot.dcName);
  const auto draftName = name + ".tmp";
  const auto opened = MakeFolder(folder);
  if (!opened) return {Outcome::Failed, ErrorText("open folder")};
  if (IsForOthers(opened.Get())) return {Outcome::Failed, "the folder is of another user"};
  const auto draft = OpenDraft(opened.Get(), draftName);
  if (!draft.file) return draft.result;
  SnapshotWritten result;
  if (IsNewer(opened.Get(), name, snapshot.asOf)) {
    result.outcome = Outcome::Newer;
  } else {
    const auto bytes = EncodeSnapshot(std::move(snapshot));
    result.error = bytes.empty() ? "it would be too long"
                                 : Replace(opened.Get(), draftName, draft.file.Get(), name, bytes);
    if (result.error.empty()) return result;
    result.outcome = Outcome::Failed;
  }
  static_cast<void>(unlinkat(opened.Get(), draftName.c_str(), 0));  // it is locked: nobody else's
  return result;
}

}  // namespace zr::halden::details
