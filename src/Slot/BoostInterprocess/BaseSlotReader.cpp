// SPDX-License-Identifier: Apache-2.0
#include <Slot/BoostInterprocess/BaseSlotReader.h>

#include <shared/ILockable.h>
#include <shared/ISyncEvent.h>

#include <boost/bind/bind.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/ref.hpp>

BaseSlotReader::BaseSlotReader(boost::shared_ptr<ISlot> slot,
                               const boost::posix_time::time_duration& updateTime)
    : startHandler_(boost::shared_ptr<shared::ISyncEvent>()),
      slot_(slot),
      updateTime_(updateTime),
      logger_(log4cxx::Logger::getLogger("Slot.Reader")) {}

BaseSlotReader::~BaseSlotReader() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~BaseSlotReader(), '" << slot_->GetName() << "'");
    }
    if (thread_.joinable()) {
        thread_.detach();
    }
}

bool BaseSlotReader::StopThread() {
    if (!thread_.joinable()) {
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
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "Thread started");
    }
    startHandler_.Notify();
    for (;;) {
        try {
            for (;;) {
                boost::this_thread::interruption_point();
                // Woken or timed out, the cycle goes on the same way: the slot is polled at
                // least once per update time even when a signal is missed.
                slot_->GetOnWriteCondition()->Wait(updateTime_);
                ReadAndNotify();
            }
        } catch (const boost::interprocess::interprocess_exception& e) {
            if (logger_->isErrorEnabled()) {
                LOG4CXX_ERROR(logger_, "Thread shutdown after boost::interprocess_exception in "
                                           << slot_->GetName() << " : " << e.what());
            }
            return;
        } catch (const boost::thread_interrupted&) {
            if (logger_->isDebugEnabled()) {
                LOG4CXX_DEBUG(logger_, "Thread shutdown for " << slot_->GetName());
            }
            return;
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
}

shared::SizedArray BaseSlotReader::ReadAndNotify() {
    shared::SizedArray buffer(static_cast<unsigned int>(slot_->GetMaxDataSize()));
    if (logger_->isTraceEnabled()) {
        LOG4CXX_TRACE(logger_, "ReadAndNotify() : '" << slot_->GetName() << "'");
    }
    {
        boost::interprocess::scoped_lock<shared::ILockable> lock(*slot_->GetLockable());
        if (logger_->isTraceEnabled()) {
            LOG4CXX_TRACE(logger_, "ReadAndNotify() : locked '" << slot_->GetName() << "'");
        }
        if (!DataInSlotIsActual()) {
            return shared::SizedArray();
        }
        buffer.setSize(static_cast<unsigned int>(slot_->ReadData(buffer.data(), buffer.size())));
    }
    if (logger_->isTraceEnabled()) {
        LOG4CXX_TRACE(logger_, "Unlocked " << slot_->GetName());
    }
    // Subscribers run outside the slot's lock: a slow one never holds up writers.
    notify(slot_->GetName(), buffer.data(), buffer.size());
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_,
                      "Notified " << buffer.size() << " bytes from '" << slot_->GetName() << "'");
    }
    return buffer;
}
