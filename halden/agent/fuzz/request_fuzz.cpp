// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A request as anybody may send it: it is refused, or it is one that we would have asked for.
#include "agent/http/request.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "../../cpp/fuzz/expect.h"
#include "agent/http/limits.h"
#include "zrstl/utf8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace zr::halden::agent;
  using zr::halden::fuzz::Expect;
  namespace http = boost::beast::http;
  http::request_parser<http::empty_body> parser;
  parser.header_limit(kMostHeaderBytes);
  boost::system::error_code error;
  parser.put(boost::asio::buffer(bytes, size), error);
  if (error || !parser.is_header_done()) return 0;
  const auto read = ReadRequest(parser.get().base(), parser.keep_alive(), !parser.is_done(),
                                AllowedHosts(std::set<std::string>{"Agent"}));
  if (const auto* refused = std::get_if<Answer>(&read)) {
    Expect(refused->status >= 400 && refused->close, "what is refused ends the connection");
    return 0;
  }
  const auto& header = parser.get().base();
  Expect(header.count(http::field::host) == 1, "there is one host");
  Expect(header.count(http::field::transfer_encoding) == 0, "there is no body");
  const auto& request = std::get<Request>(read);
  for (const auto& part : request.target.path) Expect(zr::IsUtf8(part), "the path is text");
  for (const auto& [name, value] : request.target.query) {
    Expect(zr::IsUtf8(name) && zr::IsUtf8(value), "the query is text");
  }
  return 0;
}
