// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/BoostInterprocess/BaseSlotReader.h>

#include <shared/FileLock.h>

#include <boost/thread/mutex.hpp>

#include <map>
#include <string>

// Reader of a "reliable" slot: every block is delivered, each wake-up drains the queue (also
// while nobody is subscribed: such blocks reach nobody), and a slot has at most one reader on
// the whole machine.
//
// One reader per machine: the reader holds, for its whole life, a lock on the slot's singleton
// lock file (excludes readers in other processes) and the claim of the slot's name in this process
// (excludes a second reader in this process). Both are taken without waiting for a reader, the
// file lock first; the file lock waits, briefly and bounded, only for a removal of the lock file
// (SlotLeftovers::RemoveReaderLockFile) that is under way. The file lock is a classic fcntl record
// lock (shared::FileLock): it ends with the process that holds it, a forked child never has it,
// and the process keeps one descriptor per lock file, so a refused second reader does not release
// the first one's lock.
//
// The name's claim is an entry, keyed by the name's mutex (FindOrCreateSingletonMutex), in a set
// of this process's claims kept apart from the mutex, so a mutex that a host put in the map serves
// as well. The map and the claims are guarded by one process-wide lock that fork() takes around
// itself, held only while an entry is found or a claim is made or ended, so the constructor and
// the destructor may run on different threads. A forked child starts with no claim: once the
// parent's reader is gone, the child may become the slot's reader. The child's copy of the
// parent's reader releases nothing.
class SLOT_EXPORT ReliableSlotReader : public BaseSlotReader {
public:
    // Throws AbortSlotCreationException when the slot already has a reader.
    ReliableSlotReader(boost::shared_ptr<ISlot> slot,
                       const boost::posix_time::time_duration& updateTime);
    ~ReliableSlotReader() override;

    boost::shared_ptr<boost::mutex> FindOrCreateSingletonMutex(const std::string& name);

    bool DataInSlotIsActual() override;
    // Drains the queue, one block per lock of the slot; a stop request ends the drain before the
    // next block (boost::thread_interrupted), leaving the rest queued.
    shared::SizedArray ReadAndNotify() override;

    // One mutex per slot name for the whole process; entries are never removed, so the next
    // reader of the same slot reuses the mutex (and the claim keyed by it).
    static std::map<std::string, boost::shared_ptr<boost::mutex> > SingletonMutexes;

private:
    boost::shared_ptr<boost::mutex> singletonMutex_;  // the name's; keys its claim
    shared::FileLock fileLock_;                       // locked for the reader's lifetime
};
