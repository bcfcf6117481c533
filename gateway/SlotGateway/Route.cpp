// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Dds.h>
#include <SlotGateway/ReliableLink.h>
#include <SlotGateway/Route.h>
#include <SlotGateway/SlotClaim.h>

#include <SlotGateway/Wire.h>

#include <Slot/BoostInterprocess/DiscardingSlotReader.h>
#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>
#include <Slot/WriteOutcome.h>
#include <shared/ISyncEvent.h>
#include <shared/UtcClock.h>

#include <log4cxx/logger.h>
#include <boost/thread/thread.hpp>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace SlotGateway {

namespace {

// A discarding slot's reader that ended is started again after kFirstRestart; one that ends
// again within kRestartSettled of its start waits twice as long as the previous one, up to
// kLastRestart.
constexpr std::chrono::milliseconds kFirstRestart(1000);
constexpr std::chrono::milliseconds kLastRestart(30000);
constexpr std::chrono::seconds kRestartSettled(60);

}  // namespace

ObjectId ObjectOf(const Route& route) {
    const std::string path = route.isPool() ? Slot::PoolPath(route.name)
                                            : Slot::ShmPath(Slot::HeaderObjectName(route.name));
    struct stat st;
    if (::fstatat(AT_FDCWD, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return {0, 0};
    }
    return {st.st_dev, st.st_ino};
}

std::uint64_t EchoMemory::Remember(const void* data, std::size_t size) {
    std::lock_guard<std::mutex> guard(mutex_);
    Expire();
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    const std::uint64_t id = ++nextId_;
    entries_.push_back({id, Clock::now(), Clock::time_point::max(), boost::posix_time::ptime(),
                        std::vector<std::uint8_t>(bytes, bytes + size)});
    if (entries_.size() > kMaxEntries) {
        entries_.pop_front();
    }
    return id;
}

void EchoMemory::Written(std::uint64_t id, bool stored) {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->id == id) {
            if (stored) {
                it->done = Clock::now();
                it->doneUtc = shared::UtcNow();
            } else {
                entries_.erase(it);
            }
            return;
        }
    }
}

void EchoMemory::ForgetWrittenBefore(const boost::posix_time::ptime& written) {
    if (written.is_special()) {
        return;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    // An entry whose write returned before the block was written lies under it in the slot.
    // One still being written (or finished at the same tick) may be newer: it is kept.
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [&](const Entry& entry) {
                                      return !entry.doneUtc.is_special() && entry.doneUtc < written;
                                  }),
                   entries_.end());
}

void EchoMemory::ForgetWrittenBefore(Clock::time_point before) {
    std::lock_guard<std::mutex> guard(mutex_);
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [&](const Entry& entry) { return entry.done < before; }),
                   entries_.end());
}

bool EchoMemory::IsEcho(const void* data, std::size_t size) {
    std::lock_guard<std::mutex> guard(mutex_);
    Expire();
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->bytes.size() == size &&
            (size == 0 || std::memcmp(it->bytes.data(), data, size) == 0)) {
            entries_.erase(entries_.begin(), it + 1);
            return true;
        }
    }
    return false;
}

void EchoMemory::Expire() {
    const Clock::time_point now = Clock::now();
    while (!entries_.empty() && now - entries_.front().written > lifetime_) {
        entries_.pop_front();
    }
}

// The reader of a discarding sending route's slot. Unlike the factory's reader it starts
// without pausing one update time (routes start one after the other on the control thread),
// ends at once when asked (its wait for the slot is woken), tells when its thread has ended
// (it ends for good when the slot's lock fails), and tells its subscriber the slot's write time
// of the block being delivered.
class RouteSlotReader : public DiscardingSlotReader {
public:
    RouteSlotReader(const boost::shared_ptr<ISlot>& slot,
                    const boost::posix_time::time_duration& updateTime)
        : DiscardingSlotReader(slot, updateTime) {}
    ~RouteSlotReader() override {
        if (!Inherited()) {  // in a forked child the thread is the parent's
            AskToStop();
            Join();
        }
    }

