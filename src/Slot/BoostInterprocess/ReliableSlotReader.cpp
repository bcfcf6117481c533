// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/ReliableSlotReader.h>

#include <Slot/AbortSlotCreationException.h>
#include <Slot/SlotNames.h>

#include <FileUtils/FSUtils.h>
#include <shared/AtForkMutex.h>

#include <sys/stat.h>
#include <map>
#include <set>

std::map<std::string, boost::shared_ptr<boost::mutex> > ReliableSlotReader::SingletonMutexes;

namespace {

// The names that a reader of this process claims, each by its mutex in SingletonMutexes (which
// the reader keeps alive). A reader holds the claim, not the mutex, for its life: a mutex must be
// unlocked by the thread that locked it, and a reader may be destroyed on another thread than
// the one that made it. The claims are kept apart from the mutexes, which may be a host's own
// (the map is public).
struct Claims {
    std::set<const boost::mutex*>* names;  // never freed: usable during static teardown
    bool inherited;                        // set in a forked child: `names` are the parent's
};

Claims claims = {nullptr, false};

void InitClaims() {
    claims.names = new std::set<const boost::mutex*>;
}

// A forked child has no reader of its own yet: the parent's claims are not the child's. The
// child may not free memory here, so only a flag is set; the next use empties the set.
void ForgetClaimsInChild() {
    claims.inherited = true;
}

// Guards SingletonMutexes and the claims, held only while an entry is found or made, or a claim
// is tested and made or ended. fork() takes it around itself, so a child never finds it held by
// a thread it does not have.
using RegistryLock = shared::AtForkMutex<InitClaims, ForgetClaimsInChild>::Lock;

// The claims of this process (the caller holds RegistryLock).
std::set<const boost::mutex*>& ClaimedNames() {
    if (claims.inherited) {
        claims.names->clear();
        claims.inherited = false;
    }
    return *claims.names;
}

bool ClaimName(const boost::mutex& mutex) {
    RegistryLock lock;
    return ClaimedNames().insert(&mutex).second;
}

void ReleaseName(const boost::mutex& mutex) {
    RegistryLock lock;
    ClaimedNames().erase(&mutex);
}

// Who a lock file made for the slot `name` is given to: the owner of the slot's header object,
// so that a root reader does not leave a lock file that the slot's owner cannot claim.
uid_t SlotOwner(const std::string& name) {
    struct stat st;
    if (::lstat(Slot::ShmPath(Slot::HeaderObjectName(name)).c_str(), &st) != 0 ||
        !S_ISREG(st.st_mode)) {
        return shared::kNoOwner;
    }
    return st.st_uid;
}

}  // namespace

ReliableSlotReader::ReliableSlotReader(boost::shared_ptr<ISlot> slot,
                                       const boost::posix_time::time_duration& updateTime)
    : BaseSlotReader(slot, updateTime) {
    singletonMutex_ = FindOrCreateSingletonMutex(name_);
    // Neither attempt waits for a reader: a second reader is refused, never queued. The claim
    // of the lock file waits only for a removal of the file (slotctl rm) to end.
    if (fileLock_.Claim(FileUtils::FSUtils::GetSingletonFileLockName(name_), nullptr,
                        SlotOwner(name_)) != shared::FileLock::ClaimOutcome::Claimed ||
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
        entry.reset(new boost::mutex);
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
    // A reader released by a subscriber takes nothing more, nor does one asked to stop (its
    // destructor waits): the block in hand has been delivered, the rest stays for the next reader.
    // Otherwise writers that keep the queue filled would hold the destructor up for ever.
    shared::SizedArray result;
    while (!Released() && slot_->GetBufferLength() != 0) {
        boost::this_thread::interruption_point();
        result = BaseSlotReader::ReadAndNotify();
    }
    return result;
}
