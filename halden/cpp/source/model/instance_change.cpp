// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/instance_change.h"

#include <ostream>

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

std::ostream& operator<<(std::ostream& out, InstanceChange change) {
  return out << ToString(change);
}

}  // namespace zr::halden
