// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/ILockable.h>
#include <shared/INotifier.h>
#include <shared/ISubscriber.h>
#include <shared/ISyncEvent.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <string>

// The view of a slot that a writer needs.
class IBaseSlot {
public:
    virtual ~IBaseSlot() {}
    // Copies at most size bytes of one block into buffer; returns the number copied.
    virtual size_t ReadData(void* buffer, size_t size) = 0;
    // Stores one block. Refusals are logged, not thrown.
    virtual void WriteData(const void* data, size_t size) = 0;
    virtual std::string GetName() const = 0;
    virtual size_t GetMaxDataSize() const = 0;
    // Owned by the slot.
    virtual shared::ILockable* GetLockable() = 0;
    // Owned by the slot.
    virtual shared::ISyncEvent* GetOnWriteCondition() = 0;
};

class ISlot : public IBaseSlot {
public:
    // UTC time of the latest write since the slot was last opened, or not_a_date_time.
    virtual boost::posix_time::ptime GetLastWriteTime() const = 0;
    // Number of blocks waiting in the queue (not the capacity).
    virtual size_t GetBufferLength() const = 0;
};

typedef boost::shared_ptr<shared::INotifier> INotifierPtr;
typedef boost::shared_ptr<shared::ISubscriber> ISubscriberPtr;
