// SPDX-License-Identifier: Apache-2.0
#include <shared/CrashPoint.h>
#include <shared/ManagedObject.h>
#include <shared/MutexOwner.h>
#include <shared/RobustMutex.h>
#include <shared/SharedMemory.h>

#include <boost/interprocess/detail/managed_open_or_create_impl.hpp>
#include <boost/interprocess/shared_memory_object.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>
#include <new>

namespace shared {

namespace {

namespace bi = boost::interprocess;

typedef SlotSegment::segment_manager SegmentManager;

// Where the user part of a managed segment starts, after Boost's creation-state word.
const std::size_t SegmentUserOffset =
    bi::ipcdetail::managed_open_or_create_impl<bi::shared_memory_object,
                                               SegmentManager::memory_algorithm::Alignment, true,
                                               false>::ManagedOpenOrCreateUserOffset;

// The segment manager keeps two pthread mutexes of its own, neither robust: the allocator's
// (rbtree_best_fit's header, at offset 0 of the segment manager) and the recursive one that
// guards the name indexes (taken by find, construct and atomic_func). A process killed inside
// one of those calls leaves it held, and the next find would block for ever. Boost offers no
// way to reach them, so their offsets are found once, on a scratch segment manager in private
// memory: the allocator's by its position, the index mutex as the mutex that atomic_func holds.
struct ManagerMutexes {
    bool known = false;
    std::size_t allocator = 0;
    std::size_t index = 0;
    int allocatorKind = 0;  // glibc's __kind of each, as Boost initialises them
    int indexKind = 0;
};

const ManagerMutexes& FindManagerMutexes() {
    static const ManagerMutexes found = [] {
        ManagerMutexes m;
        alignas(SegmentManager) static char scratch[4096];
        SegmentManager* manager = new (scratch) SegmentManager(sizeof(scratch));
        const pid_t me = CurrentThreadId();
        bool indexFound = false;
        auto look = [&] {
            for (std::size_t at = 0; at + sizeof(pthread_mutex_t) <= sizeof(SegmentManager);
                 at += alignof(pthread_mutex_t)) {
                if (MutexOwnerThread(reinterpret_cast<pthread_mutex_t*>(scratch + at)) == me) {
                    m.index = at;
                    indexFound = true;
                }
            }
        };
        manager->atomic_func(look);
        // Boost initialises the allocator's mutex process-shared; glibc marks that in __kind.
        const pthread_mutex_t* allocator = reinterpret_cast<const pthread_mutex_t*>(scratch);
        const bool allocatorLooksRight = (allocator->__data.__kind & 128) != 0 &&
                                         MutexOwnerThread(allocator) == 0 && m.index != 0;
        m.known = indexFound && allocatorLooksRight;
        m.allocatorKind = allocator->__data.__kind;
        m.indexKind = reinterpret_cast<const pthread_mutex_t*>(scratch + m.index)->__data.__kind;
        manager->~SegmentManager();
        return m;
    }();
    return found;
}

// Builds a new segment in place: the segment manager, then the header mutex as a unique
// instance, made robust before any other process can see the segment.
void InitialiseSegment(void* user, std::size_t size) {
    if (size < SegmentManager::get_min_size()) {
        throw bi::interprocess_exception(bi::error_info(bi::size_error));
    }
    SegmentManager* manager = new (user) SegmentManager(size);
    bi::interprocess_mutex* mutex =
        manager->construct<bi::interprocess_mutex>(bi::unique_instance)();
    InitRobustMutex(NativeMutex(mutex));
}

class SharedMemory : public ISharedMemory {
public:
    SharedMemory(const char* name, unsigned int size) : name_(name), mutex_(nullptr) {
        const std::string remedy =
            "remove it (slotctl rm --stale " + name_ + ") and create the slot again";
        // A segment removed between the preparation and the opening is prepared again.
        for (int round = 0;; ++round) {
            PrepareManagedObject(name_, size, SegmentUserOffset, InitialiseSegment, remedy);
            try {
                SlotSegment opened(bi::open_only, name);
                segment_.swap(opened);
                break;
            } catch (const bi::interprocess_exception& e) {
                if (e.get_error_code() != bi::not_found_error || round == 3) {
                    throw;
                }
            }
        }
        CheckSize();
        // A process killed inside find or construct leaves the segment manager's mutexes held.
        const ManagerMutexes& offsets = FindManagerMutexes();
        if (offsets.known) {
            const char* manager = reinterpret_cast<const char*>(segment_.get_segment_manager());
            // Damaged bytes in these mutexes would make glibc abort or wait for ever.
            if (!MutexLooksSane(
                    reinterpret_cast<const pthread_mutex_t*>(manager + offsets.allocator),
                    offsets.allocatorKind) ||
                !MutexLooksSane(reinterpret_cast<const pthread_mutex_t*>(manager + offsets.index),
                                offsets.indexKind)) {
                throw bi::interprocess_exception(
                    ("segment '" + name_ +
                     "' is damaged: its allocator or index lock is not a lock; " + remedy)
                        .c_str());
            }
            AwaitUnheldMutex(manager + offsets.allocator,
                             "The allocator lock of segment '" + name_ + "'", remedy);
        }
        {
            // Held through the find (and the construction): the wait for the index lock is
            // bounded.
            const SegmentIndexLock index(segment_, name_, remedy);
            mutex_ = segment_.find<bi::interprocess_mutex>(bi::unique_instance).first;
            if (mutex_ == nullptr) {
                // A segment made by a process that did not construct the mutex at creation.
                auto construct = [this] {
                    mutex_ = segment_.find<bi::interprocess_mutex>(bi::unique_instance).first;
                    if (mutex_ == nullptr) {
                        mutex_ = segment_.construct<bi::interprocess_mutex>(bi::unique_instance)();
                        InitRobustMutex(NativeMutex(mutex_));
                    }
                };
                segment_.atomic_func(construct);
            }
        }
        CrashPoint("segment-opened");
    }

