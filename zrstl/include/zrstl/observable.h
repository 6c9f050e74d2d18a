// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "zrstl/export.h"

namespace zr {

/// Something that can be observed. Who registers decides on ownership: shared registrations keep the observer
/// alive, weak ones do not. Threads, order and waiting: see zrstl/observable_impl.h.
template <typename Observer>
class ZR_EXPORT Observable {
 public:
  virtual ~Observable() = default;

  virtual void RegisterShared(std::shared_ptr<Observer> observer) = 0;
  virtual void RegisterWeak(std::weak_ptr<Observer> observer) = 0;
  virtual void UnregisterShared(const std::shared_ptr<Observer>& observer) = 0;
  virtual void UnregisterWeak(const std::weak_ptr<Observer>& observer) = 0;
  virtual void UnregisterRaw(const Observer* observer) = 0;
};

}  // namespace zr
