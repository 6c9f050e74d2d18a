// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "zrstl/string.h"

/// "host:port[,host:port...][/chroot][?option=value[&option=value]]". Up to the options it is as ZooKeeper's clients
/// take it, checked as a whole: the C client lets through what can never work (port 99999) and takes
/// "h1:1/a,h2:2/a" for one host with an odd chroot. With it, what ZooKeeper takes as text in a path.
/// Pure; any thread.
///
/// A value has as "%" and two hexadecimal digits what would be taken for something else: "%", "&" and blanks. In a
/// chroot "%3F" is a "?" and "%25" a "%"; any other "%" stands for itself. No option holds a secret: connect
/// strings are logged and printed.
namespace zr::halden::details {

struct HostPort {
  zr::String host;  ///< a name, an IPv4 address, or an IPv6 address without its brackets
  std::uint16_t port = 0;

  bool operator==(const HostPort&) const = default;
};

struct ConnectString {
  std::vector<HostPort> hosts;
  zr::String chroot;         ///< empty, or an absolute path without a trailing "/"
  zr::String authFile = {};  ///< "auth_file": the absolute path of a file with a credential; empty for none
  zr::String acl = {};       ///< "acl": as ParseAccessList takes it, and in order; empty for none

  bool operator==(const ConnectString&) const = default;
};

struct ParsedConnectString {
  ConnectString value;     ///< empty when `error` is not
  zr::String error;        ///< empty, or what is wrong and what was expected
  std::size_t offset = 0;  ///< the byte of the text at which it is wrong; may be the text's length
};

inline constexpr std::string_view kAuthFileOption = "auth_file";
inline constexpr std::string_view kAclOption = "acl";

/// Several that name one ensemble: the last one's chroot counts, and an option in whichever it is, since one that is
/// lost might be what was to protect it.
void AddTo(ConnectString& all, ConnectString&& more);

/// `text`, which may have options, with one more.
zr::String WithOption(zr::String text, std::string_view option, std::string_view value);
/// `text` up to its options, which errors may repeat: whoever takes one for the place of a secret should not find it
/// in the log.
zr::String WithoutOptions(const zr::String& text);

/// Ports are required; blanks are refused everywhere. Names are checked for their form, not resolved.
ParsedConnectString ParseConnectString(const zr::String& text);

/// Where `text` holds something that ZooKeeper's servers refuse in a path (what is not UTF-8, control
/// characters, private-use characters, everything past U+FFEF); npos where it does not. Knows nothing of "/".
std::size_t FindBadPathCharacter(std::string_view text);

}  // namespace zr::halden::details
