// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "zrstl/string.h"

/// "host:port[,host:port...][/chroot]", as ZooKeeper's clients take it, checked as a whole: the C client lets
/// through what can never work (port 99999) and takes "h1:1/a,h2:2/a" for one host with an odd chroot.
/// With it, what ZooKeeper takes as text in a path. Pure; any thread.
namespace zr::halden::details {

struct HostPort {
  zr::String host;  ///< a name, an IPv4 address, or an IPv6 address without its brackets
  std::uint16_t port = 0;

  bool operator==(const HostPort&) const = default;
};

struct ConnectString {
  std::vector<HostPort> hosts;
  zr::String chroot;  ///< empty, or an absolute path without a trailing "/"

  bool operator==(const ConnectString&) const = default;
};

struct ParsedConnectString {
  ConnectString value;     ///< empty when `error` is not
  zr::String error;        ///< empty, or what is wrong and what was expected
  std::size_t offset = 0;  ///< the byte of the text at which it is wrong; may be the text's length
};

/// Ports are required; blanks are refused everywhere. Names are checked for their form, not resolved.
ParsedConnectString ParseConnectString(const zr::String& text);

/// Where `text` holds something that ZooKeeper's servers refuse in a path (what is not UTF-8, control
/// characters, private-use characters, everything past U+FFEF); npos where it does not. Knows nothing of "/".
std::size_t FindBadPathCharacter(std::string_view text);

}  // namespace zr::halden::details
