// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace zr::halden {

/// An event can be lost: by a bug or a proxy, and a server does not tell one to a client that may not read the
/// node just then. So while nothing else is read a watcher goes over what it knows, evenly spread: over every
/// list of instances and over every instance once in its interval; zero: never. What it finds changed is
/// announced as any change, counted (`drifts`) and logged. The cost, for the servers: an answer of some hundred
/// bytes for each instance, and each partition's list of names.
struct AuditIntervals {
  std::chrono::milliseconds lists{std::chrono::minutes(5)};
  std::chrono::milliseconds instances{std::chrono::hours(1)};
};

}  // namespace zr::halden
