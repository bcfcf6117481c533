// SPDX-License-Identifier: Apache-2.0
#pragma once

// Symbols of the project's shared libraries are hidden unless marked with this macro.
#define SHARED_EXPORT __attribute__((visibility("default")))
