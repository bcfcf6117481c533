// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace slotctl {

// An age as ls's AGE column shows it (CmdList.cpp), for the other views of every slot.
std::string ListAgeText(double seconds);

}  // namespace slotctl
