// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A configuration file as a person writes it: every fault has its place in the file and fits on a line, and what
// is taken from it can be connected to.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "expect.h"
#include "halden/zookeeper_config.h"
#include "model/connect_string.h"

namespace {

using zr::halden::fuzz::Expect;

/// A file in memory that holds the input.
int WriteFile(const std::uint8_t* bytes, std::size_t size) {
  static const int file = memfd_create("halden.toml", MFD_CLOEXEC);
  Expect(ftruncate(file, 0) == 0, "the file is emptied");
  Expect(pwrite(file, bytes, size, 0) == static_cast<ssize_t>(size), "the file is written");
  return file;
}

void ExpectInPlace(const zr::halden::ConfigFault& fault, std::string_view text) {
  const auto lines = 1 + std::count(text.begin(), text.end(), '\n');
  Expect((fault.line == 0) == (fault.column == 0), "a place has line and column, or none of them");
  Expect(fault.line <= lines, "the fault is on a line of the file");
  Expect(fault.column <= text.size() + 1, "the fault is in a column of the file");
  Expect(!fault.message.empty(), "the fault says what is wrong");
  const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
  const auto shown = fault.Text();
  Expect(std::none_of(shown.begin(), shown.end(), isControl), "the fault is printable text on one line");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto path = "/proc/self/fd/" + std::to_string(WriteFile(bytes, size));
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const auto config = zr::halden::ReadZooKeeperConfig(path);
  for (const auto& fault : config.faults) ExpectInPlace(fault, text);
  for (const auto& fault : config.authFaults) ExpectInPlace(fault, text);
  for (const auto& warning : config.warnings) ExpectInPlace(warning, text);
  Expect(!config.faults.empty() || !config.ensembles.empty(), "a file in order names a data centre");
  Expect(config.snapshotFolder.empty() || config.snapshotFolder.front() == '/',
         "a folder's path is absolute");
  for (const auto& [name, hosts] : config.ensembles) {
    Expect(!name.empty(), "a data centre has a name");
    Expect(zr::halden::details::ParseConnectString(hosts).error.empty(), "an ensemble's hosts are in order");
  }
  return 0;
}