    // `subscriber` gets every block; kept until the reader is destroyed. Call once.
    void Start(const ISubscriberPtr& subscriber) {
        subscriber_ = subscriber;
        subscribe(subscriber_.get());
        startHandler_.RunAndWaitForHandler([this] {
            thread_ = boost::thread([this] {
                (*this)();
                ended_ = true;
            });
        });
    }
    // The thread ends at its next step; its wait for the slot is woken so that the step comes
    // now. (A wake-up that comes before the wait makes the wait return at once.)
    void AskToStop() {
        if (!thread_.joinable()) {
            return;
        }
        thread_.interrupt();
        try {
            slot_->GetOnWriteCondition()->Notify();
        } catch (const std::exception&) {
            // A damaged slot: its waits fail too, or end within the update time.
        }
    }
    void Join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    bool Ended() const { return ended_; }
    // Inside the subscriber: the slot's write time of the block being delivered.
    const boost::posix_time::ptime& BlockWritten() const { return written_; }

    bool DataInSlotIsActual() override {
        const bool actual = DiscardingSlotReader::DataInSlotIsActual();
        if (actual) {
            written_ = slot_->GetLastWriteTime();
        }
        return actual;
    }

private:
    ISubscriberPtr subscriber_;
    std::atomic<bool> ended_{false};
    boost::posix_time::ptime written_;  // reader thread only
};

class RouteRunner::Sender : public shared::ISubscriber {
public:
    // `reader`: the slot's reader that calls this one; null for a pool's.
    Sender(RouteRunner* runner, const RouteSlotReader* reader) : runner_(runner), reader_(reader) {}
    void onNotify(const std::string&, const void* data, size_t size) override {
        runner_->Send(data, size, reader_ ? reader_->BlockWritten() : boost::posix_time::ptime());
    }

private:
    RouteRunner* runner_;
    const RouteSlotReader* reader_;
};

RouteRunner::RouteRunner(const Route& route, std::uint64_t gatewayId, dds_entity_t publisher,
                         dds_entity_t subscriber, dds_entity_t topic, dds_entity_t ackTopic,
                         StopFlag& stop, std::chrono::milliseconds grace)
    : route_(route),
      cfg_(route),
      gatewayId_(gatewayId),
      stop_(stop),
      grace_(grace),
      echoes_(std::chrono::milliseconds(std::max<unsigned>(1000, 4 * route.updateTimeMs))),
      qosMismatch_(route) {
    QosPtr qos(RouteQos(route));
    if (route.sends()) {
        QosPtr writerQos(RouteWriterQos(route));
        writer_ = Check(dds_create_writer(publisher, topic, writerQos.get(), nullptr),
                        "dds_create_writer");
    }
    if (route.receives()) {
        claim_.reset(new SlotClaim(route.name));
        OpenSlotWriter();
        if (route.reliable()) {
            QosPtr ackQos(AckQos());
            acknowledger_.reset(new Acknowledger(
                route.name, gatewayId,
                Check(dds_create_writer(publisher, ackTopic, ackQos.get(), nullptr),
                      "dds_create_writer")));
        }
        reader_ =
            Check(dds_create_reader(subscriber, topic, qos.get(), nullptr), "dds_create_reader");
        readCondition_ =
            Check(dds_create_readcondition(reader_, DDS_ANY_STATE), "dds_create_readcondition");
        waitset_ = Check(dds_create_waitset(DDS_CYCLONEDDS_HANDLE), "dds_create_waitset");
        wakeup_ =
            Check(dds_create_guardcondition(DDS_CYCLONEDDS_HANDLE), "dds_create_guardcondition");
        dds_waitset_attach(waitset_, readCondition_, 0);
        dds_waitset_attach(waitset_, wakeup_, 1);
        receiver_ = std::thread([this] { ReceiveLoop(); });
    }
    // Last: its thread runs from here on.
    if (route.sends() && route.reliable()) {
        QosPtr ackQos(AckQos());
        const dds_entity_t ackReader = Check(
            dds_create_reader(subscriber, ackTopic, ackQos.get(), nullptr), "dds_create_reader");
        sender_.reset(
            new ReliableSender(route, gatewayId, writer_, ackReader, stop, grace, counters_));
    }
    // Last, when nothing throws any more: the callbacks must not outlive this object.
    if (writer_ > 0) {
        qosMismatch_.Watch(writer_, true);
    }
    if (reader_ > 0) {
        qosMismatch_.Watch(reader_, false);
    }
}

