// SPDX-License-Identifier: Apache-2.0
// The reader side of a pool, counted block holds, and the factory.
#include <Slot/AbortSlotCreationException.h>
#include <Slot/PoolBlock.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolSegment.h>
#include <Slot/SlotNames.h>

#include <shared/ManagedObject.h>
#include <shared/ReaderNotifier.h>
#include <shared/RobustMutex.h>
#include <shared/SharedFolder.h>

#include <unistd.h>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace Slot {

namespace {

thread_local PoolDelivery* currentDelivery = nullptr;

// How long a reader sleeps at most between looks at the pool (and at its stop request), and
// how often it reaps dead processes while idle.
constexpr long SleepSliceNs = 100 * 1000 * 1000;
constexpr auto ReapInterval = std::chrono::milliseconds(500);
// How often a new queue reader looks again at a claim whose entry another process reaps.
constexpr auto ReapedClaimSlice = std::chrono::milliseconds(5);

// A notifier with one thread that takes blocks from the pool and delivers them in place.
//
// Threads: the creator's thread constructs, subscribes and releases; the reader thread runs
// Run and every subscriber's onNotify, holding no lock of the pool while they run (the
// Notifier's own mutex guards its subscriber list). Holds are counted per block in the
// attachment, so subscribers' PoolBlock copies may be dropped on any thread. A forked child's
// copy has no thread: its subscription calls return at once (shared::ReaderNotifier).
class PoolReader : public shared::ReaderNotifier {
public:
    PoolReader(std::shared_ptr<PoolAttachment> attachment, std::int64_t spinNs,
               const ISubscriberPtr& first)
        : first_(first),
          attachment_(std::move(attachment)),
          segment_(attachment_->segment()),
          spinNs_(spinNs) {
        if (segment_.kind() == QueueKind) {
            Claim();
        }
        try {
            if (first_) {
                subscribe(first_.get());
            }
            thread_.reset(new std::thread([this] { Run(); }));
        } catch (...) {
            // No destructor runs: a claim kept here would refuse every later reader.
            ReleaseClaim();
            throw;
        }
    }

    ~PoolReader() override {
        if (attachment_->Inherited()) {
            // A forked child's copy: the thread runs in the parent only (joining or detaching
            // its handle here would act on whatever the child's own threads reuse), and the
            // claim is the parent's.
            thread_.release();
            return;
        }
        if (thread_ && thread_->joinable()) {
            stop_.store(true);
            segment_.Nudge();
            thread_->join();
        }
        ReleaseClaim();
    }

    // Deletes the reader, or, on its own thread (inside onNotify), stops it and lets the thread
    // delete it once the delivery in progress has unwound.
    static void Release(PoolReader* reader) {
        if (reader->thread_ && std::this_thread::get_id() == reader->thread_->get_id()) {
            reader->unsubscribeAll();
            reader->deleteSelf_ = true;
            reader->stop_.store(true);
        } else {
            delete reader;
        }
    }

private:
    void ReleaseClaim() {
        if (claimed_) {
            std::uint64_t claim = claim_;
            segment_.header().readerClaim.compare_exchange_strong(claim, ClaimGivenUp(claim_));
            claimed_ = false;
        }
    }

    void Claim() {
        std::atomic<std::uint64_t>& word = segment_.header().readerClaim;
        const unsigned own = attachment_->index() + 1;
        const auto deadline = std::chrono::steady_clock::now() + shared::CreationWaitLimit();
        for (int attempt = 0; attempt < 3; ++attempt) {
            std::uint64_t seen = word.load();
            const unsigned entry = ClaimedEntry(seen);
            if (entry == 0) {
                const std::uint64_t mine = NewClaim(seen, attachment_->index());
                if (word.compare_exchange_strong(seen, mine)) {
                    claim_ = mine;
                    claimed_ = true;
                    return;
                }
                continue;
            }
            // A reader claims after attaching and gives its claim up before detaching, and a
            // reaper before freeing the entry: a claim that names no attached entry (or none at
            // all) is left over, and is taken over rather than refusing readers for good. So is
            // one that names this reader's own new entry: an earlier owner of the entry left it.
            // The exchange fails if the word changed since it was judged (a newer claim).
            if (entry == own || entry > MaxPoolAttachments ||
                (segment_.attachment(entry - 1).word.load() & AttachInUse) == 0) {
                word.compare_exchange_strong(seen, ClaimGivenUp(seen));
                continue;
            }
            segment_.ReapDead();
            WaitWhileReaped(entry, deadline);
        }
        const unsigned claim = ClaimedEntry(segment_.header().readerClaim.load());
        std::string who;
        if (claim >= 1 && claim <= MaxPoolAttachments) {
            // Another namespace's pid would name nobody, or somebody else, here.
            const PoolAttachmentSlot& entry = segment_.attachment(claim - 1);
            who = EntryPidNamespace(entry).SameAs(OwnPidNamespace())
                      ? " (process " + std::to_string(entry.word.load() & AttachPidMask) + ")"
                      : " (a process in another pid namespace)";
        }
        throw AbortSlotCreationException("Cannot create a second reader for queue pool '" +
                                         segment_.name() + "': it has one" + who);
    }

