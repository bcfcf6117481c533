// SPDX-License-Identifier: Apache-2.0
// A reliable route's link between gateways: the sending end (ReliableSender) publishes a block
// and keeps it until acknowledged; the receiving end (Acknowledger) acknowledges each block it
// stored, on "<topic>/ack".
#pragma once

#include <SlotGateway/Config.h>
#include <SlotGateway/Dds.h>
#include <SlotGateway/Internal.h>

#include <Slot/ISlot.h>

#include <dds/dds.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

class ReliableSlotReader;

namespace SlotGateway {

// The sending side of a reliable route, on a thread of its own.
//
// The thread takes one block at a time from the slot, and only while a receiving gateway is
// matched, publishes it, and keeps it in hand until a receiving gateway has stored it (an
// acknowledgement on "<topic>/ack"), and every other one matched at the publication too, unless it
// left. A receiving gateway is a participant with both a reader of the topic and a writer of
// acknowledgements; an acknowledgement counts for the participant DDS names as its writer, never
// for what it says, and only when that participant is or was a receiving gateway of the block.
// Another reader (a monitoring tool) is not waited for. A receiver that leaves before acknowledging
// gets the block again from its successor; one that matches while none has stored it gets it at
// once. Without a receiver a slot's block goes back to the head of the slot at once (held, it
// would be lost with this process); one that does not fit, the slot refilled meanwhile, stays in
// hand and is put back as soon as it fits, unless a receiver comes first. Nothing more is taken
// meanwhile. Taken again, a block put back keeps its serial.
//
// The slot has one reader per machine: from the first take on, this sender holds the slot's
// reader claim (a reliable slot reader whose thread is never started) and reads the slot itself,
// under the slot's lock, so that it decides when to take and sees empty blocks as blocks.
//
// A queue pool is read by the pool's one reader, started while a receiving gateway is matched:
// its callback publishes the block from the pool's memory (DDS's copy is the only one) and
// returns once the block is stored; the block stays at the head of the pool meanwhile. A pool
// cannot take a block back: one in hand at a stop that no receiver stores within the grace is
// dropped (logged), where a slot's is put back.
class ReliableSender {
public:
    // `writer` publishes on the route's topic, `ackReader` reads "<topic>/ack"; both stay
    // owned by the caller's participant. Starts the thread.
    ReliableSender(const Route& route, std::uint64_t gatewayId, dds_entity_t writer,
                   dds_entity_t ackReader, StopFlag& stop, std::chrono::milliseconds grace,
                   AtomicCounters& counters);
    // Stop().
    ~ReliableSender();
    ReliableSender(const ReliableSender&) = delete;
    ReliableSender& operator=(const ReliableSender&) = delete;

    // Once the stop flag is raised: ends the thread. No further block is taken; the block in hand
    // is delivered within the grace; one that no receiver stored by then goes back to the head
    // of the slot's queue (a pool's is dropped). Then lets DDS deliver what was published, within
    // the grace. Idempotent.
    void Stop();

    // The slot's reader claim is held (the slot is being read).
    bool Sending() const { return claimed_; }

private:
    void Run();
    // A queue pool's: keeps its pool reader running while a receiving gateway is matched.
    void RunPool();
    // On the pool reader's thread: sends one block of the pool.
    void SendPoolBlock(const void* data, std::size_t size);
    // Takes the slot's reader claim; false (logged now and then) while another reader has it.
    bool Claim();
    // Takes the oldest block into the hand; false when the slot is empty.
    bool Take();
    enum class Delivery {
        Stored,   // a receiver stored it (counted as forwarded)
        PutBack,  // a slot's, with no receiver matched: back at the head of the slot
        GaveUp,   // stopping, and the grace passed before a receiver stored it: still in hand
    };
    // Publishes the block in hand (`size` bytes at `data`) until stored, or put back.
    Delivery Deliver(const void* data, std::size_t size);
    // Puts the block in hand back at the head of the slot's queue (logged); false: the slot is
    // full (or failed), the block is still in hand.
    bool PutBack();
    // PutBack, or else drops the block (logged).
    void GiveBack();
    // The participants matched now as receiving gateways.
    std::set<Guid> ReceivingGateways() const;
    // Adds the receiving gateways that acknowledged block `serial`. An acknowledgement that
    // cannot be told to come from one yet is kept in `unplaced` (its writer) and looked at again
    // on the next call: the listener that learns a reader may run after it got the block.
    void TakeAcks(std::uint64_t serial, std::set<Guid>& storedBy,
                  std::vector<dds_instance_handle_t>& unplaced);

    const Route route_;
    const RouteSlotCfg cfg_;
    const std::uint64_t gatewayId_;
    const dds_entity_t writer_;
    const dds_entity_t ackReader_;
    StopFlag& stop_;
    const std::chrono::milliseconds grace_;
    AtomicCounters& counters_;
    // Who reads the blocks and who writes acknowledgements, by participant.
    MatchedPeers readers_;
    MatchedPeers acknowledgers_;
    dds_entity_t ackCondition_ = 0;
    dds_entity_t ackWaitset_ = 0;

    // The sending thread's own.
    boost::shared_ptr<ISlot> slot_;
    ObjectId slotFile_{0, 0};  // what slot_ is (ObjectOf); a change drops slot_ and claim_
    std::unique_ptr<ReliableSlotReader> claim_;
    // A queue pool's reader, dropped at the stop by the sending thread or by the reader's own
    // thread after a block; poolReaderGone_ once it has ended.
    std::mutex poolMutex_;
    std::condition_variable poolGone_;
    INotifierPtr poolReader_;      // guarded by poolMutex_
    bool poolReaderGone_ = false;  // guarded by poolMutex_
    Clock::time_point lastClaimError_;
    Clock::time_point lastRunError_;
    std::vector<std::uint8_t> held_;  // the block in hand: heldSize_ bytes, when holding_
    std::size_t heldSize_ = 0;
    bool holding_ = false;
    std::uint64_t heldSerial_ = 0;
    bool unacknowledged_ = false;  // Deliver gave up while a receiver was matched
    // The block last put back, until the next take: taken again, it keeps its serial.
    struct PutBackBlock {
        std::uint64_t serial;
        std::size_t size;
        std::size_t hash;
    };
    std::optional<PutBackBlock> putBack_;
    // How many blocks the slot held when it last refused the held block back (none: not refused).
    std::optional<std::size_t> refusedAt_;
    std::uint64_t sequence_ = 0;

    std::atomic<bool> claimed_{false};
    std::thread thread_;
    bool stopped_ = false;  // Stop()'s caller only
};

// The receiving end of a reliable route's link: tells the sending gateways which of their blocks
// are in the slot. An acknowledgement carries the sender's id and the block's serial, and as
// data the id of the gateway that stored it. Used by the route's receiving thread, then by Stop().
class Acknowledger {
public:
    // `ackWriter` publishes on "<topic>/ack" and stays owned by the caller's participant.
    Acknowledger(const std::string& slotName, std::uint64_t gatewayId, dds_entity_t ackWriter);

    // Tells the sending gateway that its block `serial` is in the slot (or was already).
    void Acknowledge(std::uint64_t sender, std::uint64_t serial);
    // Lets the acknowledgements sent reach their senders, within `grace`.
    void Flush(std::chrono::milliseconds grace);

private:
    const std::string slotName_;
    const std::uint64_t gatewayId_;
    const dds_entity_t ackWriter_;
};

}  // namespace SlotGateway
