// SPDX-License-Identifier: Apache-2.0
#pragma once

// The whole public API of libSlot.
#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/BoostInterprocess/BaseSlotReader.h>
#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/DiscardingSlotReader.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/ConfigurationTags.h>
#include <Slot/Export.h>
#include <Slot/IFileOutputCfg.h>
#include <Slot/ISlot.h>
#include <Slot/ISlotConfiguration.h>
#include <Slot/SimpleSlotRW.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotWriter.h>
#include <Slot/Version.h>
#include <Slot/WindowsPipe/WindowsPipeReader.h>
#include <Slot/WindowsPipe/WindowsPipeServerSlot.h>
#include <Slot/WriteOutcome.h>
