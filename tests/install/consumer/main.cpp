// SPDX-License-Identifier: Apache-2.0
// Uses the installed headers and libraries; the headers and the loaded library must agree.
#include <Slot/Slot.h>
#include <shared/shared.h>

#include <cstring>
#include <iostream>

int main() {
    const bool types =
        SlotFactory::SlotTypeIsValid("reliable") && !SlotFactory::SlotTypeIsValid("win-pipe");
    const bool version = std::strcmp(Slot::Version(), SLOT_VERSION_STRING) == 0 &&
                         Slot::VersionNumber() == SLOT_VERSION;
    const bool outcomes = Slot::LastWriteOutcome() == Slot::WriteOutcome::None &&
                          Slot::GetWriteCounts("never written").Total() == 0;
    const bool ok = types && version && outcomes;
    std::cout << (ok ? "consumer ok, libSlot " : "consumer FAILED, libSlot ") << Slot::Version()
              << std::endl;
    return ok ? 0 : 1;
}
