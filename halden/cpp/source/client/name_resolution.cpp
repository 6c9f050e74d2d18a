// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/name_resolution.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <set>
#include <string>

namespace zr::halden::details {

namespace {

void ResolveOne(const HostPort& host, std::set<zr::String>& addresses, zr::String& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int code = getaddrinfo(host.host.c_str(), nullptr, &hints, &list);
  if (code != 0) {
    if (!error.empty()) error += "; ";
    error += host.host + ": " + gai_strerror(code);
    return;
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    std::array<char, NI_MAXHOST> text{};
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text.data(), text.size(), nullptr, 0,
                    NI_NUMERICHOST) == 0) {
      // No brackets around IPv6: the client takes everything before the last colon as the address.
      addresses.insert(zr::String(text.data()) + ":" + std::to_string(host.port));
    }
  }
}

bool IsAddress(const HostPort& host) {
  std::array<unsigned char, sizeof(in6_addr)> address{};
  return inet_pton(AF_INET, host.host.c_str(), address.data()) == 1 ||
         inet_pton(AF_INET6, host.host.c_str(), address.data()) == 1;
}

}  // namespace

bool HasNames(const std::vector<HostPort>& hosts) {
  return !std::all_of(hosts.begin(), hosts.end(), IsAddress);
}

ResolvedHosts Resolve(const std::vector<HostPort>& hosts) {
  ResolvedHosts result;
  std::set<zr::String> addresses;
  for (const auto& host : hosts) ResolveOne(host, addresses, result.error);
  for (const auto& address : addresses) {
    if (!result.addresses.empty()) result.addresses += ',';
    result.addresses += address;
  }
  return result;
}

}  // namespace zr::halden::details
