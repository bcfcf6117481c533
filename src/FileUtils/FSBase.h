// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <FileUtils/Export.h>

#include <Slot/IFileOutputCfg.h>
#include <shared/SharedFolder.h>

#include <shared/WriteOutcome.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/mutex.hpp>

#include <log4cxx/logger.h>

#include <sys/types.h>
#include <cstddef>
#include <deque>
#include <string>

namespace FileUtils {

// An output file described by an IFileOutputCfg, written block by block with write(2).
//
// File name: the configured base, with "_<YYYYMMDDTHHMMSS>" (UTC, at opening) appended when
// the time-stamped flag is set. The time stamp is taken by Reopen() (and by the first opening
// of an FSSAutoReopen); automatic reopenings keep the name the output has (rotation: below). The
// format name of the configuration is not used: the formatting is the function given to
// FStreamSubscriber.
//
// Opening: the folder is a shared::CheckedFolder (real folders of root or the user down from
// the root, sticky where others may write) and the file is opened relative to it with
// O_NOFOLLOW, then checked with fstat: it must still be of the kind that was seen (a regular
// file, a FIFO or a character device; anything else, a symlink above all, is refused). In a
// folder that others may write to, the file must also belong to root or the user, and a
// regular file must have one link. A missing file is created with O_CREAT|O_EXCL, except for a
// named-pipe output (SetNamedPipeOnly), which opens nothing but an existing FIFO. Nothing that
// exists is truncated: the "empty on first opening" below puts a new empty file in the old
// one's place (rename), so a file that was not ours is never cut.
//
// Regular files:
// - opened in append mode; with the append flag off, the first opening by this object starts
//   an empty file (later reopenings append, so that a reopening never throws written data away);
// - never grow beyond the configured maximum size (0 = no limit). A block that would cross
//   it is refused with a WARN when rotation is off. With rotation on, the file is first renamed
//   to "<file>.0" (older ones move up to "<file>.<max file index>", the oldest is removed) and a
//   new file is started. A time-stamped output keeps its name across rotations, so each name
//   is one chain of at most <max file index> + 2 files and only Reopen() starts another.
//   A block larger than the maximum on its own is refused with a WARN.
//   Blocks are never split: when a write fails part way (ENOSPC, EFBIG), the part written is
//   cut off again, so the file ends with whole blocks and a reopening appends after them.
//
// Named pipes (FIFOs):
// - opened read-write and non-blocking. The open never waits for a reader, and since this
//   object is itself a reader of the pipe, a write can never fail with EPIPE or raise SIGPIPE.
// - a block enters the pipe whole or not at all. Blocks of up to PIPE_BUF (4096) bytes are
//   written by one atomic write(2). For a larger block the writer first waits until the pipe has
//   room for all of it, then writes it. The kernel keeps a pipe's bytes in pages, at most
//   size / page of them; a write takes at most ceil(bytes / page) pages of its own (its first
//   bytes may join the last page), and a page is freed only when all its bytes are read. The
//   writer therefore remembers its writes that are not yet read (FIONREAD tells how many bytes
//   are unread; reading goes in order) and counts ceil(bytes / page) pages for each: the block
//   goes in when those pages and its own fit in the pipe. Unread bytes that are not all its own
//   (another writer's, or a former writer's before this one opened the pipe) make it wait until
//   the pipe is empty. The kernel never mixes a block with other writers' bytes only for blocks
//   up to PIPE_BUF, so several writers of large blocks should not share a pipe.
// - a block refused or dropped is reported as WriteOutcome::Refused, a block cut short by an
//   error as WriteOutcome::Failed, never as stored.
// - a block larger than the pipe can ever hold makes the writer raise the pipe's size
//   (F_SETPIPE_SZ; /proc/sys/fs/pipe-max-size bounds it for unprivileged processes); when that
//   is not allowed the block is refused whole with an ERROR.
// - blocks written while no process reads are kept by the kernel, up to the pipe capacity
//   (64 KiB by default), and are read by the next reader that opens the pipe while this object
//   lives. When the pipe has no room the writer waits up to the pipe-full time-out (default
//   1 s), then drops the whole block with a WARN. While blocks are being dropped the writer does
//   not wait again until a block has gone through, so a pipe nobody reads costs one time-out,
//   not one per block.
// - bytes still unread when the writer closes the pipe, or leaves it for a pipe made again at
//   its name, are lost if no other process has it open for reading: the kernel frees a pipe
//   with its last descriptor. The writer finds out when it closes and then logs how many bytes
//   are lost, at WARN, and adds them to the slot's WriteCounts::bytesLostAtClose (see
//   SetWriteOutcomeName).
// - the maximum size and rotation do not apply.
// Other files (character devices) are written without limit.
//
// Messages go to logger "Slot.Writer": WARN for every refused or dropped block, ERROR for
// failed writes and openings.
//
// Concurrency: every public operation may be called from any thread; mutex_ serialises them,
// and a block is written under it, so blocks from different threads are never interleaved.
class FILEUTILS_EXPORT FSBase {
public:
    explicit FSBase(const IFileOutputCfg& cfg);
    virtual ~FSBase();

    FSBase(const FSBase&) = delete;
    FSBase& operator=(const FSBase&) = delete;

