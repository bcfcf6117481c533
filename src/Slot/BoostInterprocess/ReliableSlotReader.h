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
// lock file (excludes readers in other processes) and the process's mutex for the slot's name
// (excludes a second reader in this process). The file lock is an open-file-description lock
// (shared::FileLock): a classic fcntl lock would be dropped for the whole process when the
// refused second reader closes its own descriptor of the same file.
class SLOT_EXPORT ReliableSlotReader : public BaseSlotReader {
public:
    // Throws AbortSlotCreationException when the slot already has a reader.
    ReliableSlotReader(boost::shared_ptr<ISlot> slot,
                       const boost::posix_time::time_duration& updateTime);
    ~ReliableSlotReader() override;

    boost::shared_ptr<boost::mutex> FindOrCreateSingletonMutex(const std::string& name);

    bool DataInSlotIsActual() override;
    shared::SizedArray ReadAndNotify() override;

private:
    boost::shared_ptr<boost::mutex> singletonMutex_;  // locked for the reader's lifetime
    shared::FileLock fileLock_;                       // locked for the reader's lifetime

    // One mutex per slot name for the whole process; entries are never removed, so the next
    // reader of the same slot reuses the mutex. Guarded by SingletonMutexesGuard.
    static std::map<std::string, boost::shared_ptr<boost::mutex> > SingletonMutexes;
    static boost::mutex SingletonMutexesGuard;
};
