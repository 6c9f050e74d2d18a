// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "halden/utils.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// Something wrong in a configuration file. Line and column count from 1; both are 0 when the fault is not at
/// a place in the text (a file that cannot be read).
struct ZR_EXPORT ConfigFault {
  std::string file;
  unsigned line = 0;
  unsigned column = 0;
  zr::String message;

  /// "file:line:column: message", as compilers write it; "file: message" where there is no place.
  zr::String Text() const;
};

struct ZR_EXPORT ZooKeeperConfig {
  DataCenterEnsembleMapT ensembles;  ///< the entries that are in order
  zr::String local;  ///< the data centre that the file says is this one; empty when it does not
  /// See GlobalServiceWatcher::SetSnapshotFolder; empty when the file does not say.
  std::string snapshotFolder;
  std::vector<ConfigFault> faults;  ///< empty when the whole file is in order
  /// Credentials that cannot be read now, each with the place that names its file. Their entries are among the
  /// others: a connection reads the file anew for each session.
  std::vector<ConfigFault> authFaults;
  std::vector<ConfigFault> warnings;  ///< unknown keys and tables, which are ignored; an ensemble given twice
};

/// Reads the TOML file at `path`:
///
///     local = "eu-west"  # may be left out: the data centre that programs prefer (see RoutingTable)
///     snapshot_folder = "/var/lib/orders/halden"  # may be left out: what is known outlives the process there
///     [data_centers]
///     eu-west = "zk1.eu:2181,zk2.eu:2181/platform"
///     [data_centers.us-east]
///     hosts = "zk1.us:2181/platform"
///     auth_file = "us-east.auth"  # one line scheme:credential, as in digest:user:password; closed to others
///     acl = "creator"  # what publishers protect their nodes with, see ServicePublisher
///
/// A file's name is relative to the configuration's own folder. What comes out for a table is one connect string, which
/// names the file and never holds what is in it:
///
///     zk1.us:2181/platform?auth_file=%2Fetc%2Fus-east.auth&acl=creator
///
/// Throws nothing on bad input: every fault is in the result, in the file's order, and costs no entry but
/// its own. Only a syntax error ends the reading: the result is what stands before its line, and the fault
/// says so. A data centre that is given twice is in no result, nor is a table that the error may be in. Of more than
/// 100 faults or warnings the rest is not listed. At most 1 MiB is read.
ZR_EXPORT ZooKeeperConfig ReadZooKeeperConfig(const std::string& path);

}  // namespace zr::halden
