// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <vector>

#include "model/access_list.h"

namespace zr::halden::details {

/// An access list as the client library takes it, which copies it in the call.
class AccessVector {
 public:
  /// Null: open to all. The list must outlive this.
  explicit AccessVector(const AccessList* list) : m_open(list == nullptr) {
    if (m_open) return;
    for (const auto& [scheme, id, permissions] : *list) {
      // Its own type has no const, and it writes nothing there.
      m_entries.push_back({permissions, {const_cast<char*>(scheme.c_str()), const_cast<char*>(id.c_str())}});
    }
    m_vector = {static_cast<int>(m_entries.size()), m_entries.data()};
  }

  AccessVector(const AccessVector&) = delete;
  AccessVector& operator=(const AccessVector&) = delete;

  const ACL_vector* Get() const { return m_open ? &ZOO_OPEN_ACL_UNSAFE : &m_vector; }

 private:
  const bool m_open;
  std::vector<ACL> m_entries;
  ACL_vector m_vector{};
};

inline AccessList ToAccessList(const ACL_vector& vector) {
  AccessList list;
  for (int i = 0; i < vector.count; ++i) {
    const auto& [permissions, id] = vector.data[i];
    list.push_back({id.scheme, id.id, permissions});
  }
  return list;
}

}  // namespace zr::halden::details