    // While the claim names `entry` and another reaper (of this process or another) reaps that
    // entry, within `deadline`: the reaper gives the claim up before it frees the entry. A
    // reaper that dies meanwhile leaves its mark without its lock, and ReapDead takes over.
    void WaitWhileReaped(unsigned entry, std::chrono::steady_clock::time_point deadline) {
        while (ClaimedEntry(segment_.header().readerClaim.load()) == entry &&
               (segment_.attachment(entry - 1).word.load() & AttachReaping) != 0 &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(ReapedClaimSlice);
            segment_.ReapDead();
        }
    }

    void Run() {
        auto lastReap = std::chrono::steady_clock::now();
        while (!stop_.load()) {
            const std::uint32_t seen = segment_.header().publishCount.load();
            bool took = false;
            try {
                took = segment_.kind() == LatestKind ? TakeLatest() : TakeQueued();
            } catch (const std::exception& e) {
                LOG4CXX_ERROR(segment_.logger(),
                              "Pool '" << segment_.name() << "': reader: " << e.what());
            }
            if (took) {
                continue;
            }
            // Reaping is looked at before the wait, not between a publish and its delivery.
            const auto now = std::chrono::steady_clock::now();
            if (now - lastReap >= ReapInterval) {
                lastReap = now;
                segment_.ReapDead();
                segment_.TryReclaimAll();
            }
            if (!Spin(seen)) {
                segment_.Sleep(seen, SleepSliceNs, attachment_->bit());
            }
        }
        if (deleteSelf_) {
            thread_->detach();
            delete this;
        }
    }

    // True when a publish came within the spin budget. Out of line, so that a profile shows
    // the waiting apart from the delivery.
    __attribute__((noinline)) bool Spin(std::uint32_t seen) {
        if (spinNs_ <= 0) {
            return false;
        }
        // No pause instruction: under a hypervisor a loop of pauses makes it take the core
        // away (pause-loop exiting), which costs microseconds when the block comes. The clock
        // and the stop flag are looked at every 64 loads.
        const auto end = shared::SaturatedLater(std::chrono::steady_clock::now(),
                                                std::chrono::nanoseconds(spinNs_));
        const std::atomic<std::uint32_t>& count = segment_.header().publishCount;
        for (unsigned n = 1;; ++n) {
            if (count.load(std::memory_order_acquire) != seen) {
                return true;
            }
            if ((n & 63) == 0 && (stop_.load() || std::chrono::steady_clock::now() >= end)) {
                return stop_.load();
            }
        }
    }

    // Latest kind: holds the latest block if it is newer than the last one delivered. The hold
    // counts only when the latest word still names the block after the holder bit was set
    // (reclaimers look at the latest word before the holder bits). The hold is the attachment's
    // count, without an object: a subscriber's HoldCurrentBlock adds its own.
    bool TakeLatest() {
        for (;;) {
            const std::uint64_t latest = segment_.header().latest.load();
            if (latest == 0 || (latest >> 8) <= lastSequence_) {
                return false;
            }
            const unsigned index = static_cast<unsigned>(latest & 0xff);
            if (index >= segment_.blockCount()) {
                segment_.MarkDamaged("the latest word names block " + std::to_string(index));
                return false;
            }
            attachment_->Hold(index);
            if (segment_.header().latest.load() != latest) {
                attachment_->Release(index);  // superseded meanwhile
                continue;
            }
            std::atomic<std::uint32_t>& taken = segment_.block(index).taken;
            if (taken.load(std::memory_order_relaxed) == 0) {
                taken.store(1, std::memory_order_relaxed);  // a hint for the writer's outcome
            }
            lastSequence_ = latest >> 8;
            Deliver(index, latest >> 8, segment_.block(index).size.load(std::memory_order_relaxed));
            attachment_->Release(index);
            return true;
        }
    }

