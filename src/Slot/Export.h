// SPDX-License-Identifier: Apache-2.0
#pragma once

#define SLOT_EXPORT __attribute__((visibility("default")))