RouteRunner::~RouteRunner() {
    StopSending();
    StopReceiving();
    // After a callback in progress; the stopped sender no longer looks at its matches.
    if (writer_ > 0) {
        dds_set_listener(writer_, nullptr);
    }
    if (reader_ > 0 && !readerDeleted_) {
        dds_set_listener(reader_, nullptr);
    }
    if (waitset_ > 0) {
        dds_delete(waitset_);
    }
    if (wakeup_ > 0) {
        dds_delete(wakeup_);
    }
}

void RouteRunner::Tick() {
    if (route_.sends() && !route_.reliable()) {
        MaybeStartSending();
        RepeatStateForNewReaders();
    }
}

void RouteRunner::RepeatStateForNewReaders() {
    dds_publication_matched_status_t matched;
    if (dds_get_publication_matched_status(writer_, &matched) != DDS_RETCODE_OK) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (matched.total_count != seenMatches_) {
        seenMatches_ = matched.total_count;
        repeats_ = {now + std::chrono::milliseconds(50), now + std::chrono::milliseconds(300),
                    now + std::chrono::milliseconds(1000)};
    }
    if (repeats_.empty()) {
        repeats_.push_back(now + std::chrono::milliseconds(1000));
    }
    if (now < repeats_.front()) {
        return;
    }
    repeats_.pop_front();
    std::lock_guard<std::mutex> guard(stateMutex_);
    if (haveState_) {
        SlotGatewayWire_Block sample =
            WireSample(gatewayId_, stateSerial_, state_.data(), state_.size());
        dds_write(writer_, &sample);
    }
}

void RouteRunner::MaybeStartSending() {
    if (stop_.set) {
        return;
    }
    const Clock::time_point now = Clock::now();
    std::unique_ptr<RouteSlotReader> ended;
    {
        std::lock_guard<std::mutex> guard(slotReaderMutex_);
        if (poolReader_ || (slotReader_ && !slotReader_->Ended())) {
            return;
        }
        ended.swap(slotReader_);
    }
    if (ended) {
        // The library's reader ends for good when the slot's lock fails (it said why). A reader
        // that ran a while starts again soon; one that keeps failing, less and less often.
        ended.reset();
        restartDelay_ = restartDelay_.count() == 0 || now - readerStarted_ > kRestartSettled
                            ? kFirstRestart
                            : std::min(restartDelay_ * 2, kLastRestart);
        restartAt_ = now + restartDelay_;
        LOG4CXX_ERROR(Logger(), "Reading slot '" << route_.name << "' ended; read again in "
                                                 << restartDelay_.count() << " ms");
    }
    if (now < restartAt_) {
        return;
    }
    const char* what = route_.isPool() ? "pool" : "slot";
    try {
        if (route_.isPool()) {
            // Its subscriber gets the block where it lies in the pool.
            INotifierPtr reader = Slot::PoolFactory::CreatePoolReader(
                RoutePoolCfg(route_), ISubscriberPtr(new Sender(this, nullptr)));
            std::lock_guard<std::mutex> guard(slotReaderMutex_);
            poolReader_ = reader;
        } else {
            std::unique_ptr<RouteSlotReader> reader(
                new RouteSlotReader(ReadSlot(), cfg_.GetUpdateTime()));
            if (stop_.set) {
                return;
            }
            reader->Start(ISubscriberPtr(new Sender(this, reader.get())));
            readerStarted_ = now;
            std::lock_guard<std::mutex> guard(slotReaderMutex_);
            slotReader_.swap(reader);
        }
    } catch (const std::exception& e) {
        if (now - lastStartError_ > std::chrono::seconds(30)) {
            lastStartError_ = now;
            LOG4CXX_ERROR(Logger(), "Cannot read " << what << " '" << route_.name
                                                   << "': " << e.what() << " (retrying)");
        }
        return;
    }
    if (Logger()->isInfoEnabled()) {
        LOG4CXX_INFO(Logger(), (route_.isPool() ? "Pool '" : "Slot '")
                                   << route_.name << "' is sent to topic '" << route_.topic
                                   << "' (domain " << route_.domain << ")");
    }
}

