// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#if __cplusplus < 202002L
#error "halden needs C++20: compile with -std=c++20"
#endif

/// Marks what the shared library shows; everything else in it is hidden.
#define ZR_EXPORT __attribute__((visibility("default")))
