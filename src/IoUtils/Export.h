// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>  // the file offsets checked for every library

// Symbols of libIoUtils are hidden unless marked with this macro.
#define IOUTILS_EXPORT __attribute__((visibility("default")))
