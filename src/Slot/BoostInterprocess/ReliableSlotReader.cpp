// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/ReliableSlotReader.h>

#include <Slot/AbortSlotCreationException.h>

#include <FileUtils/FSUtils.h>
#include <shared/AtForkMutex.h>
#include <shared/FileHelpers.h>

#include <map>

namespace {

// Slot names this process's readers have claimed (true) or had claimed (false). Entries are
// never erased, so the fork handler below only writes flags; never freed: usable during static
// teardown.
std::map<std::string, bool>* Claims = nullptr;

void InitClaims() {
    Claims = new std::map<std::string, bool>;
}

// A forked child has no reader of its own yet: the parent's claims are not the child's.
void ForgetClaimsInChild() {
    for (std::pair<const std::string, bool>& claim : *Claims) {
        claim.second = false;
    }
}

// Held only while a flag is tested and set or cleared: the constructor and the destructor of a
// reader may run on different threads. fork() takes it around itself, so a child never finds it
// held by a thread it does not have.
using ClaimsLock = shared::AtForkMutex<InitClaims, ForgetClaimsInChild>::Lock;

bool ClaimName(const std::string& name) {
    ClaimsLock lock;
    bool& claimed = (*Claims)[name];
    if (claimed) {
        return false;
    }
    claimed = true;
    return true;
}

void ReleaseName(const std::string& name) {
    ClaimsLock lock;
    (*Claims)[name] = false;
}

}  // namespace

ReliableSlotReader::ReliableSlotReader(boost::shared_ptr<ISlot> slot,
                                       const boost::posix_time::time_duration& updateTime)
    : BaseSlotReader(slot, updateTime) {
    const std::string path = shared::TouchFile(FileUtils::FSUtils::GetSingletonFileLockName(name_));
    fileLock_ = shared::FileLock(path.c_str());
    // Neither attempt waits: a second reader is refused, never queued.
    if (!fileLock_.try_lock() || !ClaimName(name_)) {
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
    ReleaseName(name_);
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~ReliableSlotReader() unlocked, '" << slot_->GetName() << "'");
    }
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
