// SPDX-License-Identifier: Apache-2.0
#pragma once

// Every public header of libSlot: slots, the factory, writers and readers, the named-pipe
// endpoint and the survey of a machine's slots. The companion libraries' headers come in where
// these use their types; <shared/shared.h> has all of libshared.
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
#include <Slot/PoolBlock.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolSurvey.h>
#include <Slot/PoolWriter.h>
#include <Slot/SimpleSlotRW.h>
#include <Slot/SlotActivity.h>
#include <Slot/SlotAttachments.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotLeftovers.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotReportJson.h>
#include <Slot/SlotSurvey.h>
#include <Slot/SlotText.h>
#include <Slot/SlotWriter.h>
#include <Slot/Version.h>
#include <Slot/WindowsPipe/WindowsPipeReader.h>
#include <Slot/WindowsPipe/WindowsPipeServerSlot.h>
#include <Slot/WriteOutcome.h>
