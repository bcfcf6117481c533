// SPDX-License-Identifier: Apache-2.0
#include <Slot/Version.h>

namespace Slot {

// Compiled into the library, so a program sees the version it runs with, not the one whose
// header it was built with.
const char* Version() {
    return SLOT_VERSION_STRING;
}

int VersionNumber() {
    return SLOT_VERSION;
}

}  // namespace Slot
