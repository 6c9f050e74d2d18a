// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>

#include "halden/error.h"

namespace zr::halden::testing {

/// The kit could not do what a test asked of it: a server does not come up, a port cannot be bound, nobody
/// answers. `what` says what was tried and, of a server, the end of its log. It is no finding about the program
/// under test.
class ZR_EXPORT TestingError : public details::ExceptionWrapper<HaldenErrorTag, std::runtime_error> {
 public:
  using ExceptionWrapper::ExceptionWrapper;
};

/// This machine has no Java, or no ZooKeeper server. `what` names what is missing and the package that has it. A
/// test may want to be skipped then, instead of failing.
class ZR_EXPORT MissingSoftware : public TestingError {
 public:
  using TestingError::TestingError;
};

}  // namespace zr::halden::testing
