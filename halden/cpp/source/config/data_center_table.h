// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config/toml_place.h"

namespace zr::halden::details {

/// A data centre that is given as a table:
///
///     [data_centers.eu-west]
///     hosts = "zk1.eu:2181,zk2.eu:2181/platform"
///     auth_file = "eu.auth"
///     acl = "creator"
struct DataCenterTable {
  zr::String connectString;  ///< in order where there is no fault
  Place credentialPlace;     ///< where a credential is named, or where one is needed
  std::vector<std::pair<Place, zr::String>> faults;
};

/// `path`: of the configuration file, whose folder a file's name without one is in. A key that is not known is a
/// fault here: it may be what was to protect the data centre.
DataCenterTable ReadDataCenterTable(const toml::table& table, std::string_view name, const std::string& path,
                                    Cursor& cursor);

}  // namespace zr::halden::details
