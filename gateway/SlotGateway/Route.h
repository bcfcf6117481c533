// SPDX-License-Identifier: Apache-2.0
// One configured slot and its DDS writer and/or reader: sending, receiving, echo suppression.
#pragma once

#include <SlotGateway/Config.h>
#include <SlotGateway/Dds.h>
#include <SlotGateway/Internal.h>
#include <SlotGateway/Status.h>

#include <Slot/ISlot.h>

#include <dds/dds.h>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace SlotGateway {

class Acknowledger;
class ReliableSender;
class RouteSlotReader;
class SlotClaim;

// Blocks this gateway wrote into a "both" slot, so that its own reader of that slot does not
// send them back. A discarding reader may skip states, so a match also forgets every older
// entry; entries expire after a few update times. An entry is made before its write (the reader
// may hand the block back before the write call returns) and forgotten when the slot did not
// take the block, or when the reader handed back a block of another writer written after it.
class EchoMemory {
public:
    explicit EchoMemory(std::chrono::milliseconds lifetime) : lifetime_(lifetime) {}

    // Before writing the block; the entry's id.
    std::uint64_t Remember(const void* data, std::size_t size);
    // After the write: a block the slot did not take (`stored` false) is forgotten.
    void Written(std::uint64_t id, bool stored);
    // True when the block is one this gateway wrote.
    bool IsEcho(const void* data, std::size_t size);
    // A slot's reader handed back a block that is not an echo, written into the slot at
    // `written` (the slot's write time): the blocks this gateway had written before that are
    // older than it and never come back.
    void ForgetWrittenBefore(const boost::posix_time::ptime& written);
    // A pool's reader (no write time) handed back a block that is not an echo, read after
    // `before`: the blocks written before that are older than it and never come back.
    void ForgetWrittenBefore(Clock::time_point before);

private:
    struct Entry {
        std::uint64_t id;
        Clock::time_point written;                          // when remembered; for the expiry
        Clock::time_point done = Clock::time_point::max();  // when the write returned
        boost::posix_time::ptime doneUtc;  // the same on the slots' clock; not_a_date_time before
        std::vector<std::uint8_t> bytes;
    };
    static constexpr std::size_t kMaxEntries = 16;

    void Expire();

    std::mutex mutex_;
    std::deque<Entry> entries_;  // guarded by mutex_, oldest first
    std::uint64_t nextId_ = 0;   // guarded by mutex_
    std::chrono::milliseconds lifetime_;
};

// The last serial stored from each writer publishing on a receiving route's topic: a sample
// whose serial is not above it is a repetition (a reliable block published again, a discarding
// state repeated) and is not stored again. The gateway a sample names is only its claim: a
// sample naming a sending gateway with a serial far ahead would make that gateway's later blocks
// look like repetitions. So serials are kept per writer as DDS identifies it, and a gateway id
// belongs to the first writer seen naming it (each writer owns at most the first id it names;
// a gateway's writer names only its own). A sample whose writer DDS no longer knows (it left
// after publishing) counts as the owner's of the id it names. A writer's identity is asked of
// DDS once per publication handle, not for every sample (the answer is a copy of its whole
// description). Memory stays bounded over any number of sending gateways' runs: a departed
// writer's handles are forgotten once none of its samples can still be taken, and the oldest
// departed writers beyond kMaxDeparted are forgotten. Used by the route's receiving thread only.
class ReceivedSerials {
public:
    // What DDS knows of the writers the route's reader matches; a test gives its own.
    class Publications {
    public:
        virtual ~Publications() = default;
        // The writer of publication `handle`; nullopt once DDS no longer knows it.
        virtual std::optional<Guid> WriterOf(dds_instance_handle_t handle) const = 0;
        // The publications matched now; nullopt when DDS cannot tell.
        virtual std::optional<std::vector<dds_instance_handle_t>> Matched() const = 0;
    };

    // A departed writer is remembered in case it comes back under the same identity: a sending
    // gateway whose participant lost its lease (a cut link, a stalled host) is matched again
    // under a new handle and publishes the block in its hand once more. A sending gateway that
    // restarts is another writer, with another gateway id, so what piles up are the writers of
    // earlier runs: beyond this many, the longest gone is forgotten. A writer is thus forgotten
    // only after as many others left since it did; time alone forgets nothing, so a link cut
    // for hours still ends in no duplicate.
    static constexpr std::size_t kMaxDeparted = 256;

