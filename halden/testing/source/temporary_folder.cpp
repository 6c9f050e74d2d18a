// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/testing/temporary_folder.h"

#include <cstdlib>
#include <fstream>
#include <system_error>

#include "halden/testing/error.h"
#include "loopback.h"

namespace zr::halden::testing {

TemporaryFolder::TemporaryFolder() {
  std::string name = std::filesystem::temp_directory_path() / "halden-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) Fail("cannot make the folder " + name);
  m_path = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

ConfigFile::ConfigFile(const DataCenterEnsembleMapT& dataCenters, const zr::String& local) {
  std::ofstream config(Path());
  if (!local.empty()) config << "local = \"" << local << "\"\n";
  config << "[data_centers]\n";
  for (const auto& [name, ensemble] : dataCenters) config << "\"" << name << "\" = \"" << ensemble << "\"\n";
  if (!config.flush()) throw TestingError("cannot write " + Path());
}

}  // namespace zr::halden::testing
