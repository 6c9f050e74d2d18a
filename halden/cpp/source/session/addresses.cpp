// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/addresses.h"

#include <system_error>
#include <utility>

#include "base/log_sources.h"

namespace zr::halden::details {

Addresses::Addresses(std::vector<HostPort> hosts, PostFunction post)
    : m_hosts(std::move(hosts)), m_areNames(HasNames(m_hosts)), m_post(std::move(post)) {}

void Addresses::Resolve(DoneFunction done) {
  const auto take = [state = m_state, done = std::move(done)](const ResolvedHosts& resolved) {
    state->resolving = false;
    if (!resolved.addresses.empty() && resolved.addresses != state->text) {
      if (!state->text.empty()) {
        ZRLOG(ZRLOG_INFO, ConnectionLog())
            << "the ensemble's addresses have changed, addresses=" << resolved.addresses;
      }
      state->text = resolved.addresses;
    }
    done(resolved.addresses.empty() ? resolved.error : zr::String());
  };
  if (!m_areNames) return take(details::Resolve(m_hosts));
  if (std::exchange(m_state->resolving, true)) return;
  try {
    TaskThread resolver("halden-resolve");  // ends by itself when it has answered
    resolver.Post([hosts = m_hosts, post = m_post, take] {
      post(Clock::duration::zero(), [take, resolved = details::Resolve(hosts)] { take(resolved); });
    });
  } catch (const std::system_error& e) {  // no thread to be had
    take({{}, e.what()});
  }
}

}  // namespace zr::halden::details
