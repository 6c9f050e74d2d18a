// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>
#include <string_view>

namespace zr::halden::agent {

/// A file of the page, as it is served.
struct PageFile {
  std::string_view path;  ///< "/", "/page.css", ...
  std::string_view contentType;
  std::string_view content;
};

/// All of them, in the program itself. They load nothing from elsewhere, have no script or style inline, and need no
/// more than the Content-Security-Policy "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self';
/// img-src data:".
std::span<const PageFile> PageFiles();

}  // namespace zr::halden::agent
