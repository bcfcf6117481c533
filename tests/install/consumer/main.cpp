// SPDX-License-Identifier: Apache-2.0
#include <Slot/Slot.h>
#include <shared/shared.h>

#include <iostream>

int main() {
    const bool ok =
        SlotFactory::SlotTypeIsValid("reliable") && !SlotFactory::SlotTypeIsValid("win-pipe");
    std::cout << (ok ? "consumer ok" : "consumer FAILED") << std::endl;
    return ok ? 0 : 1;
}
