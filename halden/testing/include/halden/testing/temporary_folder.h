// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>

#include "halden/utils.h"
#include "zrstl/export.h"

namespace zr::halden::testing {

/// A folder under the system's temporary one, removed with everything in it when the object goes. A program that is
/// killed leaves it behind.
///
/// Threads: constant after construction. Errors: the constructor throws TestingError.
class ZR_EXPORT TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();

  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

/// A configuration file that names data centres and their connect strings, for whoever is to connect by itself
/// (LibraryManaged, the command). Removed with the object; halden reads it when it connects, so keep it until then.
///
/// Threads: constant after construction. Errors: the constructor throws TestingError when it cannot be written.
class ZR_EXPORT ConfigFile {
 public:
  /// `local`: the data centre that the program is in, or empty.
  explicit ConfigFile(const DataCenterEnsembleMapT& dataCenters, const zr::String& local = {});

  std::string Path() const { return m_folder.Path() / "halden.toml"; }

 private:
  const TemporaryFolder m_folder;
};

}  // namespace zr::halden::testing
