// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zr::halden::testing {

/// Starts a program that is killed when this one ends, however it ends, and whose output is appended to `log`. It
/// gets none of this one's descriptors. Any thread, which may end before the program does.
///
/// Returns its process id, to be waited for by the caller; throws MissingSoftware, with `advice`, when there is no
/// such program.
pid_t StartChild(std::vector<std::string> words, const std::string& log, const std::string& advice);

}  // namespace zr::halden::testing
