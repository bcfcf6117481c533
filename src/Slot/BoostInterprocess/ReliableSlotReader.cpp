// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/ReliableSlotReader.h>

#include <Slot/AbortSlotCreationException.h>

#include <FileUtils/FSUtils.h>
#include <shared/AtForkMutex.h>

#include <map>

std::map<std::string, boost::shared_ptr<boost::mutex> > ReliableSlotReader::SingletonMutexes;

namespace {

// The per-name mutex of SingletonMutexes together with the name's claim. A reader holds the
// claim, not the mutex, for its life (a mutex must be unlocked by the thread that locked it, and
// a reader may be destroyed on another thread than the one that made it).
struct NameMutex : boost::mutex {
    bool claimed = false;  // guarded by RegistryLock
};

void NoInit() {}

// A forked child has no reader of its own yet: the parent's claims are not the child's. Only
// flags are written (the entries are never erased).
void ForgetClaimsInChild() {
    for (auto& entry : ReliableSlotReader::SingletonMutexes) {
        static_cast<NameMutex&>(*entry.second).claimed = false;
    }
}

// Guards SingletonMutexes and every claim, held only while an entry is found or made, or a flag
// is tested and set or cleared. fork() takes it around itself, so a child never finds it held by
// a thread it does not have.
using RegistryLock = shared::AtForkMutex<NoInit, ForgetClaimsInChild>::Lock;

bool ClaimName(boost::mutex& mutex) {
    RegistryLock lock;
    NameMutex& name = static_cast<NameMutex&>(mutex);
    if (name.claimed) {
        return false;
    }
    name.claimed = true;
    return true;
}

void ReleaseName(boost::mutex& mutex) {
    RegistryLock lock;
    static_cast<NameMutex&>(mutex).claimed = false;
}

}  // namespace

ReliableSlotReader::ReliableSlotReader(boost::shared_ptr<ISlot> slot,
                                       const boost::posix_time::time_duration& updateTime)
    : BaseSlotReader(slot, updateTime) {
    singletonMutex_ = FindOrCreateSingletonMutex(name_);
    // Neither attempt waits for a reader: a second reader is refused, never queued. The claim
    // of the lock file waits only for a removal of the file (slotctl rm) to end.
    if (fileLock_.Claim(FileUtils::FSUtils::GetSingletonFileLockName(name_)) !=
            shared::FileLock::ClaimOutcome::Claimed ||
        !ClaimName(*singletonMutex_)) {
        throw AbortSlotCreationException("Cannot create non-unique reader for reliable slot '" +
                                         name_ + "'");
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
    if (Inherited()) {
        return;  // the lock and the claim are the parent's
    }
    fileLock_.unlock();
    ReleaseName(*singletonMutex_);
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~ReliableSlotReader() unlocked, '" << slot_->GetName() << "'");
    }
}

boost::shared_ptr<boost::mutex> ReliableSlotReader::FindOrCreateSingletonMutex(
    const std::string& name) {
    RegistryLock lock;
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
