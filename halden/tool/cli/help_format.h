// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace CLI {
class FormatterBase;
}

namespace zr::halden::tool {

/// How help is laid out: in 80 columns, and without what options exclude each other, which who gives both is told.
std::shared_ptr<CLI::FormatterBase> MakeHelpFormat();

}  // namespace zr::halden::tool
