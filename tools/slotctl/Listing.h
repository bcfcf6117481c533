// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Json.h"

#include <Slot/SlotSurvey.h>

#include <string>

namespace slotctl {

// What ls shows of a slot, for the other views of every slot (CmdList.cpp): the STATE and KIND
// words (KIND empty when unknown), an age as the AGE column gives it, and the --json fields.
std::string ListStateWord(const SlotReport& report);
std::string ListKindWord(const SlotReport& report);
std::string ListAgeText(double seconds);
void AddListFields(Json& json, const SlotReport& report);

}  // namespace slotctl