    // Queue kind: the entry at the head stays in the ring, and its block Published, until its
    // delivery has returned: nobody reclaims it meanwhile, so the delivery needs no hold.
    //
    // Memory orders: the head is stored by this reader only (a successor is ordered after it by
    // the claim's exchange), so it is loaded relaxed and stored with release (writers that read
    // it with acquire see the block Consumed first). The tail is loaded with acquire: it was
    // stored with release after the ring entry, the pushed word and the block's fields.
    //
    // The sequence of the entry at position n is n + 1. An entry between head and tail names a
    // Published block, except the one at the head that a reader killed after marking it
    // Consumed left behind: once this reader has moved the head itself, none is left, and the
    // block at the head is taken from the pushed word in the line of the tail when that word
    // is the head's (the usual case for a reader that keeps up), without the ring's line or the
    // block's. Otherwise the ring entry is read and the block's state checked.
    bool TakeQueued() {
        PoolHeader& header = segment_.header();
        const std::uint64_t head = header.head.load(std::memory_order_relaxed);
        const std::uint64_t tail = header.tail.load(std::memory_order_acquire);
        if (head == tail) {
            return false;
        }
        const unsigned count = segment_.blockCount();
        if (tail - head > count) {
            segment_.MarkDamaged("the ring's counters are out of range");
            return false;
        }
        const std::uint64_t sequence = head + 1;
        const std::uint64_t pushed = header.latest.load(std::memory_order_relaxed);
        const unsigned pushedIndex = PushedIndex(pushed);
        if (movedHead_ && tail - head == 1 &&
            PushedPosition(pushed) == (head & PushedPositionMask) && pushedIndex < count) {
            Pop(head, pushedIndex, sequence, PushedSize(pushed));
            return true;
        }
        if (pushedIndex < count) {
            // Most often the head's block: its line is fetched while the entry is read.
            __builtin_prefetch(&segment_.block(pushedIndex));
        }
        const std::uint64_t entry = segment_.ring(head).load(std::memory_order_relaxed);
        const unsigned index = static_cast<unsigned>(entry & 0xff);
        if (index >= count) {
            segment_.MarkDamaged("a ring entry names block " + std::to_string(index));
            MoveHead(head);
            return true;
        }
        PoolBlockSlot& block = segment_.block(index);
        if (entry >> 8 != sequence ||
            block.state.load(std::memory_order_acquire) != (StatePublished | sequence)) {
            MoveHead(head);  // left behind by a killed reader
            return true;
        }
        Pop(head, index, sequence, block.size.load(std::memory_order_relaxed));
        return true;
    }

    // Delivers the block at the head and moves the head past it.
    void Pop(std::uint64_t head, unsigned index, std::uint64_t sequence, std::uint64_t size) {
        lastSequence_ = sequence;
        Deliver(index, sequence, size);
        // Consumed before the head moves on: a reader killed in between leaves an entry whose
        // block is no longer Published(sequence), which the next reader skips. Held until the
        // head has moved: a writer reclaiming meanwhile must not loan the block while its entry
        // still fills the ring (its publish would find no room).
        attachment_->Hold(index);
        std::uint64_t published = StatePublished | sequence;
        segment_.block(index).state.compare_exchange_strong(published, StateConsumed | sequence);
        MoveHead(head);
        attachment_->Release(index);  // frees it, unless a subscriber holds it
    }

    void MoveHead(std::uint64_t head) {
        segment_.header().head.store(head + 1, std::memory_order_release);
        movedHead_ = true;
    }

