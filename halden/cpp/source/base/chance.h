// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zr::halden::details {

/// A number from [0, 1), by chance: for what many processes must not do at the same moment. Not inline: programs
/// that simulate link another. Any thread.
double Chance();

}  // namespace zr::halden::details
