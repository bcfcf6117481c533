// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/ReliableSlotReader.h>

#include <Slot/AbortSlotCreationException.h>

#include <FileUtils/FSUtils.h>
#include <shared/FileHelpers.h>

std::map<std::string, boost::shared_ptr<boost::mutex> > ReliableSlotReader::SingletonMutexes;
boost::mutex ReliableSlotReader::SingletonMutexesGuard;

namespace {

// The per-name mutex of SingletonMutexes together with the claim it guards. A reader holds the
// claim, not the mutex, for its life: a mutex must be unlocked by the thread that locked it.
struct NameMutex : boost::mutex {
    bool claimed = false;  // guarded by the mutex itself
};

bool ClaimName(boost::mutex& mutex) {
    NameMutex& name = static_cast<NameMutex&>(mutex);
    boost::lock_guard<boost::mutex> guard(name);
    if (name.claimed) {
        return false;
    }
    name.claimed = true;
    return true;
}

void ReleaseName(boost::mutex& mutex) {
    NameMutex& name = static_cast<NameMutex&>(mutex);
    boost::lock_guard<boost::mutex> guard(name);
    name.claimed = false;
}

}  // namespace

ReliableSlotReader::ReliableSlotReader(boost::shared_ptr<ISlot> slot,
                                       const boost::posix_time::time_duration& updateTime)
    : BaseSlotReader(slot, updateTime) {
    const std::string name = slot_->GetName();
    singletonMutex_ = FindOrCreateSingletonMutex(name);
    const std::string path = shared::TouchFile(FileUtils::FSUtils::GetSingletonFileLockName(name));
    fileLock_ = shared::FileLock(path.c_str());
    // Neither attempt waits: a second reader is refused, never queued.
    if (!fileLock_.try_lock() || !ClaimName(*singletonMutex_)) {
        throw AbortSlotCreationException("Cannot create non-unique reader for reliable slot '" +
                                         name + "'");
    }
}

ReliableSlotReader::~ReliableSlotReader() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~ReliableSlotReader(), '" << slot_->GetName() << "'");
    }
    if (StopThread()) {
        if (logger_->isDebugEnabled()) {
            LOG4CXX_DEBUG(logger_, "~ReliableSlotReader() joined, '" << slot_->GetName() << "'");
        }
    }
    fileLock_.unlock();
    ReleaseName(*singletonMutex_);
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~ReliableSlotReader() unlocked, '" << slot_->GetName() << "'");
    }
}

boost::shared_ptr<boost::mutex> ReliableSlotReader::FindOrCreateSingletonMutex(
    const std::string& name) {
    boost::mutex::scoped_lock guard(SingletonMutexesGuard);
    boost::shared_ptr<boost::mutex>& entry = SingletonMutexes[name];
    if (!entry) {
        entry.reset(new NameMutex);
    }
    return entry;
}

bool ReliableSlotReader::DataInSlotIsActual() {
    return true;
}

shared::SizedArray ReliableSlotReader::ReadAndNotify() {
    // The count is taken without the slot's lock: this reader is the slot's only consumer, so a
    // counted block is still there when it is read. Blocks added meanwhile are drained too, with
    // or without subscribers: a host that must not miss the blocks waiting at the start
    // subscribes before the thread runs (SlotFactory::CreateSlotReader with a first subscriber).
    // A reader released by a subscriber takes nothing more: the rest stays for the next reader.
    shared::SizedArray result;
    while (!Released() && slot_->GetBufferLength() != 0) {
        result = BaseSlotReader::ReadAndNotify();
    }
    return result;
}
