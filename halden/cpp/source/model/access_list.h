// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "zrstl/string.h"

/// Who may do what to a node. Pure; any thread.
namespace zr::halden::details {

/// As ZooKeeper counts them. "Delete" and "create" are about a node's children: who may delete an instance is
/// for its partition to say.
enum Permission : std::uint8_t {
  kRead = 1U,
  kWrite = 2U,
  kCreate = 4U,
  kDelete = 8U,
  kAdmin = 16U,
  kAllPermissions = 31U,
};

struct AccessEntry {
  zr::String scheme;
  zr::String id;
  std::int32_t permissions = 0;

  bool operator==(const AccessEntry&) const = default;
};

using AccessList = std::vector<AccessEntry>;
/// Null: everybody may do everything.
using AccessListPtr = std::shared_ptr<const AccessList>;

struct ParsedAccessList {
  AccessList value;        ///< empty when `error` is not
  zr::String error;        ///< empty, or what is wrong and what was expected; it repeats nothing of the text
  std::size_t offset = 0;  ///< the byte of the text at which it is wrong
};

/// "creator": who creates a node may do everything, everybody may read. Or ZooKeeper's text form,
/// "scheme:id:permissions[,...]", the permissions as letters of "cdrwa".
ParsedAccessList ParseAccessList(std::string_view text);

/// Of the nodes above one with `list`: the same may do the same there, and everybody may read and add, so that
/// others can publish the service too.
AccessList AboveAccess(const AccessList& list);

/// Whoever creates a node with it must have authenticated.
bool NeedsCredential(const AccessList& list);

/// What who has no credential may do.
std::int32_t PermissionsOfAnyone(const AccessList& list);

}  // namespace zr::halden::details
