// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlot.h>

#include <shared/Notifier.h>
#include <shared/SizedArray.h>
#include <shared/WaitForAsyncOpHandler.h>

#include <log4cxx/logger.h>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

// A notifier that owns one thread reading one shared-memory slot.
//
// Threads: the creator's thread runs the constructor, Init, subscription calls and the
// destructor; the reader thread runs operator() and with it ReadAndNotify, DataInSlotIsActual
// and every subscriber's onNotify. Each cycle waits on the slot's write condition for at most
// the update time, then holds the slot's interprocess lock only around DataInSlotIsActual and
// ReadData; subscribers run after the lock is released.
//
// Init must be called once, after the most-derived constructor has finished (the thread calls
// virtual functions). Concrete readers interrupt and join the thread in their destructors, before
// their own parts are destroyed; this base neither interrupts nor joins.
class SLOT_EXPORT BaseSlotReader : public shared::Notifier {
public:
    BaseSlotReader(boost::shared_ptr<ISlot> slot,
                   const boost::posix_time::time_duration& updateTime);
    ~BaseSlotReader() override;

    BaseSlotReader(const BaseSlotReader&) = delete;
    BaseSlotReader& operator=(const BaseSlotReader&) = delete;

    // Starts the thread, waits until it runs, then sleeps one update time.
    void Init();
    void InitBody();
    // The thread body.
    void operator()();

    // One step of reading and delivering; the delivered block, or empty when none was.
    virtual shared::SizedArray ReadAndNotify();
    // Asked with the slot's lock held: is the slot's data to be read now?
    virtual bool DataInSlotIsActual() = 0;

protected:
    // Interrupts the thread and waits for it to end; false when there was no thread to stop.
    // Concrete readers call it first in their destructors.
    bool StopThread();

    shared::WaitForAsyncOpHandler startHandler_;
    boost::shared_ptr<ISlot> slot_;
    boost::thread thread_;
    boost::posix_time::time_duration updateTime_;
    log4cxx::LoggerPtr logger_;
};