boost::shared_ptr<ISlot> RouteRunner::ReadSlot() {
    // A slot removed and made again is another object, which the kept mapping no longer shows.
    if (!readSlot_ || ObjectOf(route_) != readSlotFile_) {
        readSlot_ = SlotFactory::CreateSlot(&cfg_);
        readSlotFile_ = ObjectOf(route_);
    }
    return readSlot_;
}

void RouteRunner::OpenSlotWriter() {
    // A pool's writer copies each received block once, into a loaned block. The slot or pool
    // may exist already, made smaller than the route says: its own size is the limit.
    if (route_.isPool()) {
        boost::shared_ptr<Slot::PoolWriter> pool =
            Slot::PoolFactory::CreatePoolWriter(RoutePoolCfg(route_));
        maxSize_ = std::min<std::size_t>(route_.maxSize, pool->maxBlockSize());
        slotWriter_ = pool;
    } else {
        slotWriter_ = SlotFactory::CreateSlotWriter(&cfg_);
        maxSize_ =
            std::min<std::size_t>(route_.maxSize, SlotFactory::CreateSlot(&cfg_)->GetMaxDataSize());
    }
    slotWriterFile_ = ObjectOf(route_);
}

void RouteRunner::ReopenSlotWriterIfRenewed() {
    if (slotWriter_ && ObjectOf(route_) == slotWriterFile_) {
        return;
    }
    // Removed (and perhaps made again): what the kept writer stores, no reader of the name sees.
    // The old writer is let go first; opening makes the slot or pool again if it is missing.
    slotWriter_.reset();
    maxSize_ = 0;
    slotWriterFile_ = {0, 0};
    OpenSlotWriter();
    LOG4CXX_INFO(Logger(), (route_.isPool() ? "Pool '" : "Slot '")
                               << route_.name
                               << "' was removed or made again: received blocks are stored "
                                  "into the one of that name now");
}

void RouteRunner::AskToStopSending() {
    std::lock_guard<std::mutex> guard(slotReaderMutex_);
    if (slotReader_) {
        slotReader_->AskToStop();
    }
}

void RouteRunner::StopSending() {
    if (sender_) {
        sender_->Stop();
    }
    INotifierPtr poolReader;
    std::unique_ptr<RouteSlotReader> slotReader;
    {
        std::lock_guard<std::mutex> guard(slotReaderMutex_);
        poolReader.swap(poolReader_);
        slotReader.swap(slotReader_);
    }
    poolReader.reset();  // joins the reader's thread
    slotReader.reset();  // asks it to stop, if not asked yet, and joins it
}

void RouteRunner::StopReceiving() {
    if (receiver_.joinable()) {
        dds_set_guardcondition(wakeup_, true);
        receiver_.join();
    }
    if (acknowledger_) {
        acknowledger_->Flush(stop_.GraceLeft(grace_, kLastWords));
    }
}

RouteStatus RouteRunner::Status() const {
    RouteStatus status;
    status.route = route_;
    status.counters = counters_.Snapshot();
    status.matchedReaders = MatchedReaders();
    if (sender_) {
        status.sending = sender_->Sending();
    } else {
        std::lock_guard<std::mutex> guard(slotReaderMutex_);
        status.sending = static_cast<bool>(poolReader_) || (slotReader_ && !slotReader_->Ended());
    }
    if (reader_ > 0 && !readerDeleted_) {
        dds_subscription_matched_status_t matched;
        if (dds_get_subscription_matched_status(reader_, &matched) == DDS_RETCODE_OK) {
            status.matchedWriters = matched.current_count;
        }
    }
    return status;
}

std::uint32_t RouteRunner::MatchedReaders() const {
    if (writer_ <= 0) {
        return 0;
    }
    return PublicationMatches(writer_).current;
}

