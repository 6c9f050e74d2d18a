// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "model/access_list.h"
#include "zrstl/string.h"

namespace zr::halden::details {

/// The answer to a request. `code` decides which of the others mean something.
struct Reply {
  int code = ZOK;
  std::string value;
  std::vector<std::string> children;
  AccessList access;
  Stat stat{};
};

using ReplyFunction = std::function<void(Reply&)>;

/// One asynchronous ZooKeeper request.
struct Request {
  enum class Kind : std::uint8_t {
    Get,
    GetChildren,
    GetAccess,
    Exists,
    Sync,
    Create,
    Set,
    Delete,
    CreateAndTell,  ///< creates the node and sets its parent's data, both or neither
    Barrier         ///< a transaction that changes nothing: who answers it, whatever it is, is up to date
  };

  Kind kind = Kind::Get;
  zr::String path;              ///< absolute, below the chroot
  bool outsideChroot = false;   ///< `path` is below the ensemble's own root instead
  bool watch = false;           ///< reads: also set a watch
  bool alike = false;           ///< Get, GetChildren: one of many whose answers are about as long
  std::string data = {};        ///< Create, CreateAndTell, Set
  std::string parentData = {};  ///< CreateAndTell
  int mode = 0;                 ///< Create, CreateAndTell: ZOO_EPHEMERAL, ...
  int version = -1;             ///< Set, Delete: -1 for any
  AccessListPtr access = {};    ///< Create, CreateAndTell; null: open to all
  ReplyFunction reply = {};
};

}  // namespace zr::halden::details