    void Deliver(unsigned index, std::uint64_t sequence, std::uint64_t size) {
        if (size > segment_.maxBlockSize()) {
            segment_.MarkDamaged("block " + std::to_string(index) + " has size " +
                                 std::to_string(size));
            return;
        }
        PoolDelivery delivery{
            &attachment_, index, sequence, segment_.data(index), static_cast<std::size_t>(size),
            nullptr};
        currentDelivery = &delivery;
        try {
            notify(segment_.name(), delivery.data, static_cast<unsigned>(size));
        } catch (const std::exception& e) {
            LOG4CXX_ERROR(segment_.logger(),
                          "std::exception in '" << segment_.name() << "' : " << e.what());
        } catch (...) {
            LOG4CXX_ERROR(segment_.logger(), "Unknown exception in '" << segment_.name() << "'");
        }
        currentDelivery = nullptr;
    }

    // Declared first, so dropped last: a caller that waits for its first subscriber to be let go
    // then knows the pool is let go too (a reader released inside its own callback is deleted
    // by its thread, which may otherwise still be detaching while the process ends).
    ISubscriberPtr first_;
    std::shared_ptr<PoolAttachment> attachment_;
    PoolSegment& segment_;
    std::int64_t spinNs_;
    bool claimed_ = false;
    std::uint64_t claim_ = 0;         // the claim word this reader wrote
    std::uint64_t lastSequence_ = 0;  // reader thread only
    bool movedHead_ = false;          // reader thread only: this reader has moved the head
    std::atomic<bool> stop_{false};
    bool deleteSelf_ = false;  // reader thread only
    std::unique_ptr<std::thread> thread_;
};

INotifierPtr MakeReader(const PoolConfig& config, std::int64_t spinNs,
                        const ISubscriberPtr& first) {
    PoolReader* reader = new PoolReader(AttachToPool(config), spinNs, first);
    return INotifierPtr(static_cast<shared::INotifier*>(reader),
                        [reader](shared::INotifier*) { PoolReader::Release(reader); });
}

}  // namespace

PoolBlock::PoolBlock(std::shared_ptr<const PoolHold> hold) : hold_(std::move(hold)) {}

const void* PoolBlock::data() const {
    return hold_ ? hold_->data() : nullptr;
}

std::size_t PoolBlock::size() const {
    return hold_ ? hold_->size() : 0;
}

std::uint64_t PoolBlock::sequence() const {
    return hold_ ? hold_->sequence() : 0;
}

PoolBlock HoldCurrentBlock() {
    PoolDelivery* delivery = currentDelivery;
    if (delivery == nullptr) {
        return PoolBlock();
    }
    if (!delivery->hold) {
        delivery->hold = std::make_shared<const PoolHold>(
            *delivery->owner, delivery->block, delivery->sequence, delivery->data, delivery->size);
    }
    return PoolBlock(delivery->hold);
}

std::uint64_t CurrentBlockSequence() {
    return currentDelivery != nullptr ? currentDelivery->sequence : 0;
}

bool PoolFactory::PoolKindIsValid(const std::string& kind) {
    return kind == "latest" || kind == "queue";
}

boost::shared_ptr<PoolWriter> PoolFactory::CreatePoolWriter(const PoolConfig& config) {
    return boost::shared_ptr<PoolWriter>(new PoolWriter(AttachToPool(config)));
}

INotifierPtr PoolFactory::CreatePoolReader(const PoolConfig& config,
                                           const ISubscriberPtr& firstSubscriber) {
    return MakeReader(config, 0, firstSubscriber);
}

INotifierPtr PoolFactory::CreateSpinningPoolReader(
    const PoolConfig& config, const boost::posix_time::time_duration& spinBudget,
    const ISubscriberPtr& firstSubscriber) {
    if (spinBudget.is_special() || spinBudget.is_negative()) {
        throw AbortSlotCreationException("Cannot create a reader for pool '" + config.name +
                                         "': the spin budget must be finite and not negative");
    }
    return MakeReader(config, shared::SaturatedNanoseconds(spinBudget).count(), firstSubscriber);
}

unsigned PoolFactory::Recover(const std::string& name) {
    std::shared_ptr<PoolSegment> segment = PoolSegment::OpenExisting(name);
    const unsigned reaped = segment->ReapDead();
    segment->TryReclaimAll();
    return reaped;
}

bool PoolFactory::RemovePool(const std::string& name) {
    if (SlotNameProblem(name)) {
        return false;
    }
    try {
        shared::CheckedFolder folder = shared::CheckedFolder::Open(PoolDirectory());
        return ::unlinkat(folder.fd(), name.c_str(), 0) == 0;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace Slot
