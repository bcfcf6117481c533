// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>
#include <Slot/WindowsPipe/WindowsPipeServerSlot.h>

#include <IoUtils/AccumulationBuffer.h>
#include <shared/FileLock.h>
#include <shared/ISubscriber.h>
#include <shared/ReaderNotifier.h>
#include <shared/SingletonMutex.h>
#include <shared/SizedArray.h>
#include <shared/WaitForAsyncOpHandler.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include <log4cxx/logger.h>

// Reads blocks from a WindowsPipeServerSlot on a thread of its own, gathers them in an
// AccumulationBuffer (records of the slot's maximum data size; 0 passes blocks through) and
// notifies its subscribers with them, under the slot's name.
//
// Only one reader per pipe name lives on the machine: the constructor takes the lock file of
// the name (FileUtils::FSUtils::GetSingletonFileLockName, through shared::FileLock::Claim, which
// waits only for a removal of the file under way) and checks the process-wide SingletonMutex of
// the name, and throws std::logic_error when either is taken. The lock is a
// record lock through the process's one descriptor of the file (shared::FileLock), so a refused
// reader in the same process does not release the lock of the one that holds it, and the lock
// ends with the process. The lock file is the same as that of a reliable slot of the
// same name: the two exclude each other.
//
// Lifecycle: constructed (no thread) -> Init() (thread started, connected) -> destructor
// (subscribers cut off, thread interrupted and joined). Errors while reading are logged at
// ERROR on "Slot.Reader" and followed by the error pause; only interruption ends the thread.
// Subscribers are called on the reader thread. Init and the destructor are called by the owner
// only, from one thread. A child forked (without exec) has a copy without the thread
// (shared::ReaderNotifier::Inherited): its subscription calls return at once, destroying it
// neither waits nor releases anything, and it does not count as the name's reader there.
class SLOT_EXPORT WindowsPipeReader : public shared::ReaderNotifier {
public:
    // Throws std::logic_error "Cannot create non-unique reader for named pipe '<name>'".
    WindowsPipeReader(boost::shared_ptr<WindowsPipeServerSlot> slot,
                      const boost::posix_time::time_duration& errorPause);
    ~WindowsPipeReader() override;

    // Starts the thread and returns once it has connected; a second call does nothing.
    void Init();
    void InitBody();
    // The thread body.
    void operator()();

private:
    shared::WaitForAsyncOpHandler waitHandler_;
    boost::shared_ptr<WindowsPipeServerSlot> slot_;
    IoUtils::AccumulationBuffer accumulationBuffer_;  // onNotify called on the reader thread
    boost::shared_ptr<shared::ISubscriber> proxySubscriber_;
    shared::SizedArray readBuffer_;  // used by the reader thread only
    boost::thread thread_;
    boost::posix_time::time_duration errorPause_;
    shared::SingletonMutex singletonMutex_;
    shared::FileLock fileLock_;  // held for the reader's lifetime
    log4cxx::LoggerPtr logger_;
};
