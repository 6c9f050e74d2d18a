// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <utility>

#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// Marks exception types as this component's; never defined.
struct HaldenErrorTag;

namespace details {

/// A standard exception `B` under a type of its own, told apart by the tag `D`. Catch it as itself, as `B` or
/// as std::exception.
template <typename D, typename B>
class ZR_EXPORT ExceptionWrapper : public B {
 public:
  template <typename... Args>
  explicit ExceptionWrapper(Args&&... args) : B(std::forward<Args>(args)...) {}

  ExceptionWrapper(const ExceptionWrapper&) = default;
  ExceptionWrapper(ExceptionWrapper&&) noexcept = default;
  ExceptionWrapper& operator=(const ExceptionWrapper&) = default;
  ExceptionWrapper& operator=(ExceptionWrapper&&) noexcept = default;
  ~ExceptionWrapper() override = default;
};

}  // namespace details

/// What to catch for every error that is this component's own: the misuse of an operation ("Invalid Library Usage"),
/// and, derived from it, ZooError.
using HaldenError = details::ExceptionWrapper<HaldenErrorTag, std::runtime_error>;

/// A ZooKeeper call failed, or could never work (a malformed host list). `Code` is the client library's
/// return code (ZBADARGUMENTS and so on); `what` its description.
class ZR_EXPORT ZooError : public HaldenError {
 public:
  explicit ZooError(int code);
  /// As above, with what was wrong after the code's description.
  ZooError(int code, const zr::String& detail);
  ~ZooError() override;

  int Code() const { return m_code; }

 private:
  int m_code;
};

/// The ZooKeeper configuration could not be processed; `what` is the description given.
class ZR_EXPORT FailedToParseZooConfig : public HaldenError {
 public:
  explicit FailedToParseZooConfig(zr::String description);
  ~FailedToParseZooConfig() override;
};

}  // namespace zr::halden
