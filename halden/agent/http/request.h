// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "agent/http/answer.h"

/// What a request asks for, read strictly. Pure; any bytes are taken.
namespace zr::halden::agent {

using RequestHeader = boost::beast::http::request_header<>;

/// Which names the agent may be asked under. A page of another site can make a browser ask us under a name that it
/// controls, and read the answer; it cannot choose one of these.
class AllowedHosts {
 public:
  AllowedHosts() = default;
  explicit AllowedHosts(const std::set<std::string>& names);

  /// `host`: a Host header, with or without a port.
  bool Allow(std::string_view host) const;

 private:
  std::set<std::string> m_names;  // in lower case, addresses of IPv6 in brackets
};

struct Target {
  std::vector<std::string> path;  ///< "/v1/services" is {"v1", "services"}, "/" is empty
  std::vector<std::pair<std::string, std::string>> query;  ///< in the order given

  /// The first parameter of that name.
  const std::string* Find(std::string_view name) const;
};

struct Request {
  Target target;
  bool isHead = false;
  bool keepAlive = true;
  std::string ifNoneMatch;
  std::string lastEventId;
};

/// Null where it is no path that we could have.
std::optional<Target> ParseTarget(std::string_view text);

/// The request, or why it is refused.
std::variant<Request, Answer> ReadRequest(const RequestHeader& header, bool keepAlive, bool hasBody,
                                          const AllowedHosts& hosts);

}  // namespace zr::halden::agent
