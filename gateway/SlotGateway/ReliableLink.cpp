// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Dds.h>
#include <SlotGateway/ReliableLink.h>

#include <SlotGateway/Wire.h>

#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>
#include <shared/ILockable.h>
#include <shared/ISyncEvent.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>

namespace SlotGateway {

namespace {

// How long the thread sleeps at most between looks at the stop flag and the matched receivers.
constexpr std::chrono::milliseconds kPoll(20);

// A bound on the acknowledgements of one block kept while their writer is not known as a
// receiving gateway (a forger's stay so for ever).
constexpr std::size_t kMaxUnplaced = 64;

// Writes of one block that DDS held back (each for the route's max_blocking_time, 1 s) before
// that is logged: DDS waits for every reliable reader's acknowledgement of what it keeps.
constexpr unsigned kTimeoutsToWarn = 5;

// What tells a block put back from another one of the same size.
std::size_t HashOf(const void* data, std::size_t size) {
    return std::hash<std::string_view>()(std::string_view(static_cast<const char*>(data), size));
}

}  // namespace

ReliableSender::ReliableSender(const Route& route, std::uint64_t gatewayId, dds_entity_t writer,
                               dds_entity_t ackReader, StopFlag& stop,
                               std::chrono::milliseconds grace, AtomicCounters& counters)
    : route_(route),
      cfg_(route),
      gatewayId_(gatewayId),
      writer_(writer),
      ackReader_(ackReader),
      stop_(stop),
      grace_(grace),
      counters_(counters),
      readers_(writer, true),
      acknowledgers_(ackReader, false) {
    ackCondition_ =
        Check(dds_create_readcondition(ackReader_, DDS_ANY_STATE), "dds_create_readcondition");
    ackWaitset_ = Check(dds_create_waitset(DDS_CYCLONEDDS_HANDLE), "dds_create_waitset");
    dds_waitset_attach(ackWaitset_, ackCondition_, 0);
    thread_ = std::thread([this] { Run(); });
}

ReliableSender::~ReliableSender() {
    Stop();
    dds_delete(ackWaitset_);
}

void ReliableSender::Stop() {
    if (stopped_) {
        return;
    }
    stopped_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    dds_wait_for_acks(writer_, DDS_MSECS(stop_.GraceLeft(grace_, kLastWords).count()));
}

void ReliableSender::Run() {
    if (route_.isPool()) {
        RunPool();
        return;
    }
    const std::chrono::milliseconds slice = std::min<std::chrono::milliseconds>(
        kPoll * 5, std::chrono::milliseconds(route_.updateTimeMs));
    while (!stop_.set) {
        try {
            if (!holding_) {
                // The check comes right before the take: a block is taken only while a receiving
                // gateway is matched.
                if (ReceivingGateways().empty()) {
                    stop_.WaitFor(kPoll);
                    continue;
                }
                // A slot removed and made again is another object, which the kept mapping and
                // claim no longer show (also the remedy for a damaged one): read anew.
                if (slot_ && ObjectOf(route_) != slotFile_) {
                    claim_.reset();
                    slot_.reset();
                    claimed_ = false;
                    putBack_.reset();
                    LOG4CXX_INFO(Logger(), "Slot '" << route_.name
                                                    << "' was removed or made again: the one of "
                                                       "that name is read now");
                }
                if (!claim_ && !Claim()) {
                    stop_.WaitFor(std::chrono::milliseconds(200));
                    continue;
                }
                if (!Take()) {
                    slot_->GetOnWriteCondition()->Wait(
                        boost::posix_time::milliseconds(slice.count()));
                    continue;
                }
            }
            const Delivery delivery = Deliver(held_.data(), heldSize_);
            if (delivery == Delivery::Stored || delivery == Delivery::PutBack) {
                holding_ = false;
            }
        } catch (const std::exception& e) {
            // A damaged slot throws on every try: said once per half minute.
            const Clock::time_point now = Clock::now();
            if (now - lastRunError_ > std::chrono::seconds(30)) {
                lastRunError_ = now;
                LOG4CXX_ERROR(Logger(), "Sending slot '" << route_.name << "': " << e.what()
                                                         << " (retrying)");
            }
            stop_.WaitFor(std::chrono::milliseconds(200));
        }
    }
    if (holding_) {
        GiveBack();
        holding_ = false;
    }
    claim_.reset();
    claimed_ = false;
}

namespace {

// The pool reader's subscriber; `gone` runs when the reader drops it, as it ends.
class PoolBlockSender : public shared::ISubscriber {
public:
    PoolBlockSender(std::function<void(const void*, std::size_t)> send, std::function<void()> gone)
        : send_(std::move(send)), gone_(std::move(gone)) {}
    ~PoolBlockSender() override { gone_(); }
    void onNotify(const std::string&, const void* data, size_t size) override { send_(data, size); }

private:
    std::function<void(const void*, std::size_t)> send_;
    std::function<void()> gone_;
};

}  // namespace

void ReliableSender::RunPool() {
    bool started = false;
    while (!stop_.set) {
        if (!started) {
            // The reader starts only while a receiving gateway is matched; once started, a block
            // waits in its callback for a receiver.
            if (ReceivingGateways().empty()) {
                stop_.WaitFor(kPoll);
                continue;
            }
            try {
                {
                    std::lock_guard<std::mutex> guard(poolMutex_);
                    poolReaderGone_ = false;
                }
                INotifierPtr reader = Slot::PoolFactory::CreatePoolReader(
                    RoutePoolCfg(route_),
                    ISubscriberPtr(new PoolBlockSender(
                        [this](const void* data, std::size_t size) { SendPoolBlock(data, size); },
                        [this] {
                            std::lock_guard<std::mutex> guard(poolMutex_);
                            poolReaderGone_ = true;
                            poolGone_.notify_all();
                        })));
                std::lock_guard<std::mutex> guard(poolMutex_);
                poolReader_ = reader;
                started = true;
            } catch (const std::exception& e) {
                const Clock::time_point now = Clock::now();
                if (now - lastClaimError_ > std::chrono::seconds(30)) {
                    lastClaimError_ = now;
                    LOG4CXX_ERROR(Logger(), "Cannot read pool '" << route_.name << "': " << e.what()
                                                                 << " (retrying)");
                }
                stop_.WaitFor(std::chrono::milliseconds(200));
                continue;
            }
            claimed_ = true;
            if (Logger()->isInfoEnabled()) {
                LOG4CXX_INFO(Logger(), "Pool '" << route_.name << "' is sent to topic '"
                                                << route_.topic << "' (domain " << route_.domain
                                                << ")");
            }
        }
        stop_.WaitFor(kPoll * 5);
    }
    if (started) {
        // Unless the reader's thread let it go itself (SendPoolBlock), the last reference: stops
        // the reader and joins its thread; the block in hand is delivered within the grace.
        INotifierPtr reader;
        {
            std::lock_guard<std::mutex> guard(poolMutex_);
            reader.swap(poolReader_);
        }
        reader.reset();
        std::unique_lock<std::mutex> lock(poolMutex_);
        poolGone_.wait(lock, [this] { return poolReaderGone_; });
    }
    claimed_ = false;
}

void ReliableSender::SendPoolBlock(const void* data, std::size_t size) {
    heldSerial_ = ++sequence_;
    if (Deliver(data, size) != Delivery::Stored) {
        ++counters_.dropped;
        LOG4CXX_ERROR(Logger(), "Block " << heldSerial_ << " of pool '" << route_.name
                                         << "' dropped: no receiver stored it while the gateway "
                                            "stopped");
    }
    if (stop_.set) {
        // Dropped here, on its own thread, the reader takes no further block once this call
        // returns (from outside, it could take one before it learns of the stop); RunPool waits
        // for it to end. Nothing of this object is used after the reset.
        INotifierPtr reader;
        {
            std::lock_guard<std::mutex> guard(poolMutex_);
            reader.swap(poolReader_);
        }
        reader.reset();
    }
}

bool ReliableSender::Claim() {
    try {
        if (!slot_) {
            slot_ = SlotFactory::CreateSlot(&cfg_);
            slotFile_ = ObjectOf(route_);
        }
        claim_.reset(new ReliableSlotReader(slot_, cfg_.GetUpdateTime()));
    } catch (const std::exception& e) {
        const Clock::time_point now = Clock::now();
        if (now - lastClaimError_ > std::chrono::seconds(30)) {
            lastClaimError_ = now;
            LOG4CXX_ERROR(Logger(), "Cannot read slot '" << route_.name << "': " << e.what()
                                                         << " (retrying)");
        }
        return false;
    }
    held_.resize(std::max<std::size_t>(1, slot_->GetMaxDataSize()));
    claimed_ = true;
    if (Logger()->isInfoEnabled()) {
        LOG4CXX_INFO(Logger(), "Slot '" << route_.name << "' is sent to topic '" << route_.topic
                                        << "' (domain " << route_.domain << ")");
    }
    return true;
}

bool ReliableSender::Take() {
    // This is the slot's only reader: a block counted under the lock is there to be read, also
    // one of 0 bytes.
    boost::interprocess::scoped_lock<shared::ILockable> lock(*slot_->GetLockable());
    if (slot_->GetBufferLength() == 0) {
        return false;
    }
    heldSize_ = slot_->ReadData(held_.data(), held_.size());
    // The block put back is at the head of the slot (the only reader is this one): it keeps its
    // serial, so that a receiver that stored it and left for a moment only (its lease ran out,
    // it matched again) recognises it.
    if (putBack_ && putBack_->size == heldSize_ &&
        putBack_->hash == HashOf(held_.data(), heldSize_)) {
        heldSerial_ = putBack_->serial;
    } else {
        heldSerial_ = ++sequence_;
    }
    putBack_.reset();
    holding_ = true;
    return true;
}

ReliableSender::Delivery ReliableSender::Deliver(const void* data, std::size_t size) {
    // Only read: DDS serialises the sample, a pool's block stays as published.
    SlotGatewayWire_Block sample = WireSample(gatewayId_, heldSerial_, data, size);

    // Asked anew each time: a second stop signal cuts the grace short.
    auto givingUp = [&] { return stop_.set && Clock::now() >= stop_.GraceEnd(grace_); };
    unacknowledged_ = false;
    // Endpoints that left before this block is published cannot have stored it.
    readers_.Forget();
    acknowledgers_.Forget();
    // The receiving gateways that acknowledged the block; empty whenever it goes out again.
    std::set<Guid> storedBy;
    std::vector<dds_instance_handle_t> unplaced;
    unsigned timeouts = 0;  // writes of this block that DDS held back for max_blocking_time
    for (bool first = true;; first = false) {
        if (!first) {
            ++counters_.retried;
        }
        for (bool waited = false; ReceivingGateways().empty(); waited = true) {
            // A receiver that stored the block and left: its acknowledgement, sent before it
            // left, may come after the news that it left.
            TakeAcks(sample.serial, storedBy, unplaced);
            if (!storedBy.empty()) {
                ++counters_.forwarded;
                return Delivery::Stored;
            }
            // Then a slot's block goes back: held here, it would be lost with this process (a
            // SIGKILL, a crash). One that does not fit (the writer filled the slot) is tried
            // again on every poll, until it fits or a receiver comes.
            if (waited && !route_.isPool() && PutBack()) {
                return Delivery::PutBack;
            }
            if (givingUp()) {
                return Delivery::GaveUp;
            }
            stop_.SleepInGrace(kPoll);
        }
        const Matches before = PublicationMatches(writer_);
        const std::map<dds_instance_handle_t, Guid> publishedTo = readers_.MatchedEndpoints();
        const dds_return_t written = dds_write(writer_, &sample);
        if (written != DDS_RETCODE_OK) {
            if (written == DDS_RETCODE_TIMEOUT && ++timeouts == kTimeoutsToWarn) {
                LOG4CXX_WARN(Logger(), "Block " << heldSerial_ << " of '" << route_.name
                                                << "' not published after " << timeouts
                                                << " write time-outs: a reader of topic '"
                                                << route_.topic
                                                << "' does not acknowledge (retrying)");
            }
            if (written != DDS_RETCODE_TIMEOUT) {
                LOG4CXX_WARN(Logger(), "Block of '" << route_.name << "' not published yet: "
                                                    << dds_strretcode(written));
                stop_.SleepInGrace(std::chrono::milliseconds(50));
            }
            if (givingUp()) {
                return Delivery::GaveUp;
            }
            continue;
        }
        // Done once a receiving gateway stored the block in its slot, and every other one that
        // was matched when it was published, and still is, stored it too. While none has, a
        // receiver that left (a restart) or one that matched after the publication (a restart's
        // successor: the topic keeps no history for late readers) makes the block go out again
        // at once: receivers that have it recognise the serial and only acknowledge it once more.
        // One that acknowledged and left counts as having stored it, and its successor is not
        // sent the block: the receivers are looked at before the acknowledgements, and one that
        // has left sent its acknowledgements before.
        bool again = false;
        for (;;) {
            const Matches now = PublicationMatches(writer_);
            const std::set<Guid> receivers = ReceivingGateways();
            const std::map<dds_instance_handle_t, Guid> readers = readers_.MatchedEndpoints();
            TakeAcks(sample.serial, storedBy, unplaced);
            bool allStored = !storedBy.empty();
            for (const auto& reader : publishedTo) {
                allStored = allStored && (readers.count(reader.first) == 0 ||
                                          receivers.count(reader.second) == 0 ||
                                          storedBy.count(reader.second) != 0);
            }
            if (allStored) {
                break;
            }
            const bool someLeft = now.total - now.current != before.total - before.current;
            const bool someCame = now.total != before.total;
            if (storedBy.empty() && (someCame || receivers.empty() || someLeft)) {
                again = true;
                break;
            }
            if (givingUp()) {
                // Published and matched, only not yet stored: the receiver may never store it
                // (its slot full until it stops too), so the block stays with this side. A
                // receiver that stores it after all has it twice once the block is sent again.
                unacknowledged_ = true;
                return Delivery::GaveUp;
            }
            dds_waitset_wait(ackWaitset_, nullptr, 0, DDS_MSECS(kPoll.count()));
        }
        if (!again) {
            ++counters_.forwarded;
            return Delivery::Stored;
        }
    }
}

std::set<Guid> ReliableSender::ReceivingGateways() const {
    const std::set<Guid> readers = readers_.Matched();
    const std::set<Guid> acknowledgers = acknowledgers_.Matched();
    std::set<Guid> both;
    std::set_intersection(readers.begin(), readers.end(), acknowledgers.begin(),
                          acknowledgers.end(), std::inserter(both, both.end()));
    return both;
}

void ReliableSender::TakeAcks(std::uint64_t serial, std::set<Guid>& storedBy,
                              std::vector<dds_instance_handle_t>& unplaced) {
    // Anyone on the domain can publish an acknowledgement naming any gateway as the one that
    // stored the block: it counts for the participant DDS names as its writer, and only when
    // that participant reads (or read, since the block was published) this route's blocks.
    auto place = [&](dds_instance_handle_t writer) {
        const std::optional<Guid> participant = acknowledgers_.ParticipantOf(writer);
        if (participant && readers_.Knows(*participant)) {
            storedBy.insert(*participant);
            return true;
        }
        return false;
    };
    unplaced.erase(std::remove_if(unplaced.begin(), unplaced.end(), place), unplaced.end());
    for (;;) {
        void* samples[1] = {nullptr};
        dds_sample_info_t info[1];
        const dds_return_t n = dds_take(ackReader_, samples, info, 1, 1);
        if (n <= 0) {
            return;
        }
        if (info[0].valid_data) {
            const auto* ack = static_cast<const SlotGatewayWire_Block*>(samples[0]);
            if (ack->gateway == gatewayId_ && ack->serial == serial &&
                ack->data._length == sizeof(std::uint64_t) && !place(info[0].publication_handle) &&
                unplaced.size() < kMaxUnplaced) {
                unplaced.push_back(info[0].publication_handle);
            }
        }
        dds_return_loan(ackReader_, samples, n);
    }
}

bool ReliableSender::PutBack() {
    // Under the slot's lock, which writers hold around each write: the block goes to the end of
    // the queue, then each block that waited before it is taken from the head and appended
    // again, which leaves the block at the head and the others in their order. The queue never
    // holds more than before plus this block, and no more than one block is out of it at a time.
    bool stored = false;
    const PutBackBlock block{heldSerial_, heldSize_, HashOf(held_.data(), heldSize_)};
    try {
        if (ObjectOf(route_) != slotFile_) {
            // Removed and made again while the block was in hand: it goes to the slot of that
            // name now, not to the removed one that nobody reads. The claim on the removed one
            // is no claim on the new one: the next take claims it first.
            claim_.reset();
            claimed_ = false;
            refusedAt_.reset();
            slot_ = SlotFactory::CreateSlot(&cfg_);
            slotFile_ = ObjectOf(route_);
            held_.resize(std::max(held_.size(), slot_->GetMaxDataSize()));
        }
        {
            boost::interprocess::scoped_lock<shared::ILockable> lock(*slot_->GetLockable());
            const std::size_t waiting = slot_->GetBufferLength();
            // Tried on every poll: while the slot is as full as when it last refused the block
            // (this gateway is its only reader, so it only fills), the refusal and its warning
            // are not repeated. The stop's last try writes all the same.
            if (!stop_.set && refusedAt_ && waiting >= *refusedAt_) {
                return false;
            }
            slot_->WriteData(held_.data(), heldSize_);
            stored = Slot::LastWriteOutcome() == Slot::WriteOutcome::Stored;
            refusedAt_.reset();
            if (!stored) {
                refusedAt_ = waiting;
            }
            for (std::size_t i = 0; stored && i < waiting; ++i) {
                const std::size_t size = slot_->ReadData(held_.data(), held_.size());
                slot_->WriteData(held_.data(), size);
                if (Slot::LastWriteOutcome() != Slot::WriteOutcome::Stored) {
                    ++counters_.dropped;
                    LOG4CXX_ERROR(Logger(), "A block of '" << route_.name
                                                           << "' was lost while the gateway "
                                                              "put a block back into the slot");
                }
            }
        }
        slot_->GetOnWriteCondition()->Notify();
    } catch (const std::exception& e) {
        // Tried again on every poll while no receiver is matched: said once per half minute.
        const Clock::time_point now = Clock::now();
        if (stop_.set || now - lastRunError_ > std::chrono::seconds(30)) {
            lastRunError_ = now;
            LOG4CXX_ERROR(Logger(), "Slot '" << route_.name << "': " << e.what());
        }
    }
    if (!stored) {
        return false;
    }
    putBack_ = block;
    if (!stop_.set) {
        LOG4CXX_INFO(Logger(), "No receiver for slot '" << route_.name << "': block " << heldSerial_
                                                        << " put back at the head of the slot");
    } else if (unacknowledged_) {
        LOG4CXX_WARN(Logger(), "No receiver stored block "
                                   << heldSerial_ << " of slot '" << route_.name
                                   << "' while stopping: put back at the head of the slot");
    } else {
        LOG4CXX_WARN(Logger(), "No receiver for slot '" << route_.name << "' while stopping: block "
                                                        << heldSerial_
                                                        << " put back at the head of the slot");
    }
    return true;
}

void ReliableSender::GiveBack() {
    if (PutBack()) {
        return;
    }
    ++counters_.dropped;
    LOG4CXX_ERROR(Logger(), "Block " << heldSerial_ << " of '" << route_.name << "' dropped: "
                                     << (unacknowledged_ ? "no receiver stored it" : "no receiver")
                                     << " and the slot refused it back");
}

Acknowledger::Acknowledger(const std::string& slotName, std::uint64_t gatewayId,
                           dds_entity_t ackWriter)
    : slotName_(slotName), gatewayId_(gatewayId), ackWriter_(ackWriter) {}

void Acknowledger::Acknowledge(std::uint64_t sender, std::uint64_t serial) {
    const std::uint64_t self = gatewayId_;
    SlotGatewayWire_Block ack = WireSample(sender, serial, &self, sizeof self);
    const dds_return_t rc = dds_write(ackWriter_, &ack);
    if (rc != DDS_RETCODE_OK) {
        LOG4CXX_WARN(Logger(), "Acknowledgement of block " << serial << " of '" << slotName_
                                                           << "' not sent: " << dds_strretcode(rc));
    }
}

void Acknowledger::Flush(std::chrono::milliseconds grace) {
    dds_wait_for_acks(ackWriter_, DDS_MSECS(grace.count()));
}

}  // namespace SlotGateway
