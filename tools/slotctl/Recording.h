// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Cli.h"

#include <Slot/ISlot.h>
#include <Slot/ISlotConfiguration.h>
#include <Slot/PoolFactory.h>
#include <Slot/WriteOutcome.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace slotctl {

// Whether a read or info operand is a recording rather than a slot: it ends in ".mcap" and
// names an existing regular file. (A slot of such a name is reached when no such file exists.)
bool IsRecordingFile(const std::string& operand);

// For read and info, when the operand is no recording file: an operand ending in ".mcap" that
// names no slot either was meant as a recording, most likely, and is refused with CommandError
// (status 1) "cannot <verb> 'NAME': no such recording (and no slot of that name)".
void RefuseMissingRecording(const std::string& verb, const std::string& operand);

// Channel metadata of a recorded slot or pool. A slot's channel has kind (its type),
// max_block_size, queue_length, host and libslot_version; a pool's has object "pool", kind
// ("latest" or "queue"), max_block_size, block_count, host and libslot_version.
namespace meta {
const char* const Kind = "kind";
const char* const MaxBlockSize = "max_block_size";
const char* const QueueLength = "queue_length";
const char* const Host = "host";
const char* const Version = "libslot_version";
const char* const Object = "object";  // PoolObject on a pool's channel; absent on a slot's
const char* const PoolObject = "pool";
const char* const BlockCount = "block_count";
}  // namespace meta

typedef std::map<std::string, std::string> Metadata;

// The channel metadata describing slot `cfg`, and pool `config`.
Metadata SlotMetadata(const ISlotConfiguration& cfg);
Metadata PoolMetadata(const Slot::PoolConfig& config);

// Whether a channel with `metadata` recorded a pool.
bool IsPoolChannel(const Metadata& metadata);

// "reliable", "queue pool" and the like: what a channel recorded; "-" when unknown.
std::string ChannelKindText(const Metadata& metadata);

// Where blocks recorded from a pool of configuration `recorded` go when they are written into
// `name` (replay, record --tee): the pool `name` as it exists, else a new one with the recorded
// kind and geometry. A name that is only a slot is refused (it would become both).
Slot::PoolConfig PoolTargetFor(const std::string& command, const std::string& name,
                               const Slot::PoolConfig& recorded);

// "12.3 MB" and the like, for summaries.
std::string ByteText(std::uint64_t bytes);

// Writes blocks into one slot or pool in order: a block it refuses (a full reliable slot or
// queue pool, a pool without a free block) is retried after a short pause until it is stored or
// `stopping` says so. Never drops silently. A pool is written through a loan. While a reliable
// slot's queue is full (its count, read without a lock, says so) the block waits without being
// written: a refused write would log a WARN line each time.
class RetryingWriter {
public:
    enum class Result { Stored, TooLarge, Failed, Stopped };
    // How each write waits for the slot's lock, which a live process may keep. Plain: until it
    // is done (a reader's thread). Interruptible (the main thread only): it also ends when
    // `stopping` says so (Result::Stopped).
    enum class Waits { Plain, Interruptible };

    // Made on the main thread: the opening waits for the slot's lock until a stop signal
    // (Abandoned() is then true), also past the library's bound while a live process keeps it.
    RetryingWriter(const ISlotConfiguration& cfg, Waits waits);
    explicit RetryingWriter(const Slot::PoolConfig& config);
    Result Write(const char* data, size_t size, const std::function<bool()>& stopping);

    const std::string& Name() const { return name_; }
    std::uint64_t Stored() const { return stored_; }
    std::uint64_t Retries() const { return retries_; }
    std::uint64_t Lost() const { return lost_; }  // too large or failed
    // Closes the writer after the last Write. A posix-pipe's bytes that no reader has taken are
    // lost then; BytesLostAtClose() tells how many.
    void Close();
    std::uint64_t BytesLostAtClose() const;
    // A stop signal ended a wait for the slot's lock: a helper thread is still blocked on it, so
    // the process must end with LeaveNow.
    bool Abandoned() const { return abandoned_; }

private:
    // Whether the block may be written now: false while a reliable slot's queue is full.
    bool Room() const;
    // One write; None when `stopping` ended the wait for the lock (stoppedWaiting_ is set).
    Slot::WriteOutcome WriteSlot(const char* data, size_t size,
                                 const std::function<bool()>& stopping);

    std::string name_;
    size_t maxSize_;
    Waits waits_ = Waits::Plain;
    bool abandoned_ = false;
    bool stoppedWaiting_ = false;
    ISubscriberPtr writer_;
    boost::shared_ptr<ISlot> slot_;  // a shared-memory slot's: its lock and its count of blocks
    std::uint64_t capacity_ = 0;     // a reliable slot's queue, in blocks; 0 when not known
    boost::shared_ptr<Slot::PoolWriter> pool_;
    std::uint64_t stored_ = 0, retries_ = 0, lost_ = 0;
    // The process's count of the name's bytes lost at close before this writer was made.
    std::uint64_t lostAtCloseBefore_ = 0;
};

// read FILE.mcap and info FILE.mcap; `limitMs` bounds each wait for room in standard output
// (-1: none).
int ReadRecording(const Arguments& arguments, const std::string& path, int limitMs);
int RecordingInfo(const std::string& path);

}  // namespace slotctl
