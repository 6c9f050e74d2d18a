// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <sstream>
#include <string>

#include "zrstl/string.h"

namespace zr {

using StringStream = std::stringstream;
using InPlaceRefStringStream = StringStream;

/// The text collected in `stream` so far.
inline std::string Finish(const std::stringstream& stream) {
  return stream.str();
}

/// Empties `stream` for its next use. Its buffer is kept unless it has grown past `keepBytes`, so that
/// one huge text does not pin its memory for the rest of a thread's life. Error flags are cleared too: a
/// failed insertion (a null `const char*`, say) must not silence what is written next.
inline void Reset(std::stringstream& stream, std::size_t keepBytes) {
  const auto written = stream.tellp();
  if (written < 0 || static_cast<std::size_t>(written) > keepBytes) {
    std::stringstream fresh;
    stream.swap(fresh);
    stream.copyfmt(fresh);
  } else {
    stream.str(std::string());
  }
  stream.clear();
}

}  // namespace zr
