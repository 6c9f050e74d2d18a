// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/request.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/verb.hpp>

#include "zrstl/utf8.h"

namespace zr::halden::agent {

namespace http = boost::beast::http;

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsText(std::string_view text) {
  while (!text.empty()) {
    const auto point = TakeCodePoint(text);
    if (!point || IsControl(*point)) return false;
  }
  return true;
}

/// Null for a broken escape, and for what is no text.
std::optional<std::string> Decoded(std::string_view text, bool plusIsBlank) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+' && plusIsBlank) {
      decoded += ' ';
    } else if (text[i] != '%') {
      decoded += text[i];
    } else {
      if (text.size() - i < 3) return std::nullopt;
      const int high = HexDigit(text[i + 1]);
      const int low = HexDigit(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    }
  }
  if (!IsText(decoded)) return std::nullopt;
  return decoded;
}

/// Calls `take` with each part; false as soon as that returns false.
template <typename Take>
bool Split(std::string_view text, char separator, Take&& take) {
  while (true) {
    const auto end = text.find(separator);
    if (!take(text.substr(0, end))) return false;
    if (end == std::string_view::npos) return true;
    text.remove_prefix(end + 1);
  }
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

bool IsLoopback(std::string_view name) {
  if (name.starts_with('[') && name.ends_with(']')) name = name.substr(1, name.size() - 2);
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(name, error);
  return name == "localhost" || (!error && address.is_loopback());
}

Answer Refusal(unsigned status, std::string_view detail) {
  Answer answer = Problem(status, detail);
  answer.close = true;  // what follows may be anything
  return answer;
}

std::string Text(boost::beast::string_view value) {
  return {value.data(), value.size()};
}

}  // namespace

AllowedHosts::AllowedHosts(const std::set<std::string>& names) {
  for (const auto& name : names) m_names.insert(LowerCase(name));
}

bool AllowedHosts::Allow(std::string_view host) const {
  const auto colon = host.rfind(':');
  const bool hasPort = colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos;
  if (hasPort) {
    const auto port = host.substr(colon + 1);
    if (!std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; })) return false;
    host = host.substr(0, colon);
  }
  const std::string name = LowerCase(host);
  return IsLoopback(name) || m_names.contains(name);
}

const std::string* Target::Find(std::string_view name) const {
  const auto found = std::find_if(query.begin(), query.end(),
                                  [name](const auto& parameter) { return parameter.first == name; });
  return found == query.end() ? nullptr : &found->second;
}

std::optional<Target> ParseTarget(std::string_view text) {
  if (!text.starts_with('/')) return std::nullopt;
  const auto question = text.find('?');
  const auto path = text.substr(1, question == std::string_view::npos ? question : question - 1);
  Target target;
  const bool hasPath = path.empty() || Split(path, '/', [&target](std::string_view part) {
                         auto decoded = Decoded(part, false);
                         if (decoded) target.path.push_back(std::move(*decoded));
                         return decoded.has_value();
                       });
  if (!hasPath) return std::nullopt;
  if (question == std::string_view::npos || question + 1 == text.size()) return target;
  const bool hasQuery = Split(text.substr(question + 1), '&', [&target](std::string_view part) {
    const auto equals = part.find('=');
    auto name = Decoded(part.substr(0, equals), true);
    auto value = Decoded(equals == std::string_view::npos ? "" : part.substr(equals + 1), true);
    if (!name || !value) return false;
    target.query.emplace_back(std::move(*name), std::move(*value));
    return true;
  });
  if (!hasQuery) return std::nullopt;
  return target;
}

std::variant<Request, Answer> ReadRequest(const RequestHeader& header, bool keepAlive, bool hasBody,
                                          const AllowedHosts& hosts) {
  if (header.count(http::field::host) != 1) return Refusal(400, "Send exactly one Host header.");
  if (!hosts.Allow(Text(header[http::field::host]))) {
    return Refusal(
        403, "Ask for localhost or a loopback address, or start the agent with --allow-host for this name.");
  }
  if (header.method() != http::verb::get && header.method() != http::verb::head) {
    Answer answer = Refusal(405, "Use GET or HEAD: nothing can be changed here.");
    answer.headers = "Allow: GET, HEAD\r\n";
    return answer;
  }
  if (hasBody || header.count(http::field::transfer_encoding) != 0) {
    return Refusal(400, "Send no body: what is asked for stands in the path and the query.");
  }
  const auto text = header.target();
  auto target = ParseTarget({text.data(), text.size()});
  if (!target) {
    return Refusal(400,
                   "Begin the target with '/', and write what is no plain text percent-encoded, in UTF-8.");
  }
  Request request;
  request.target = std::move(*target);
  request.isHead = header.method() == http::verb::head;
  request.keepAlive = keepAlive;
  request.ifNoneMatch = Text(header[http::field::if_none_match]);
  request.lastEventId = Text(header["Last-Event-ID"]);
  return request;
}

}  // namespace zr::halden::agent
