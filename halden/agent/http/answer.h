// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>

/// What the agent answers, and how that reads on the wire. Pure.
namespace zr::halden::agent {

struct Answer {
  unsigned status = 200;
  std::string_view contentType = "application/json";
  std::shared_ptr<const std::string> body;  ///< null: none
  std::string headers;                      ///< more of them, each with its line end
  bool close = false;                       ///< the connection cannot go on after it
};

Answer TextAnswer(std::string_view contentType, std::string body);
Answer JsonAnswer(std::string body);
/// `detail`: a sentence that says what to do.
Answer Problem(unsigned status, std::string_view detail);
Answer TryLater(std::string_view detail);  ///< 503 with Retry-After

/// The status line and all headers. A stream has no length: it ends with its connection.
std::string HeaderText(const Answer& answer, bool keepAlive);
std::string StreamHeaderText();

}  // namespace zr::halden::agent
