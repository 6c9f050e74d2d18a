// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/answer.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <boost/beast/http/status.hpp>
#include <ctime>

#include "render/json.h"

namespace zr::halden::agent {

namespace {

// The page loads its own files and asks its own agent, and nothing else; nobody frames it.
constexpr std::string_view kSafety =
    "X-Content-Type-Options: nosniff\r\n"
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n"
    "Referrer-Policy: no-referrer\r\n";

std::string_view Reason(unsigned status) {
  const auto reason = boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status));
  return {reason.data(), reason.size()};
}

std::string Begin(unsigned status) {
  return fmt::format("HTTP/1.1 {} {}\r\nServer: halden\r\nDate: {:%a, %d %b %Y %H:%M:%S} GMT\r\n{}", status,
                     Reason(status), fmt::gmtime(std::time(nullptr)), kSafety);
}

}  // namespace

Answer TextAnswer(std::string_view contentType, std::string body) {
  Answer answer;
  answer.contentType = contentType;
  answer.body = std::make_shared<const std::string>(std::move(body));
  return answer;
}

Answer JsonAnswer(std::string body) {
  return TextAnswer("application/json", std::move(body));
}

Answer Problem(unsigned status, std::string_view detail) {
  Answer answer = TextAnswer("application/problem+json",
                             fmt::format(R"({{"type":"about:blank","title":{},"status":{},"detail":{}}})",
                                         tool::JsonText(Reason(status)), status, tool::JsonText(detail)));
  answer.status = status;
  return answer;
}

Answer TryLater(std::string_view detail) {
  Answer answer = Problem(503, detail);
  answer.headers = "Retry-After: 5\r\n";
  return answer;
}

std::string HeaderText(const Answer& answer, bool keepAlive) {
  std::string text = Begin(answer.status);
  if (answer.body) {
    text +=
        fmt::format("Content-Type: {}\r\nContent-Length: {}\r\n", answer.contentType, answer.body->size());
  }
  if (answer.headers.find("Cache-Control:") == std::string::npos) text += "Cache-Control: no-store\r\n";
  text += answer.headers;
  text += keepAlive ? "\r\n" : "Connection: close\r\n\r\n";
  return text;
}

std::string StreamHeaderText() {
  return Begin(200) +
         "Content-Type: text/event-stream\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
}

}  // namespace zr::halden::agent
