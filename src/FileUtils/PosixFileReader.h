// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <FileUtils/Export.h>

#include <shared/ReaderNotifier.h>
#include <shared/SharedFolder.h>
#include <shared/SizedArray.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

#include <log4cxx/logger.h>

#include <sys/types.h>

#include <atomic>
#include <string>

namespace FileUtils {

// Reads a named pipe (or a growing file) on a thread of its own and notifies its subscribers
// with every chunk read, under the name of the slot: the file name without directory and
// without ".fifo".
//
// - The thread starts in the constructor, but nothing is read while the reader has no
//   subscriber, before the first subscribe() and after the last one has left: the bytes wait in
//   the pipe, so a host that subscribes right after construction, or a new subscriber after a
//   gap, loses nothing.
// - A pipe is a byte stream: a chunk holds at most `size` bytes of what is waiting, so several
//   writes may come in one notification and a write may be split over two. The bytes arrive
//   unchanged and in order. A process that cannot allocate `size` bytes (several GiB on a
//   32-bit host) reads smaller chunks, down to 64 KiB, and says so once at WARN.
// - The pipe is opened relative to its checked folder (shared::CheckedFolder), without
//   following a symlink, and must be a FIFO or a regular file of root or the user.
// - A pipe removed and made again (by `slotctl rm --force` and a new reader or writer) is
//   another pipe, into which writers go on: when the reader finds no data for `period`, it
//   looks at the name and, when it leads to another FIFO, delivers what is left in the old pipe
//   and reads the new one (logged at INFO). A pipe that is only gone is kept.
// - The pipe is opened read-write and non-blocking. The reader thus counts as a writer too: it
//   never sees end-of-file when a writer closes, and it goes on reading when a new writer
//   opens the pipe. A regular file is read like `tail -f`: at its end the reader looks again
//   after `period`.
// - The destructor stops the thread at once (a self-pipe wakes its poll) and joins it; at the
//   latest the thread notices within `period`. In a child forked (without exec) the copy has
//   no thread (shared::ReaderNotifier::Inherited): its subscription calls return at once, also
//   when the fork came during a delivery, and destroying it only closes the child's
//   descriptors; the parent reads on.
// - Errors (a failed read, an exception from a subscriber) are logged at ERROR on
//   "Slot.Reader" and followed by a pause of `period`; they do not end the thread.
//
// Concurrency: subscribers are called on the reader thread; the shared::Notifier operations
// may be called from any thread. unsubscribe() and unsubscribeAll() wait for the delivery in
// progress only, also while the pipe stays full. Final because the thread runs from the
// constructor on.
class FILEUTILS_EXPORT PosixFileReader final : public shared::ReaderNotifier {
public:
    // Opens `path` (which must exist) and starts the thread; throws std::runtime_error when the
    // file cannot be opened. A `size` of 0 reads chunks of up to 65536 bytes.
    PosixFileReader(const std::string& path, unsigned size,
                    const boost::posix_time::time_duration& period);
    ~PosixFileReader() override;

    // True on the reader's own thread, i.e. inside a subscriber's onNotify: the reader cannot be
    // destroyed there, since the destructor joins that thread.
    bool OnOwnThread() const;

    void subscribe(shared::ISubscriber* subscriber) override;
    void unsubscribe(shared::ISubscriber* subscriber) override;
    void unsubscribeAll() override;

    const std::string& GetName() const { return name_; }

private:
    void Run();
    void ReadLoop(const shared::SizedArray& buffer);
    // Waits up to `timeoutMs` for data (or for ever when -1 and data is not wanted yet); false
    // when the reader is being stopped. `idle` (when given) tells whether the time ran out.
    bool WaitReadable(int timeoutMs, bool wantData, bool* idle = nullptr);
    // When the pipe's name now leads to another FIFO (removed and made again) and nothing is
    // left in the old one, reads the new one from then on.
    void FollowPipeMadeAgain();
    void Pause();
    void Wake();
    // Takes deliveryMutex_ for unsubscribe/unsubscribeAll, ahead of the thread.
    boost::recursive_mutex::scoped_lock LockForUnsubscribe();

    const std::string path_;
    const std::string name_;
    const unsigned size_;
    const int periodMs_;
    log4cxx::LoggerPtr logger_;
    shared::CheckedFolder folder_;  // the pipe's folder, checked at construction
    std::string leaf_;              // the pipe's name in folder_
    // The file read and its identity; changed only by the thread (when the pipe is made again).
    int fd_;
    bool isFifo_;
    dev_t device_;
    ino_t inode_;
    dev_t refusedDevice_;  // a pipe at the name that could not be opened, not tried again
    ino_t refusedInode_;
    int wakeFds_[2];  // self-pipe: written by subscribe() and the destructor
    // Held by the thread while it checks for subscribers, reads and notifies, and by
    // unsubscribe/unsubscribeAll. Recursive: a subscriber may unsubscribe from inside onNotify.
    // Taken before the Notifier's own mutex.
    boost::recursive_mutex deliveryMutex_;
    std::atomic<int> waitingUnsubscribers_;  // unsubscribe calls waiting for deliveryMutex_
    std::atomic<bool> stopping_;             // set by the destructor
    boost::thread thread_;
};

}  // namespace FileUtils
