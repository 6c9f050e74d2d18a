// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/instance_change.h"

namespace zr::halden {

std::string_view ToString(InstanceChange change) {
  switch (change) {
    case InstanceChange::Added:
      return "added";
    case InstanceChange::Modified:
      return "modified";
    case InstanceChange::Removed:
      return "removed";
  }
  return "unknown";
}

}  // namespace zr::halden