    // Opens the configured file, or opens it anew (an open stream is closed only after the new
    // one is open); a time-stamped output takes a new time stamp. Throws std::runtime_error when
    // it cannot be opened; an open stream is then kept.
    virtual void Reopen();

    bool IsOpen() const;
    // The path of the open file (empty before the first opening).
    std::string GetFileName() const;

    // The output is a named pipe: from now on only an existing FIFO is opened, and nothing is
    // made in its place when it is missing (an open pipe is then kept, else the opening fails).
    // An output becomes so by itself once it has opened a FIFO; the posix-pipe writer is made so
    // before its first opening.
    void SetNamedPipeOnly();

    // How long a write waits for room in a full named pipe before it drops the block.
    void SetPipeFullTimeout(const boost::posix_time::time_duration& timeout);

    // Records the outcome of every following block for the slot `slotName` (see
    // <shared/WriteOutcome.h>), and the unread bytes a named pipe loses when it is closed; the
    // factory names the writers of posix-pipe slots so.
    void SetWriteOutcomeName(const std::string& slotName);

protected:
    // Writes one block (already formatted); refusals and failures are logged.
    void WriteBlock(const char* data, size_t size);
    // A block with nothing to write (0 bytes, or formatted to nothing): recorded as stored.
    void RecordEmptyBlock();

    // Called under the lock before each block; true when the stream can take the block.
    // The default accepts an open stream only.
    virtual bool PrepareStreamLocked();

    // For PrepareStreamLocked overrides: whether the stream is open, and whether the file the
    // stream writes to is still the one that the file name leads to.
    bool IsOpenLocked() const { return fd_ >= 0; }
    bool FileIsStillInPlaceLocked() const;
    // Opens the stream again under the name it has (a new name only when it never had one), for
    // a file that was moved away or a stream closed after a failure.
    void ReopenLocked();

    // The time put into a time-stamped file name: now, UTC, to the second. Called under the
    // lock.
    virtual boost::posix_time::ptime FileNameTime() const;

    log4cxx::LoggerPtr logger_;

private:
    // The name of a new opening: the base, time-stamped when configured.
    std::string MakeFileName() const;
    // Opens `name` as the stream (see Reopen).
    void OpenLocked(const std::string& name);
    // Waits until the pipe has room for `size` bytes, up to `timeoutMs`; false when it has not.
    bool WaitForPipeRoomLocked(size_t size, size_t pageSize, long long timeoutMs);
    // Whether `pages` pages of a pipe holding `unread` bytes take a block of `size` bytes; drops
    // the writes that have been read from unreadWrites_.
    bool PipeHasRoomLocked(size_t unread, size_t size, size_t pageSize, size_t pages);
    // Notes a write(2) of `written` bytes that put all `requested` bytes in the pipe (or not).
    void NotePipeWriteLocked(size_t requested, size_t written, size_t pageSize);
    // Forgets the pipe's unread writes: the next large block waits for an empty pipe.
    void ForgetPipeWritesLocked();
    void WriteRegularFileLocked(const char* data, size_t size);
    void WritePipeLocked(const char* data, size_t size);
    // Writes all of a block; on failure logs, closes the stream and returns false. With
    // `undoTo` >= 0 (the size of the regular file before the block) a part that was written is
    // cut off again.
    bool WriteAllLocked(const char* data, size_t size, off_t undoTo = -1);
    // Logs a failed write that dropped `dropped` of `size` bytes and closes the stream.
    void FailWriteLocked(int error, size_t dropped, size_t size);
    void RotateLocked();
    void CloseLocked();
    // Closes `fd`; for a FIFO whose unread bytes no reader is left to take, says at WARN how
    // many are lost.
    void CloseStreamLocked(int fd, bool isFifo, const std::string& fileName);

    const std::string base_;
    const bool timestamped_;
    const bool append_;
    const bool rotate_;
    const size_t maxSize_;
    const unsigned int maxFileIndex_;

    mutable boost::mutex mutex_;
    int fd_;                                            // guarded by mutex_; -1 when closed
    bool isFifo_;                                       // guarded by mutex_
    bool isRegular_;                                    // guarded by mutex_
    dev_t openedDevice_;                                // guarded by mutex_; fd_'s file
    ino_t openedInode_;                                 // guarded by mutex_; fd_'s file
    bool openedBefore_;                                 // guarded by mutex_
    bool droppingOnFullPipe_;                           // guarded by mutex_
    bool pipeOnly_;                                     // guarded by mutex_
    std::string fileName_;                              // guarded by mutex_
    shared::CheckedFolder folder_;                      // guarded by mutex_; of fileName_
    std::string leaf_;                                  // guarded by mutex_; fileName_ in folder_
    boost::posix_time::time_duration pipeFullTimeout_;  // guarded by mutex_
    shared::WriteCounters* writeCounters_;              // guarded by mutex_; null: not recorded
    shared::WriteOutcome blockOutcome_;  // guarded by mutex_; of the block being written

    // This writer's writes into the pipe that may still be unread, oldest first: bytes and the
    // most pages they can take. Only while unreadKnown_: then every unread byte is in them.
    struct PipeWrite {
        size_t bytes;
        size_t pages;
    };
    std::deque<PipeWrite> unreadWrites_;  // guarded by mutex_
    size_t unreadWriteBytes_;             // guarded by mutex_; the sum of their bytes
    bool unreadKnown_;                    // guarded by mutex_
};

}  // namespace FileUtils