    explicit ReceivedSerials(const Publications& publications) : publications_(publications) {}
    ReceivedSerials(const ReceivedSerials&) = delete;
    ReceivedSerials& operator=(const ReceivedSerials&) = delete;

    // The last serial stored from the writer of `publication` (a sample's publication handle),
    // a sample of which names `gateway`; the caller sets it when it stores a newer one. Valid
    // until the next Tidy().
    std::uint64_t& LastOf(dds_instance_handle_t publication, std::uint64_t gateway);

    // Call only when the reader's history has just been emptied (a take found nothing), from
    // time to time. Forgets the handles DDS matched neither now nor at the previous call: their
    // writers' samples had all arrived by then, and have been taken since. Notes which handles
    // DDS does not match now, and forgets the oldest departed writers beyond kMaxDeparted.
    void Tidy();

    // Entries held (handles, writers, owned gateway ids): what the bound is about.
    std::size_t Size() const { return handles_.size() + writers_.size() + owners_.size(); }

private:
    struct Writer {
        std::uint64_t last = 0;
        std::size_t handles = 0;     // entries of handles_ naming it
        std::uint64_t departed = 0;  // its key in departed_ once it has no handle left; 0 before
        bool claimed = false;        // has named a gateway id (owned if nobody owned it)
        std::optional<std::uint64_t> owns;
    };
    using Writers = std::map<Guid, Writer>;
    struct Handle {
        Writers::iterator writer;
        bool leaving = false;  // not matched at the last Tidy()
    };

    const Publications& publications_;
    std::map<dds_instance_handle_t, Handle> handles_;
    Writers writers_;
    std::map<std::uint64_t, Guid> owners_;    // gateway id -> its owner
    std::map<std::uint64_t, Guid> departed_;  // writers without a handle, longest gone first
    std::uint64_t departures_ = 0;
};

// One configured slot and its DDS writer and/or reader.
class RouteRunner {
public:
    // `publisher`, `subscriber` and the topics stay owned by the caller's participant.
    RouteRunner(const Route& route, std::uint64_t gatewayId, dds_entity_t publisher,
                dds_entity_t subscriber, dds_entity_t topic, dds_entity_t ackTopic, StopFlag& stop,
                std::chrono::milliseconds grace);
    ~RouteRunner();
    RouteRunner(const RouteRunner&) = delete;
    RouteRunner& operator=(const RouteRunner&) = delete;

    const Route& route() const { return route_; }

    // Control thread, every few milliseconds.
    void Tick();

    // A best-effort writer's history does not reach a reader that matches later, so the current
    // state is published again (same serial: readers that have it skip it) a few times after a
    // new reader appeared, for a late-joining gateway to get it, and then once a second, so that
    // a state lost on the way still arrives.
    void RepeatStateForNewReaders();

    // Starts the slot reader of a discarding sending route; one whose thread ended (the slot's
    // lock failed) is dropped and started again after a back-off.
    void MaybeStartSending();

    // Once the stop flag is raised: tells a discarding slot's reader to end now, without waiting
    // out its wait for the slot. Lets StopSending of every route join at once.
    void AskToStopSending();

    // Ends the sending side; a reliable block in hand is delivered within the grace first.
    void StopSending();

    // Ends the receiving thread after it stored what DDS holds, and lets the acknowledgements of
    // those blocks reach their senders. A block that arrives after the last take is not
    // acknowledged: its sender gives it to the next receiving gateway.
    void StopReceiving();

    RouteStatus Status() const;

private:
    // The first subscriber of the route's slot reader; runs on the reader's thread.
    class Sender;

    std::uint32_t MatchedReaders() const;

    // Opens the receiving route's slot or pool writer (making the slot or pool when missing) and
    // sets maxSize_ and slotWriterFile_. Throws when it cannot.
    void OpenSlotWriter();
    // Before each write: reopens the writer when the name has come to name another object
    // (removed and made again), or none. Throws when it cannot; the writer is then unset.
    void ReopenSlotWriterIfRenewed();