void RouteRunner::Send(const void* data, std::size_t size,
                       const boost::posix_time::ptime& written) {
    // Opening a slot forgets its last block and write time, which the reader takes for a
    // change and passes on as 0 bytes; an empty state written has a write time.
    // A pool reader delivers published blocks only.
    const bool slot = !route_.isPool();
    if (slot && size == 0 && written.is_not_a_date_time()) {
        return;
    }
    // The reader hands blocks on in the slot's order, each read after the previous call
    // returned.
    const Clock::time_point previous = lastSend_;
    lastSend_ = Clock::now();
    if (route_.direction == Direction::Both) {
        if (echoes_.IsEcho(data, size)) {
            // The slot's state came from the network after every state sent before.
            ++counters_.echoes;
            ForgetOwnState();
            return;
        }
        if (slot) {
            echoes_.ForgetWrittenBefore(written);
        } else {
            echoes_.ForgetWrittenBefore(previous);
        }
    }
    std::lock_guard<std::mutex> guard(stateMutex_);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    state_.assign(bytes, bytes + size);
    haveState_ = true;
    stateSerial_ = ++sequence_;
    SlotGatewayWire_Block sample = WireSample(gatewayId_, stateSerial_, state_.data(), size);
    const dds_return_t rc = dds_write(writer_, &sample);
    if (rc == DDS_RETCODE_OK) {
        ++counters_.forwarded;
    } else {
        ++counters_.dropped;
        LOG4CXX_ERROR(Logger(),
                      "Block of '" << route_.name << "' not published: " << dds_strretcode(rc));
    }
}

void RouteRunner::ForgetOwnState() {
    std::lock_guard<std::mutex> guard(stateMutex_);
    ForgetOwnStateLocked();
}

void RouteRunner::ForgetOwnStateLocked() {
    if (!haveState_) {
        return;
    }
    haveState_ = false;
    // Keyless topic: the one instance. Unregistered, it leaves the writer's history, so a reader
    // that matches later (a restarted peer) is not given the older state; readers that have it
    // see the instance without writers, which carries no data. The next write registers it again.
    SlotGatewayWire_Block sample = WireSample(gatewayId_, stateSerial_, nullptr, 0);
    const dds_return_t rc = dds_unregister_instance(writer_, &sample);
    if (rc != DDS_RETCODE_OK) {
        LOG4CXX_WARN(Logger(), "Older state of '" << route_.name
                                                  << "' not withdrawn: " << dds_strretcode(rc));
    }
}

void RouteRunner::Acknowledge(std::uint64_t sender, std::uint64_t serial) {
    if (acknowledger_) {
        acknowledger_->Acknowledge(sender, serial);
    }
}

std::uint64_t& ReceivedSerials::LastOf(dds_instance_handle_t publication, std::uint64_t gateway) {
    auto known = handles_.find(publication);
    if (known == handles_.end()) {
        std::optional<Guid> guid = publications_.WriterOf(publication);
        if (!guid) {
            const auto owner = owners_.find(gateway);
            if (owner != owners_.end()) {
                guid = owner->second;
            } else {
                guid.emplace();  // zeros where a DDS GUID names its host and process
                std::memcpy(guid->data() + 8, &gateway, sizeof gateway);
            }
        }
        const Writers::iterator writer = writers_.try_emplace(*guid).first;
        if (writer->second.departed != 0) {  // back under a new handle
            departed_.erase(writer->second.departed);
            writer->second.departed = 0;
        }
        ++writer->second.handles;
        known = handles_.emplace(publication, Handle{writer}).first;
    }
    const Writers::iterator writer = known->second.writer;
    if (!writer->second.claimed) {
        writer->second.claimed = true;
        if (owners_.emplace(gateway, writer->first).second) {
            writer->second.owns = gateway;
        }
    }
    return writer->second.last;
}

