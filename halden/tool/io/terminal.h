// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/ioctl.h>

#include <cstddef>
#include <string>

namespace zr::halden::tool {

/// How output may look: a file gets neither colours nor a limit.
struct Look {
  bool colour = false;
  std::size_t width = 0;  ///< columns of the terminal; 0 for no limit
};

/// Colours and a limit are for terminals; no colours where NO_COLOR is set, or TERM says that there are none.
Look LookOf(int descriptor);

/// TERM; empty where it is not set.
std::string TerminalName();

/// Whether the descriptor is a terminal that can be written over.
bool CanSteer(int descriptor);

/// Some terminals, serial ones for example, do not know their size: the usual one then.
winsize SizeOf(int descriptor);

}  // namespace zr::halden::tool
