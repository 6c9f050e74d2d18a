// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <utility>

#include "model/credential.h"

namespace zr::halden::details {

/// What a connection's sessions authenticate with: what the application gave, or what a file held when the session
/// began. A session keeps its own on all its handles, whatever the file holds by then: servers take a new digest for
/// somebody else, who may not write what the session has created.
///
/// Threads: the connection's.
class Credentials {
 public:
  Credentials() = default;
  /// `file` is of no account where one is given; both may be empty.
  Credentials(Credential given, const zr::String& file) : m_current(std::move(given)) {
    if (m_current.scheme.empty() && !file.empty()) m_file = file;
  }

  /// For the next session; without one then that could be read.
  void Renew() {
    if (!m_file) return;
    auto read = ReadCredentialFile(*m_file);
    m_current = std::move(read.value);
    m_fault = std::move(read.error);
    m_known = m_fault.empty();
  }
  /// The next session may be one of before, and its credential is to be read even so.
  void Forget() {
    m_known = false;
    m_fault.clear();
  }
  /// There is one, or none is needed.
  bool Known() const { return !m_file || m_known; }
  /// Why there is none; empty before it was looked for.
  const zr::String& Fault() const { return m_fault; }
  /// The file holds something else by now.
  bool Outdated() const { return m_file && ReadCredentialFile(*m_file).value != m_current; }
  const Credential& Current() const { return m_current; }

 private:
  std::optional<zr::String> m_file;
  Credential m_current;
  zr::String m_fault;
  bool m_known = false;  // read from the file
};

}  // namespace zr::halden::details
