// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <system_error>

#include "zrstl/string.h"

namespace zr::halden::details {

/// What the last call of the system's that failed on this thread failed of.
inline zr::String SystemError() {
  return std::generic_category().message(errno);
}

}  // namespace zr::halden::details
