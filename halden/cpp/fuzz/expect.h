// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>

namespace zr::halden::fuzz {

/// Ends the run, which keeps and prints the input.
inline void Expect(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

}  // namespace zr::halden::fuzz
