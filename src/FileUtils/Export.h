// SPDX-License-Identifier: Apache-2.0
#pragma once

// Symbols of libFileUtils are hidden unless marked with this macro.
#define FILEUTILS_EXPORT __attribute__((visibility("default")))
