// SPDX-License-Identifier: Apache-2.0
#include <Slot/WindowsPipe/WindowsPipeReader.h>

#include <FileUtils/FSUtils.h>
#include <shared/ProxySubscriber.h>

#include <boost/bind/bind.hpp>
#include <boost/ref.hpp>

#include <stdexcept>

namespace {

typedef void (shared::Notifier::*NotifyFunction)(const std::string&, const void*, unsigned int);

}  // namespace

WindowsPipeReader::WindowsPipeReader(boost::shared_ptr<WindowsPipeServerSlot> slot,
                                     const boost::posix_time::time_duration& errorPause)
    : waitHandler_(boost::shared_ptr<shared::ISyncEvent>()),
      slot_(slot),
      accumulationBuffer_(static_cast<unsigned int>(slot->GetMaxDataSize()), 4096),
      proxySubscriber_(new shared::ProxySubscriber(
          boost::bind(static_cast<NotifyFunction>(&shared::Notifier::notify), this,
                      boost::placeholders::_1, boost::placeholders::_2, boost::placeholders::_3))),
      readBuffer_(static_cast<unsigned int>(slot->GetMaxDataSize())),
      thread_(),
      errorPause_(errorPause),
      singletonMutex_(slot->GetName()),
      fileLock_(),
      logger_(log4cxx::Logger::getLogger("Slot.Reader")) {
    // The lock file is made when missing and claimed without waiting for a reader; a removal of
    // the file under way is waited out (FileLock::Claim).
    const bool unique =
        fileLock_.Claim(FileUtils::FSUtils::GetSingletonFileLockName(slot_->GetName())) ==
            shared::FileLock::ClaimOutcome::Claimed &&
        singletonMutex_.IsUnique();
    accumulationBuffer_.subscribe(proxySubscriber_.get());
    if (!unique) {
        throw std::logic_error("Cannot create non-unique reader for named pipe '" +
                               slot_->GetName() + "'");
    }
}

WindowsPipeReader::~WindowsPipeReader() {
    if (Inherited()) {
        // A forked child's copy: the thread is the parent's (interrupting or joining its handle
        // would wait for ever), and so may be the buffer's mutex. The handle is left alone for
        // good; the lock file's lock and the name's count are not the child's anyway.
        if (thread_.joinable()) {
            static_cast<void>(new boost::thread(boost::move(thread_)));
        }
        return;
    }
    accumulationBuffer_.unsubscribeAll();
    const std::string name = slot_->GetName();
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "~WindowsPipeReader(), '" << name << "'");
    }
    thread_.interrupt();
    if (thread_.joinable()) {
        thread_.join();
    }
    if (logger_->isTraceEnabled()) {
        LOG4CXX_TRACE(logger_, "~WindowsPipeReader(), '" << name << "' joined");
    }
}

void WindowsPipeReader::Init() {
    if (thread_.joinable()) {
        return;
    }
    waitHandler_.RunAndWaitForHandler(boost::bind(&WindowsPipeReader::InitBody, this));
    if (logger_->isInfoEnabled()) {
        LOG4CXX_INFO(logger_, "Initialized");
    }
}

void WindowsPipeReader::InitBody() {
    boost::thread thread(boost::ref(*this));
    thread_ = boost::move(thread);
}

void WindowsPipeReader::operator()() {
    if (logger_->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger_, "Thread started");
    }
    slot_->WaitForConnectionOrReinitPipeIfNeeded();
    waitHandler_.Notify();
    const std::string name = slot_->GetName();
    try {
        for (;;) {
            try {
                for (;;) {
                    boost::this_thread::interruption_point();
                    const size_t n = slot_->ReadData(readBuffer_.data(), readBuffer_.size());
                    if (!slot_->GetLastReadRes()) {
                        // A working slot blocks in ReadData; the stub spins here until
                        // interrupted.
                        continue;
                    }
                    accumulationBuffer_.onNotify(name, readBuffer_.data(), n);
                    if (logger_->isDebugEnabled()) {
                        LOG4CXX_DEBUG(logger_, "Notified " << static_cast<long>(n)
                                                           << " bytes from '" << name << "'");
                    }
                }
            } catch (const boost::thread_interrupted&) {
                throw;
            } catch (const std::exception& e) {
                if (logger_->isErrorEnabled()) {
                    LOG4CXX_ERROR(logger_, "std::exception in '" << name << "' : " << e.what());
                }
            } catch (...) {
                if (logger_->isErrorEnabled()) {
                    LOG4CXX_ERROR(logger_, "Unknown exception in '" << name << "'");
                }
            }
            boost::this_thread::sleep(errorPause_);
        }
    } catch (const boost::thread_interrupted&) {
        if (logger_->isDebugEnabled()) {
            LOG4CXX_DEBUG(logger_, "Thread shutdown for '" << name << "'");
        }
    }
}
