// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/error.h"

#include <zookeeper/zookeeper.h>

#include <utility>

namespace zr::halden {

ZooError::ZooError(int code) : ExceptionWrapper(zerror(code)), m_code(code) {}

ZooError::ZooError(int code, const zr::String& detail)
    : ExceptionWrapper(zr::String(zerror(code)) + ": " + detail), m_code(code) {}

ZooError::~ZooError() = default;

FailedToParseZooConfig::FailedToParseZooConfig(zr::String description)
    : ExceptionWrapper(std::move(description)) {}

FailedToParseZooConfig::~FailedToParseZooConfig() = default;

}  // namespace zr::halden
