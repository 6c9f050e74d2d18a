// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zr::halden::test {

/// Host names under ".test" that a test makes up and moves: this process's getaddrinfo knows them, and no
/// other of that kind. Any thread.
class NameService {
 public:
  static void Set(const std::string& name, const std::string& address);
  static void Forget(const std::string& name);
};

}  // namespace zr::halden::test
