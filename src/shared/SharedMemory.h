// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <boost/interprocess/creation_tags.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/offset_ptr.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>

#include <cstdint>
#include <string>

namespace shared {

// Offset pointer of every slot segment and slot queue: 32-bit difference and size types, so a
// handle fits an int. On the 32-bit target this is offset_ptr<void, int, unsigned int, 0>. On
// x86_64 Boost requires the offset type to hold a pointer, so the offset is 64-bit there; the
// two builds can never share a slot anyway (their pthread mutexes differ in size).
#if UINTPTR_MAX == 0xffffffffu
typedef boost::interprocess::offset_ptr<void, int, unsigned int, 0> SlotOffsetPtr;
#else
typedef boost::interprocess::offset_ptr<void, int, std::uint64_t, 0> SlotOffsetPtr;
#endif

// The managed segment type of a slot's header segment.
typedef boost::interprocess::basic_managed_shared_memory<
    char, boost::interprocess::rbtree_best_fit<boost::interprocess::mutex_family, SlotOffsetPtr, 0>,
    boost::interprocess::iset_index>
    SlotSegment;

// A named managed segment together with the process-shared mutex that guards its contents.
// The mutex is a unique instance inside the segment (the segment manager's unique index), so it
// does not appear among the segment's named objects; it is constructed once by whichever
// process gets there first and found by every later one.
class SHARED_EXPORT ISharedMemory {
public:
    virtual std::string GetName() const = 0;
    virtual SlotSegment& GetSegment() = 0;
    virtual boost::interprocess::interprocess_mutex* GetMutex() = 0;
    virtual ~ISharedMemory() {}
};

// Holds the name index lock of `segment` while it lives. Boost's segment manager takes that
// lock (recursive, not robust) in every find, construct and atomic_func and waits for it without
// limit, for ever when a process died holding it. Taken here with the bound and the dead-holder
// check of AwaitUnheldMutex, those calls then take it again at once. Throws
// boost::interprocess::interprocess_exception as AwaitUnheldMutex does, the segment named `name`
// and `remedy` in its text. Does nothing when the lock's place in the segment manager is unknown.
class SHARED_EXPORT SegmentIndexLock {
public:
    SegmentIndexLock(SlotSegment& segment, const std::string& name, const std::string& remedy);
    ~SegmentIndexLock();
    SegmentIndexLock(const SegmentIndexLock&) = delete;
    SegmentIndexLock& operator=(const SegmentIndexLock&) = delete;

private:
    void* mutex_;  // the index lock, held; null when unknown
};

// Opens the segment `name`, creating it with `size` bytes when it does not exist.
// Failures raise boost::interprocess::interprocess_exception.
SHARED_EXPORT ISharedMemory* CreateSharedMemory(boost::interprocess::open_or_create_t,
                                                const char* name, unsigned int size);
// Unmaps and frees the object; the segment stays in the system.
SHARED_EXPORT void DestroySharedMemory(ISharedMemory* memory);
// Unlinks the segment's name. Returns true on FAILURE (e.g. no such segment), false on success.
SHARED_EXPORT bool RemoveSharedMemory(const char* name);

}  // namespace shared
