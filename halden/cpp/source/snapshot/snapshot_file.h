// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "snapshot/snapshot_codec.h"
#include "zrstl/string.h"

/// Snapshots as files of a folder, one for each service and data centre. Whoever is killed while writing leaves the file
/// as it was before, and at most one other beside it, which the next one takes for its own. Any number of processes may
/// read and write: a file is replaced as a whole, by one at a time, and never by what is older.
///
/// Threads: any. Blocks for as long as the disk does.
namespace zr::halden::details {

/// "orders@eu-west.snapshot". Different for different names, and always the name of a file in the folder itself.
std::string SnapshotFileName(const zr::String& service, const zr::String& dcName);

struct SnapshotLimits {
  std::chrono::system_clock::time_point now;
  std::chrono::seconds maxAge;
};

struct SnapshotRead {
  std::optional<ServiceSnapshot> snapshot;
  zr::String error;  ///< why there is none; empty also where there is no file
};
/// Takes a file only if it is a regular one of this process's user, that nobody else may write.
SnapshotRead ReadSnapshotFile(const std::string& folder, const zr::String& service, const zr::String& dcName,
                              const SnapshotLimits& limits);

struct SnapshotWritten {
  enum class Outcome : std::uint8_t {
    Written,
    Newer,  ///< what is there was true later, by the word of another process
    Busy,   ///< another process is writing the same file just now
    Failed,
  };
  Outcome outcome = Outcome::Written;
  zr::String error;  ///< of Failed
};
/// Makes the folder where there is none. What fails leaves the file as it was, and nothing else behind.
SnapshotWritten WriteSnapshotFile(const std::string& folder, ServiceSnapshot snapshot);

}  // namespace zr::halden::details
