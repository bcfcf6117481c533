// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/ISlot.h>

#include <shared/ISpinWait.h>
#include <shared/ReaderNotifier.h>
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
// ReadData; subscribers run after the lock is released. A stop request (the destructor's
// interruption) also ends the thread's own waits for the slot's lock, however long the holder
// keeps it (shared::InterruptibleLockWaits); subscribers' waits are not cut.
//
// Init must be called once, after the most-derived constructor has finished (the thread calls
// virtual functions). Concrete readers interrupt and join the thread in their destructors, before
// their own parts are destroyed; this base neither interrupts nor joins.
//
// A child forked (without exec) from the process that made the reader has a copy of it but not
// its thread: there the copy is Inherited (shared::ReaderNotifier). Its subscription calls return
// at once, also when the fork came during a delivery, and destroying it neither stops nor waits
// for the thread, nor gives up anything the parent's reader holds.
//
// Destroying a reader on its own thread (its owner drops the last reference inside a
// subscriber's onNotify) cannot join that thread, and the code that called the subscriber still
// runs on the reader's members. Owners that may do so delete the reader through Release, as the
// readers of SlotFactory do: on the reader's own thread the reader stops delivering at once and
// the thread deletes it when the cycle in progress has unwound.
class SLOT_EXPORT BaseSlotReader : public shared::ReaderNotifier {
public:
    // Throws AbortSlotCreationException for an update time that CheckUpdateTime refuses.
    BaseSlotReader(boost::shared_ptr<ISlot> slot,
                   const boost::posix_time::time_duration& updateTime);
    ~BaseSlotReader() override;

    // A reader waits at most one update time per cycle and Init pauses one update time: an
    // infinite or undefined one would never return, a negative one would spin. Throws
    // AbortSlotCreationException for those.
    static void CheckUpdateTime(const std::string& slotName,
                                const boost::posix_time::time_duration& updateTime);

    // A spin budget must be finite and not negative: AbortSlotCreationException otherwise.
    static void CheckSpinBudget(const std::string& slotName,
                                const boost::posix_time::time_duration& budget);

    // Deletes `reader` now, unless this is the reader's own thread: then its subscribers are
    // dropped (the rest of the notification in progress reaches nobody), no further block is
    // read, and the thread deletes the reader once it is back in its loop. `keepAlive` is
    // released after the reader has been deleted.
    static void Release(BaseSlotReader* reader, boost::shared_ptr<void> keepAlive);

    BaseSlotReader(const BaseSlotReader&) = delete;
    BaseSlotReader& operator=(const BaseSlotReader&) = delete;

    // Each cycle first spins for up to `budget` (at most the update time) on the slot's write
    // signal, without a lock or a system call, and only then sleeps on it for the rest of the
    // update time: a block written meanwhile is taken without a wake-up, at the price of a busy
    // core. Delivery is unchanged, the slot is still polled once per update time. 0 (the
    // default) never spins; a slot without such a signal ignores the budget. Call before Init.
    void SetSpinBudget(const boost::posix_time::time_duration& budget);
    const boost::posix_time::time_duration& SpinBudget() const { return spinBudget_; }

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
    // Concrete readers call it first in their destructors. On the reader's own thread (a reader
    // deleted through Release) the thread is detached instead: it is about to end. In a forked
    // child (Inherited) the thread is the parent's: its handle is let go, false.
    bool StopThread();
    // Set on the reader thread by Release: the reader takes nothing more and is deleted by its
    // thread. Draining loops test it between blocks.
    bool Released() const { return released_; }

    shared::WaitForAsyncOpHandler startHandler_;
    boost::shared_ptr<ISlot> slot_;
    boost::thread thread_;
    boost::posix_time::time_duration updateTime_;
    // The slot's name, handed to every subscriber: asking the slot would copy it for each block.
    const std::string name_;
    log4cxx::LoggerPtr logger_;

private:
    bool released_;                                // reader thread only
    boost::posix_time::time_duration spinBudget_;  // set before Init
    shared::ISpinWait* spinWait_;                  // the slot's write signal; null: no spinning
    boost::shared_ptr<void> keepAlive_;            // reader thread only; see Release
};
