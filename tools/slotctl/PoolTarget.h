// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Cli.h"

#include <Slot/PoolFactory.h>
#include <Slot/PoolSurvey.h>

#include <set>
#include <string>

namespace slotctl {

// The flags that choose between a slot and a pool of the same name.
std::set<std::string> TargetFlags(std::set<std::string> more);

// Whether the slot `name` exists (its shared memory or its pipe).
bool SlotExists(const std::string& name);

// Whether `name` means a pool to `command`: --pool or a pool kind given with --type says so,
// --slot or a slot type says not; otherwise a name that is only a pool is a pool, and a name
// that is both a slot and a pool is a usage error that names --slot and --pool.
bool MeansPool(const Arguments& arguments, const std::string& command, const std::string& name);

// The configuration for the pool `name`: an existing pool's own (it keeps its sizes anyway),
// else --type (default "latest"), --max-size (default 65536) and --queue (the block count,
// default 16). Refuses, with one line, a pool file that is damaged or of another kind, and a
// missing pool whose name a slot has.
Slot::PoolConfig ResolvePool(const Arguments& arguments, const std::string& command,
                             const std::string& name);

// Refuse to make the pool `name` where only a slot of that name exists (CheckPoolTarget), and
// the slot `name` where only a pool exists (CheckSlotTarget): the name would then be both.
void CheckPoolTarget(const std::string& command, const std::string& name);
void CheckSlotTarget(const std::string& command, const std::string& name);

// "pid 4711" or "dead pid 4711", for the pids `report` names.
std::string PidText(const Slot::PoolReport& report, pid_t pid);

}  // namespace slotctl