void ReceivedSerials::Tidy() {
    // A handle DDS does not match sends nothing more: what it sent is in the reader's history
    // already. One not matched at the previous call either has had all its samples taken since.
    // (One unknown to DDS when first seen is forgotten too; a handle forgotten too early is
    // asked of DDS again at its next sample, its writer's serial still kept.)
    if (std::optional<std::vector<dds_instance_handle_t>> matched = publications_.Matched()) {
        std::sort(matched->begin(), matched->end());
        for (auto it = handles_.begin(); it != handles_.end();) {
            const bool gone = !std::binary_search(matched->begin(), matched->end(), it->first);
            if (!gone || !it->second.leaving) {
                it->second.leaving = gone;
                ++it;
                continue;
            }
            const Writers::iterator writer = it->second.writer;
            if (--writer->second.handles == 0) {
                writer->second.departed = ++departures_;
                departed_.emplace(writer->second.departed, writer->first);
            }
            it = handles_.erase(it);
        }
    }
    while (departed_.size() > kMaxDeparted) {
        const Writers::iterator oldest = writers_.find(departed_.begin()->second);
        if (oldest->second.owns) {
            owners_.erase(*oldest->second.owns);
        }
        writers_.erase(oldest);
        departed_.erase(departed_.begin());
    }
}

namespace {

// What DDS knows of the writers a route's reader matches.
class ReaderPublications : public ReceivedSerials::Publications {
public:
    explicit ReaderPublications(dds_entity_t reader) : reader_(reader) {}
    std::optional<Guid> WriterOf(dds_instance_handle_t handle) const override {
        return SlotGateway::WriterOf(reader_, handle);
    }
    std::optional<std::vector<dds_instance_handle_t>> Matched() const override {
        std::vector<dds_instance_handle_t> handles;
        if (MatchedHandles(reader_, false, handles) < 0) {
            return std::nullopt;
        }
        return handles;
    }

private:
    const dds_entity_t reader_;
};

// How often the receiving thread tidies its memory of serials, when DDS holds nothing.
constexpr std::chrono::seconds kTidyInterval(1);

}  // namespace

void RouteRunner::ReceiveLoop() {
    const ReaderPublications publications(reader_);
    ReceivedSerials serials(publications);
    Clock::time_point nextTidy = Clock::now() + kTidyInterval;
    for (;;) {
        const bool stopping = stop_.set;
        // Take everything DDS holds; while stopping this drains what was already received.
        for (;;) {
            void* samples[1] = {nullptr};
            dds_sample_info_t info[1];
            const dds_return_t n = dds_take(reader_, samples, info, 1, 1);
            if (n <= 0) {
                if (n == 0 && Clock::now() >= nextTidy) {
                    serials.Tidy();  // the history is empty now
                    nextTidy = Clock::now() + kTidyInterval;
                }
                break;
            }
            bool delivered = true;
            try {
                if (info[0].valid_data) {
                    const auto* block = static_cast<const SlotGatewayWire_Block*>(samples[0]);
                    std::uint64_t& last =
                        serials.LastOf(info[0].publication_handle, block->gateway);
                    if (block->serial <= last) {
                        ++counters_.duplicates;
                        Acknowledge(block->gateway, block->serial);
                    } else if (Deliver(block->data._buffer, block->data._length, block->serial)) {
                        last = block->serial;
                        Acknowledge(block->gateway, block->serial);
                    } else {
                        delivered = false;
                    }
                }
            } catch (const std::exception& e) {
                // Not acknowledged: a reliable block's sender keeps it in hand, publishes it
                // again only when its receivers change (this gateway restarting, another one
                // matching), and gives it back to its slot at its stop. The other routes and this
                // one's later blocks go on.
                LOG4CXX_ERROR(Logger(), "Receiving slot '" << route_.name << "': " << e.what());
                stop_.WaitFor(std::chrono::milliseconds(200));
            }
            dds_return_loan(reader_, samples, n);
            if (!delivered) {
                LeaveTopic();
                return;  // stopping with a full slot: later blocks stay unstored too
            }
        }
        if (stopping) {
            LeaveTopic();
            return;
        }
        dds_waitset_wait(waitset_, nullptr, 0, DDS_MSECS(200));
    }
}

void RouteRunner::LeaveTopic() {
    if (!route_.reliable()) {
        return;  // a discarding route's senders hold nothing back for it
    }
    // The acknowledgements sent go out first: a sender that learns of the leaving before an
    // acknowledgement would put a stored block back, and the next receiver would store it again.
    if (acknowledger_) {
        acknowledger_->Flush(stop_.GraceLeft(grace_, kLastWords));
    }
    readerDeleted_ = true;
    dds_set_listener(reader_, nullptr);  // after a callback in progress
    dds_delete(reader_);
}

