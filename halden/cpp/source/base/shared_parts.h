// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <typeindex>
#include <unordered_map>

#include "zrstl/thread_safety.h"

namespace zr::halden::details {

/// One object of each type, shared by all who work through one connection: made for the first who asks, gone with
/// the last who holds it. Any thread.
class SharedParts {
 public:
  template <typename T>
  std::shared_ptr<T> Get() {
    const zr::MutexLock lock(m_mtx);
    auto& known = m_parts[typeid(T)];
    auto part = std::static_pointer_cast<T>(known.lock());
    if (!part) known = part = std::make_shared<T>();
    return part;
  }
  /// Null when nobody has it.
  template <typename T>
  std::shared_ptr<T> Find() {
    const zr::MutexLock lock(m_mtx);
    return std::static_pointer_cast<T>(m_parts[typeid(T)].lock());
  }

 private:
  zr::Mutex m_mtx;
  std::unordered_map<std::type_index, std::weak_ptr<void>> m_parts ZR_GUARDED_BY(m_mtx);
};

}  // namespace zr::halden::details
