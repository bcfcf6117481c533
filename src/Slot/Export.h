// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>  // the file offsets checked for every library

#define SLOT_EXPORT __attribute__((visibility("default")))