bool RouteRunner::Deliver(const void* data, std::size_t size, std::uint64_t sequence) {
    std::chrono::milliseconds backoff(1);
    const bool both = route_.direction == Direction::Both;
    bool threw = false;  // the last attempt's write threw
    for (unsigned attempt = 0;; ++attempt) {
        std::uint64_t serialBefore = 0;
        std::uint64_t echo = 0;
        bool remembered = false;
        Slot::WriteOutcome outcome = Slot::WriteOutcome::Failed;
        try {
            // A slot or pool removed and made again is written anew; its size may differ.
            ReopenSlotWriterIfRenewed();
            if (size > maxSize_) {
                ++counters_.dropped;
                LOG4CXX_ERROR(Logger(), "Block " << sequence << " for '" << route_.name
                                                 << "' dropped: " << size
                                                 << " bytes, the slot takes at most " << maxSize_);
                return true;
            }
            if (both) {
                {
                    std::lock_guard<std::mutex> guard(stateMutex_);
                    serialBefore = stateSerial_;
                }
                echo = echoes_.Remember(data, size);
                remembered = true;
            }
            slotWriter_->onNotify(route_.name, data, size);
            outcome = Slot::LastWriteOutcome();
            if (outcome == Slot::WriteOutcome::Failed) {
                // The slot's queue failed the write without throwing: the same as a throw.
                throw std::runtime_error("the slot failed the write");
            }
            threw = false;
        } catch (const std::exception& e) {
            // Opening the slot, or taking its lock, throws when the lock is damaged or its holder
            // cannot be waited for: the block is not stored (nor acknowledged) and is tried
            // again, less often than a refusal.
            if (!threw) {
                LOG4CXX_ERROR(Logger(), "Slot '" << route_.name << "' could not store block "
                                                 << sequence << ": " << e.what() << " (retrying)");
            }
            threw = true;
        }
        const bool stored =
            outcome == Slot::WriteOutcome::Stored || outcome == Slot::WriteOutcome::Discarded;
        if (remembered) {
            echoes_.Written(echo, stored);
        }
        if (stored) {
            ++counters_.received;
            if (both) {
                // Unless the reader sent a state since the write began (it may be newer; if
                // not, the reader hands this block back next and Send forgets the state then),
                // the state published before is older than this one.
                std::lock_guard<std::mutex> guard(stateMutex_);
                if (stateSerial_ == serialBefore) {
                    ForgetOwnStateLocked();
                }
            }
            return true;
        }
        if (!route_.reliable() && outcome == Slot::WriteOutcome::Refused) {
            // Another writer's newer state won: latest wins.
            ++counters_.refused;
            return true;
        }
        if (attempt == 0 && !threw) {
            ++counters_.refused;
            LOG4CXX_WARN(Logger(), "Slot '" << route_.name << "' refused block " << sequence << " ("
                                            << Slot::ToString(outcome) << "), retrying");
        }
        ++counters_.retried;
        // Asked anew each time: a second stop signal cuts the grace short.
        if (stop_.set && Clock::now() >= stop_.GraceEnd(grace_)) {
            if (!route_.reliable()) {
                ++counters_.dropped;
                LOG4CXX_ERROR(Logger(), "State " << sequence << " for '" << route_.name
                                                 << "' dropped: the slot "
                                                 << (threw ? "failed" : "refused it")
                                                 << " while the gateway stopped");
                return true;
            }
            LOG4CXX_WARN(Logger(), "Block " << sequence << " for '" << route_.name
                                            << "' not stored: the slot "
                                            << (threw ? "failed" : "stayed full")
                                            << " while the gateway stopped; its sender keeps it");
            return false;
        }
        // A slot that failed is tried less often: each attempt may wait for its lock.
        const std::chrono::milliseconds cap(threw ? 1000 : 100);
        const std::chrono::milliseconds pause = std::min(backoff, cap);
        if (stop_.set) {
            std::this_thread::sleep_for(std::min(pause, std::chrono::milliseconds(100)));
        } else {
            stop_.WaitFor(pause);
        }
        backoff = std::min(backoff * 2, cap);
    }
}

}  // namespace SlotGateway
