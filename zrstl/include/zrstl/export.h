// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

/// Marks what the shared library shows; everything else in it is hidden.
#define ZR_EXPORT __attribute__((visibility("default")))
