// SPDX-License-Identifier: Apache-2.0
#include <Slot/AbortSlotCreationException.h>

// Out of line so that the exception's type information has one home, in libSlot.
AbortSlotCreationException::~AbortSlotCreationException() {}