    // The discarding slot to read, opened once and kept for restarts (see readSlot_).
    boost::shared_ptr<ISlot> ReadSlot();

    // The state a discarding slot's or pool's reader passes on (0 bytes: an empty state) is
    // published. `written`: a slot's write time of the block; not_a_date_time for a pool's.
    void Send(const void* data, std::size_t size, const boost::posix_time::ptime& written);

    // A "both" route stored a received state, newer than any this gateway published: the older
    // one is no longer repeated nor kept for late-joining readers.
    void ForgetOwnState();
    void ForgetOwnStateLocked();  // stateMutex_ held

    // A reliable route's: tells the sending gateway that its block `serial` is in the slot.
    void Acknowledge(std::uint64_t sender, std::uint64_t serial);

    void ReceiveLoop();
    // A reliable route's receiving thread, once it will store no more: deletes the reader, so
    // that the sending gateways see this one leave now, not when its participant goes, and
    // publish no further block to it (they put it back into their slot meanwhile).
    void LeaveTopic();

    // Writes one received block into the slot; a refusal is retried with back-off (and DDS is
    // not taken from meanwhile, so the sending side is held back) until stored or, when
    // stopping, until the grace has passed. False: not stored and not acknowledged, so that the
    // sending gateway gives the block to the next receiving gateway.
    bool Deliver(const void* data, std::size_t size, std::uint64_t sequence);

    const Route route_;
    const RouteSlotCfg cfg_;
    const std::uint64_t gatewayId_;
    StopFlag& stop_;
    const std::chrono::milliseconds grace_;
    EchoMemory echoes_;
    std::unique_ptr<SlotClaim> claim_;  // a receiving route's, taken before its slot is opened

    dds_entity_t writer_ = 0;
    dds_entity_t reader_ = 0;
    std::atomic<bool> readerDeleted_{false};  // LeaveTopic() deleted reader_
    dds_entity_t readCondition_ = 0;
    dds_entity_t waitset_ = 0;
    dds_entity_t wakeup_ = 0;
    std::unique_ptr<Acknowledger> acknowledger_;  // receiving reliable route: "stored" to the
                                                  // senders
    ISubscriberPtr slotWriter_;                   // used by the receiving thread only
    std::size_t maxSize_ = 0;                     // the largest block slotWriter_ takes
    ObjectId slotWriterFile_{0, 0};               // what slotWriter_ writes into (ObjectOf)
    std::thread receiver_;

    mutable std::mutex slotReaderMutex_;
    INotifierPtr poolReader_;                      // guarded by slotReaderMutex_
    std::unique_ptr<RouteSlotReader> slotReader_;  // guarded by slotReaderMutex_
    Clock::time_point lastStartError_;             // control thread only
    Clock::time_point readerStarted_;              // control thread only: slotReader_'s start
    Clock::time_point restartAt_;                  // control thread only: no reader before it
    std::chrono::milliseconds restartDelay_{0};    // control thread only: after the next ending
    // The discarding slot that the reader reads, kept for its restarts: every opening of a slot
    // clears its last state for all of its processes. Opened anew only when its name has come
    // to name another object (removed and made again). Control thread only.
    boost::shared_ptr<ISlot> readSlot_;
    ObjectId readSlotFile_{0, 0};
    std::uint32_t seenMatches_ = 0;          // control thread only
    std::deque<Clock::time_point> repeats_;  // control thread only
    std::mutex stateMutex_;
    std::vector<std::uint8_t> state_;  // last discarding block sent; guarded by stateMutex_
    std::uint64_t stateSerial_ = 0;    // guarded by stateMutex_
    bool haveState_ = false;           // guarded by stateMutex_
    std::uint64_t sequence_ = 0;       // guarded by stateMutex_
    Clock::time_point lastSend_;       // the slot reader's thread only: its last Send

    AtomicCounters counters_;
    // Called back on writer_ and reader_ until the destructor removes their listeners.
    QosMismatchWarning qosMismatch_;
    std::unique_ptr<ReliableSender> sender_;  // a reliable sending route's; destroyed first
};

}  // namespace SlotGateway
