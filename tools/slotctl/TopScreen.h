// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "TopModel.h"

#include <functional>
#include <vector>

namespace slotctl {

// The full-screen view on the terminal of standard input and output (ncurses): a look through
// `look` every `interval` seconds, until `q` or a stop signal. Returns the exit status. Built
// only when ncurses was found (SLOTCTL_WITH_SCREEN).
int RunTopScreen(double interval, const std::function<std::vector<TopObservation>()>& look);

}  // namespace slotctl