    std::string GetName() const override { return name_; }
    SlotSegment& GetSegment() override { return segment_; }
    bi::interprocess_mutex* GetMutex() override { return mutex_; }

private:
    // The segment manager records the segment's size; a damaged record must not make later
    // bounds checks trust more memory than is mapped.
    void CheckSize() {
        std::size_t real = 0;
        const int fd = ::shm_open(name_.c_str(), O_RDONLY | O_CLOEXEC, 0);
        struct stat st;
        if (fd >= 0 && ::fstat(fd, &st) == 0) {
            real = static_cast<std::size_t>(st.st_size);
        }
        if (fd >= 0) {
            ::close(fd);
        }
        const std::size_t recorded = segment_.get_size();
        if (real < SegmentUserOffset || recorded != real ||
            recorded < SegmentManager::get_min_size()) {
            throw bi::interprocess_exception(("segment '" + name_ + "' is damaged: it records " +
                                              std::to_string(recorded) + " bytes but " +
                                              std::to_string(real) + " are mapped")
                                                 .c_str());
        }
    }

    std::string name_;
    SlotSegment segment_;
    bi::interprocess_mutex* mutex_;  // in the segment; never destroyed here
};

}  // namespace

SegmentIndexLock::SegmentIndexLock(SlotSegment& segment, const std::string& name,
                                   const std::string& remedy)
    : mutex_(nullptr) {
    const ManagerMutexes& offsets = FindManagerMutexes();
    if (!offsets.known) {
        return;
    }
    void* mutex = reinterpret_cast<char*>(segment.get_segment_manager()) + offsets.index;
    LockUnheldMutex(mutex, "The index lock of segment '" + name + "'", remedy);
    mutex_ = mutex;
}

SegmentIndexLock::~SegmentIndexLock() {
    if (mutex_ != nullptr) {
        pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex_));
    }
}

ISharedMemory* CreateSharedMemory(boost::interprocess::open_or_create_t, const char* name,
                                  unsigned int size) {
    return new SharedMemory(name, size);
}

void DestroySharedMemory(ISharedMemory* memory) {
    delete memory;
}

bool RemoveSharedMemory(const char* name) {
    return !boost::interprocess::shared_memory_object::remove(name);
}

}  // namespace shared
