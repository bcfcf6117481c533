// SPDX-License-Identifier: Apache-2.0
#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/BaseSlotReader.h>

#include <shared/ILockable.h>
#include <shared/ISyncEvent.h>
#include <shared/RobustMutex.h>

#include <boost/bind/bind.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/ref.hpp>

#include <algorithm>

namespace {

// The reader whose thread this is; null on every other thread.
thread_local const BaseSlotReader* RunningReader = nullptr;

// In a forked child the handle names a thread of the parent: interrupting, joining or detaching
// it would wait for ever or act on whatever the child's own threads reuse. The handle is left
// alone for good (a few bytes per inherited reader).
// Looked up once per process: a lookup takes log4cxx's hierarchy lock, which a child forked
// while another thread held it never gets, so a child making a reader would wait for ever.
log4cxx::LoggerPtr ReaderLogger() {
    static const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("Slot.Reader");
    return logger;
}

void Abandon(boost::thread& thread) {
    if (thread.joinable()) {
        static_cast<void>(new boost::thread(boost::move(thread)));
    }
}

}  // namespace

BaseSlotReader::BaseSlotReader(boost::shared_ptr<ISlot> slot,
                               const boost::posix_time::time_duration& updateTime)
    : startHandler_(boost::shared_ptr<shared::ISyncEvent>()),
      slot_(slot),
      updateTime_(updateTime),
      name_(slot->GetName()),
      logger_(ReaderLogger()),
      released_(false),
      spinBudget_(0, 0, 0),
      spinWait_(nullptr) {
    CheckUpdateTime(slot_->GetName(), updateTime_);
}

void BaseSlotReader::SetSpinBudget(const boost::posix_time::time_duration& budget) {
    CheckSpinBudget(slot_->GetName(), budget);
    spinBudget_ = budget;
    spinWait_ = budget.ticks() > 0 ? dynamic_cast<shared::ISpinWait*>(slot_->GetOnWriteCondition())
                                   : nullptr;
}

void BaseSlotReader::CheckSpinBudget(const std::string& slotName,
                                     const boost::posix_time::time_duration& budget) {
    if (budget.is_special() || budget.is_negative()) {
        throw AbortSlotCreationException(
            "Invalid spin budget " + boost::posix_time::to_simple_string(budget) + " of '" +
            slotName + "': a spinning reader needs a finite budget of 0 or more");
    }
}

void BaseSlotReader::CheckUpdateTime(const std::string& slotName,
                                     const boost::posix_time::time_duration& updateTime) {
    if (updateTime.is_special() || updateTime.is_negative()) {
        throw AbortSlotCreationException(
            "Invalid update time " + boost::posix_time::to_simple_string(updateTime) + " of '" +
            slotName + "': a reader needs a finite update time of 0 or more");
    }
}

BaseSlotReader::~BaseSlotReader() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~BaseSlotReader(), '" << slot_->GetName() << "'");
    }
    if (Inherited()) {
        Abandon(thread_);
    } else if (thread_.joinable()) {
        thread_.detach();
    }
}

void BaseSlotReader::Release(BaseSlotReader* reader, boost::shared_ptr<void> keepAlive) {
    if (reader == nullptr) {
        return;
    }
    if (RunningReader != reader) {
        delete reader;
        return;  // keepAlive goes now, after the reader
    }
    // On the reader's own thread, inside a subscriber: whoever called the subscriber is still on
    // the stack and uses the reader's members. Nobody else is called from here on; the loop in
    // operator() deletes the reader.
    reader->released_ = true;
    reader->keepAlive_.swap(keepAlive);
    reader->unsubscribeAll();
}

bool BaseSlotReader::StopThread() {
    if (Inherited()) {
        Abandon(thread_);
        return false;
    }
    if (!thread_.joinable()) {
        return false;
    }
    if (RunningReader == this) {
        thread_.detach();  // deleted by its own thread, which ends right after
        return false;
    }
    thread_.interrupt();
    thread_.join();
    return true;
}

void BaseSlotReader::Init() {
    startHandler_.RunAndWaitForHandler(boost::bind(&BaseSlotReader::InitBody, this));
    // Deliberate: a reader is handed out no sooner than one update time after its thread
    // started, so a first write signalled meanwhile is already being waited for.
    boost::this_thread::sleep(updateTime_);
    if (logger_->isInfoEnabled()) {
        LOG4CXX_INFO(logger_, "Initialized");
    }
}

