// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "publish/path_claims.h"

#include <algorithm>
#include <utility>

namespace zr::halden::details {

PathClaims::Result PathClaims::Claim(const zr::String& path, const Owner& owner, TaskThread::Task released) {
  ForgetDead();
  auto& claim = m_claims[path];
  const auto present = claim.owner.lock();
  if (present == owner) return Result::Granted;
  if (!present) {
    claim.owner = owner;
    claim.ending = false;
    return Result::Granted;
  }
  const auto waits = [&](const Waiting& one) { return one.who.lock() == owner; };
  if (std::none_of(claim.waiting.begin(), claim.waiting.end(), waits)) {
    claim.waiting.push_back({owner, std::move(released)});
  }
  return claim.ending ? Result::AboutToBeReleased : Result::Taken;
}

/// Owners that went without a word, with their connection. Now and then.
void PathClaims::ForgetDead() {
  if (m_claims.size() < 2 * m_living + 16) return;
  std::erase_if(m_claims, [](const auto& claim) { return claim.second.owner.expired(); });
  m_living = m_claims.size();
}

void PathClaims::AnnounceRelease(const zr::String& path, const Owner& owner) {
  const auto claim = m_claims.find(path);
  if (claim != m_claims.end() && claim->second.owner.lock() == owner) claim->second.ending = true;
}

std::vector<TaskThread::Task> PathClaims::Release(const zr::String& path, const Owner& owner) {
  const auto claim = m_claims.find(path);
  if (claim == m_claims.end() || claim->second.owner.lock() != owner) return {};
  std::vector<TaskThread::Task> released;
  for (auto& one : claim->second.waiting) released.push_back(std::move(one.released));
  m_claims.erase(claim);
  return released;
}

}  // namespace zr::halden::details
