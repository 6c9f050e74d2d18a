// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "client/request.h"

namespace zr::halden::details {

/// How much one handle's watches would take in the packet that sets them again after a reconnect. Servers
/// refuse one past 1 MiB, and the client would send it for ever.
/// Watches are known by 32 bits of their hashes, since there is one for each instance: of 100,000 some may
/// pass for one.
class WatchBudget {
 public:
  /// Past it a connection gives up its watches when it is lost, and reads everything anew.
  static constexpr std::size_t kLimit = 900'000;

  /// What one watch takes of it.
  static std::size_t BytesOf(std::string_view path) { return path.size() + sizeof(std::int32_t); }

  bool Exceeded() const { return m_bytes > kLimit; }
  std::size_t Count() const { return m_count; }

  /// A read with a watch was answered.
  void Count(const Request& request, const std::string& path, int code);
  /// The event of a watch has come, which is used up with it.
  void Uncount(int eventType, const std::string& path);

 private:
  enum class Kind : char { Data = 'd', Children = 'c', Exists = 'e' };

  static std::uint32_t Mark(Kind kind, const std::string& path);
  void Uncount(Kind kind, const std::string& path);
  bool Insert(std::uint32_t mark);
  bool Erase(std::uint32_t mark);
  std::size_t Find(std::uint32_t mark) const;
  void Grow();

  std::vector<std::uint32_t> m_marks;  // open addressing, at most three quarters full; 0: free
  std::size_t m_count = 0;
  std::size_t m_bytes = 0;
};

}  // namespace zr::halden::details
