// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <sys/types.h>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Slot {

/// What a pool holds, read without taking, changing or waiting for anything: a snapshot of
/// words that other processes change meanwhile, so the counts need not add up exactly.
struct PoolReport {
    std::string name;
    bool exists = false;  ///< the pool's file exists
    std::string state;    ///< "healthy", "damaged" or "missing"
    std::string problem;  ///< why it is damaged (empty otherwise)
    /// The pools' folder was refused (another user's): the pool is reported damaged, as no
    /// process here can use or remove it, although its file may be sound.
    bool folderRefused = false;
    std::string kind;  ///< "latest" or "queue"
    std::size_t maxBlockSize = 0;
    std::size_t blockCount = 0;
    std::uint64_t fileSize = 0;
    std::size_t freeBlocks = 0;
    std::size_t loanedBlocks = 0;     ///< loaned to a writer, not published yet
    std::size_t waitingBlocks = 0;    ///< published and not yet read (queue), or the latest block
    std::size_t heldBlocks = 0;       ///< held by at least one reader
    std::uint64_t lastSequence = 0;   ///< the sequence of the last publish (0: none yet)
    std::uint64_t lastPublishNs = 0;  ///< when it was published (ns UTC; 0: none or unknown)
    std::vector<pid_t> attached;      ///< processes attached as writers or readers, one per role
    std::vector<pid_t> holders;       ///< processes holding or having loaned a block
    pid_t queueReader = 0;            ///< the queue's reader (0: none)
    /// Those of `attached` that died, judged as a reaper judges them (their blocks return at
    /// the next reaping). A zombie whose other threads run on lives.
    std::vector<pid_t> dead;
    /// Processes of other pid namespaces (containers sharing /dev/shm): their pids mean nothing
    /// here, so they are counted, not listed in `attached`, `holders` or `queueReader`. The
    /// attached ones, alive or dead; those of them holding or having loaned a block; those that
    /// died (their blocks return at the next reaping).
    std::size_t otherNamespaceAttached = 0;
    std::size_t otherNamespaceHolders = 0;
    std::size_t otherNamespaceDead = 0;
    bool queueReaderInOtherNamespace = false;  ///< the queue's reader is one of them

    /// Whether `pid`, one of the pids above, lives.
    bool Alive(pid_t pid) const { return std::find(dead.begin(), dead.end(), pid) == dead.end(); }
};

/// The state of the pool `name`. Never throws for what it finds: a missing file gives state
/// "missing", a file that fails the checks (size, magic, geometry, words out of range) gives
/// "damaged" with the reason, and so does a file in a pools' folder that is refused (made by
/// another user: "Unsafe folder ...").
SLOT_EXPORT PoolReport SurveyPool(const std::string& name);

/// The names of the pools of this machine (the files of PoolDirectory(), without the
/// temporaries of creations in progress), sorted, also when the folder is refused. Empty when
/// the folder does not exist.
SLOT_EXPORT std::vector<std::string> ListPools();

}  // namespace Slot