void BaseSlotReader::InitBody() {
    thread_ = boost::thread(boost::ref(*this));
}

void BaseSlotReader::operator()() {
    RunningReader = this;
    // The stop request also ends this thread's wait for the slot's lock that a live process
    // keeps (one stopped by SIGSTOP or a debugger): the destructor's join returns. Not in
    // subscribers (see ReadAndNotify).
    const shared::InterruptibleLockWaits interruptibleLockWaits;
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "Thread started");
    }
    startHandler_.Notify();
    bool running = true;
    while (running && !released_) {
        try {
            while (!released_) {
                boost::this_thread::interruption_point();
                // Woken or timed out, the cycle goes on the same way: the slot is polled at
                // least once per update time even when a signal is missed.
                boost::posix_time::time_duration wait = updateTime_;
                if (spinWait_ != nullptr) {
                    // The spin is the first part of the cycle's wait, so it never delays the
                    // poll. A signal seen while spinning makes the Wait below return at once; a
                    // stop request ends the spin and is taken right away.
                    const boost::posix_time::time_duration spin = std::min(spinBudget_, wait);
                    if (!spinWait_->SpinForSignal(spin)) {
                        boost::this_thread::interruption_point();
                        wait -= spin;
                    }
                }
                slot_->GetOnWriteCondition()->Wait(wait);
                ReadAndNotify();
            }
        } catch (const boost::interprocess::interprocess_exception& e) {
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Thread shutdown after boost::interprocess_exception in "
                                           << slot_->GetName() << " : " << e.what());
            }
            running = false;
        } catch (const boost::thread_interrupted&) {
            if (logger_->isDebugEnabled()) {
                LOG4CXX_DEBUG(logger_, "Thread shutdown for " << slot_->GetName());
            }
            running = false;
        } catch (const std::exception& e) {
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Exception in " << slot_->GetName() << " : " << e.what());
            }
        } catch (...) {
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Unknown exception in " << slot_->GetName());
            }
        }
    }
    if (released_) {
        // Released on this thread: every caller of the subscriber has returned, so the reader
        // can go. Its destructor sees RunningReader and detaches instead of joining.
        boost::shared_ptr<void> keepAlive;
        keepAlive.swap(keepAlive_);
        delete this;
        // Nothing below may touch a member.
    }
    RunningReader = nullptr;
}

shared::SizedArray BaseSlotReader::ReadAndNotify() {
    shared::SizedArray buffer(static_cast<unsigned int>(slot_->GetMaxDataSize()));
    // Level tests walk the logger hierarchy. TRACE lies below DEBUG, so with DEBUG off (the usual
    // case) one test serves every line of this step.
    const bool debug = logger_->isDebugEnabled();
    const bool trace = debug && logger_->isTraceEnabled();
    if (trace) {
        LOG4CXX_TRACE(logger_, "ReadAndNotify() : '" << slot_->GetName() << "'");
    }
    {
        boost::interprocess::scoped_lock<shared::ILockable> lock(*slot_->GetLockable());
        if (trace) {
            LOG4CXX_TRACE(logger_, "ReadAndNotify() : locked '" << slot_->GetName() << "'");
        }
        if (!DataInSlotIsActual()) {
            return shared::SizedArray();
        }
        buffer.setSize(static_cast<unsigned int>(slot_->ReadData(buffer.data(), buffer.size())));
    }
    if (trace) {
        LOG4CXX_TRACE(logger_, "Unlocked " << slot_->GetName());
    }
    // Subscribers run outside the slot's lock: a slow one never holds up writers.
    {
        // A subscriber's own lock waits (a writer storing the block elsewhere) are not cut by a
        // stop: the block has left the slot, and a subscriber interrupted half-way would lose it.
        const shared::InterruptibleLockWaits subscribersWait(false);
        notify(name_, buffer.data(), buffer.size());
    }
    if (debug) {
        LOG4CXX_DEBUG(logger_, "Notified " << buffer.size() << " bytes from '" << name_ << "'");
    }
    return buffer;
}
