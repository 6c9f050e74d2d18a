// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "model/connect_string.h"
#include "zrstl/string.h"

namespace zr::halden::details {

struct ResolvedHosts {
  /// "address:port,address:port...", numeric, in an order that does not depend on the resolver's; empty when
  /// no name resolves. The client library would resolve names in the middle of its input and output: a slow
  /// resolver would hold up every request.
  zr::String addresses;
  zr::String error;  ///< what did not resolve, and why; may be set although others did
};

/// Whether any host is a name rather than an address.
bool HasNames(const std::vector<HostPort>& hosts);

/// Blocks for as long as the system's resolver does.
ResolvedHosts Resolve(const std::vector<HostPort>& hosts);

}  // namespace zr::halden::details
