// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "zrstl/string.h"

/// What a session authenticates with. No error repeats anything of a credential. Any thread.
namespace zr::halden::details {

struct Credential {
  zr::String scheme;  ///< empty: none
  zr::String secret;

  bool operator==(const Credential&) const = default;
};

struct ReadCredential {
  Credential value;  ///< empty when `error` is not
  zr::String error;  ///< empty, or "file: what is wrong" or "file:line:column: what is wrong"
};

/// "scheme:secret"; without a scheme where it is not of that form.
Credential SplitCredential(std::string_view text);

/// The one line "scheme:secret" of a file that others than its owner and its group may neither read nor write.
ReadCredential ReadCredentialFile(const zr::String& path);

}  // namespace zr::halden::details
