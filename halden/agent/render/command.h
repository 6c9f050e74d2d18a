// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zr::halden::agent {

/// Runs a shell's line and waits for its end: with no input, none of this process's descriptors, no signal blocked or
/// ignored, in a process group of its own, and with `variables` ("NAME=value") in its environment.
///
/// Returns what went wrong, with the beginning of what it has printed; nothing when it ended with 0. Programs that it
/// leaves running are not waited for, and must not need its output. After `limit`, or once `stop` is readable, the
/// group is killed. Any thread.
std::string RunCommand(const std::string& line, const std::vector<std::string>& variables,
                       std::chrono::milliseconds limit, int stop);

}  // namespace zr::halden::agent
