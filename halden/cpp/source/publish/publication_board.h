// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>

#include "halden/service_publisher.h"
#include "zrstl/string.h"
#include "zrstl/thread_safety.h"

namespace zr::halden::details {

/// What others may know of a publisher: which wish was the last, how far it is, and waiting for it.
///
/// Threads: any. A wish is numbered where it is made; all that is said of it comes from the connection's.
class PublicationBoard {
 public:
  /// The number of a new wish, from 1.
  std::uint64_t CountWish();

  PublisherStatus Status() const;
  bool AwaitPublished(std::chrono::milliseconds limit) const;
  bool AwaitAbsent(std::chrono::milliseconds limit) const;

  /// What was confirmed is no longer so, or no longer wished. A conflict lasts until more is known.
  void Unsettle();
  /// It is being written.
  void SetPublishing();
  /// False: it was one already.
  bool SetConflict(const zr::String& rival);
  /// `wish` is fulfilled.
  void Settle(PublishState state, std::uint64_t wish);
  void CountCreation();
  void CountUndone();
  void CountReplaced(zr::String writer);
  void SetError(int code);

 private:
  void SetState(PublishState state) ZR_REQUIRES(m_mtx);

  mutable zr::Mutex m_mtx;
  mutable zr::ConditionVariable m_changed;
  PublisherStatus m_status ZR_GUARDED_BY(m_mtx);
  std::uint64_t m_wished ZR_GUARDED_BY(m_mtx) = 0;   // number of the last wish
  std::uint64_t m_settled ZR_GUARDED_BY(m_mtx) = 0;  // number of the last wish that is confirmed
};

}  // namespace zr::halden::details
