// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Gateway.h>
#include <SlotGateway/Internal.h>
#include <SlotGateway/ReliableSender.h>

#include "GatewayBlock.h"

#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <dds/dds.h>
#include <log4cxx/logger.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <iomanip>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace SlotGateway {

log4cxx::LoggerPtr Logger() {
    static log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("SlotGateway");
    return logger;
}

namespace {

std::uint64_t NewGatewayId() {
    std::uint64_t id = 0;
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id) || id == 0) {
        id = (static_cast<std::uint64_t>(getpid()) << 32) ^
             static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()) ^ 1;
    }
    return id;
}

std::string DdsError(const char* what, dds_return_t rc) {
    return std::string(what) + ": " + dds_strretcode(rc);
}

dds_entity_t Check(dds_entity_t entity, const char* what) {
    if (entity < 0) {
        throw std::runtime_error(DdsError(what, entity));
    }
    return entity;
}

// QoS of one route's writer or reader. Reliable: every block is kept until the receiving side
// has room (KEEP_ALL bounded by the slot's queue length, blocking writes). Discarding: only the
// latest state, also for a gateway that joins later (TRANSIENT_LOCAL). Both ignore the
// participant's own entities, so a "both" route never hears itself.
dds_qos_t* RouteQos(const Route& route) {
    dds_qos_t* qos = dds_create_qos();
    if (route.reliable()) {
        const int32_t depth = static_cast<int32_t>(route.queueLength);
        dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
        dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
        dds_qset_resource_limits(qos, depth, DDS_LENGTH_UNLIMITED, depth);
        dds_qset_durability(qos, DDS_DURABILITY_VOLATILE);
    } else {
        dds_qset_reliability(qos, DDS_RELIABILITY_BEST_EFFORT, 0);
        dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, 1);
        dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
    }
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);
    return qos;
}

// QoS of a reliable route's acknowledgements (receiving gateway -> sending gateway).
dds_qos_t* AckQos() {
    dds_qos_t* qos = dds_create_qos();
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, 64);
    dds_qset_durability(qos, DDS_DURABILITY_VOLATILE);
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);
    return qos;
}

dds_qos_t* PartitionQos(const std::string& partition) {
    dds_qos_t* qos = dds_create_qos();
    if (!partition.empty()) {
        dds_qset_partition1(qos, partition.c_str());
    }
    return qos;
}

struct QosDeleter {
    void operator()(dds_qos_t* qos) const { dds_delete_qos(qos); }
};
using QosPtr = std::unique_ptr<dds_qos_t, QosDeleter>;

// Blocks this gateway wrote into a "both" slot, so that its own reader of that slot does not
// send them back. A discarding reader may skip states, so a match also forgets every older
// entry; entries expire after a few update times.
class EchoMemory {
public:
    explicit EchoMemory(std::chrono::milliseconds lifetime) : lifetime_(lifetime) {}

    void Remember(const void* data, std::size_t size) {
        std::lock_guard<std::mutex> guard(mutex_);
        Expire();
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        entries_.push_back({Clock::now(), std::vector<std::uint8_t>(bytes, bytes + size)});
        if (entries_.size() > kMaxEntries) {
            entries_.pop_front();
        }
    }

    // True when the block is one this gateway wrote.
    bool IsEcho(const void* data, std::size_t size) {
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

private:
    struct Entry {
        Clock::time_point written;
        std::vector<std::uint8_t> bytes;
    };
    static constexpr std::size_t kMaxEntries = 16;

    void Expire() {
        const Clock::time_point now = Clock::now();
        while (!entries_.empty() && now - entries_.front().written > lifetime_) {
            entries_.pop_front();
        }
    }

    std::mutex mutex_;
    std::deque<Entry> entries_;  // guarded by mutex_, oldest first
    std::chrono::milliseconds lifetime_;
};

}  // namespace

// One configured slot and its DDS writer and/or reader.
class RouteRunner {
public:
    RouteRunner(const Route& route, std::uint64_t gatewayId, dds_entity_t publisher,
                dds_entity_t subscriber, dds_entity_t topic, dds_entity_t ackTopic, StopFlag& stop,
                std::chrono::milliseconds grace)
        : route_(route),
          cfg_(route),
          gatewayId_(gatewayId),
          stop_(stop),
          grace_(grace),
          echoes_(std::chrono::milliseconds(std::max<unsigned>(1000, 4 * route.updateTimeMs))) {
        QosPtr qos(RouteQos(route));
        if (route.sends()) {
            writer_ =
                Check(dds_create_writer(publisher, topic, qos.get(), nullptr), "dds_create_writer");
        }
        if (route.receives()) {
            slotWriter_ = SlotFactory::CreateSlotWriter(&cfg_);
            if (route.reliable()) {
                QosPtr ackQos(AckQos());
                ackWriter_ = Check(dds_create_writer(publisher, ackTopic, ackQos.get(), nullptr),
                                   "dds_create_writer");
            }
            reader_ = Check(dds_create_reader(subscriber, topic, qos.get(), nullptr),
                            "dds_create_reader");
            readCondition_ =
                Check(dds_create_readcondition(reader_, DDS_ANY_STATE), "dds_create_readcondition");
            waitset_ = Check(dds_create_waitset(DDS_CYCLONEDDS_HANDLE), "dds_create_waitset");
            wakeup_ = Check(dds_create_guardcondition(DDS_CYCLONEDDS_HANDLE),
                            "dds_create_guardcondition");
            dds_waitset_attach(waitset_, readCondition_, 0);
            dds_waitset_attach(waitset_, wakeup_, 1);
            receiver_ = std::thread([this] { ReceiveLoop(); });
        }
        // Last: its thread runs from here on.
        if (route.sends() && route.reliable()) {
            QosPtr ackQos(AckQos());
            const dds_entity_t ackReader =
                Check(dds_create_reader(subscriber, ackTopic, ackQos.get(), nullptr),
                      "dds_create_reader");
            sender_.reset(
                new ReliableSender(route, gatewayId, writer_, ackReader, stop, grace, counters_));
        }
    }

    ~RouteRunner() {
        StopSending();
        StopReceiving();
        if (waitset_ > 0) {
            dds_delete(waitset_);
        }
        if (wakeup_ > 0) {
            dds_delete(wakeup_);
        }
    }

    const Route& route() const { return route_; }

    // Control thread, every few milliseconds.
    void Tick() {
        if (route_.sends() && !route_.reliable()) {
            MaybeStartSending();
            RepeatStateForNewReaders();
        }
    }

    // A best-effort writer's history does not reach a reader that matches later, so the current
    // state is published again (same serial: readers that have it skip it) a few times after a
    // new reader appeared, for a late-joining gateway to get it, and then once a second, so that
    // a state lost on the way still arrives.
    void RepeatStateForNewReaders() {
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
            SlotGatewayWire_Block sample;
            sample.gateway = gatewayId_;
            sample.serial = stateSerial_;
            sample.data._maximum = static_cast<uint32_t>(state_.size());
            sample.data._length = static_cast<uint32_t>(state_.size());
            sample.data._buffer = state_.empty() ? nullptr : state_.data();
            sample.data._release = false;
            dds_write(writer_, &sample);
        }
    }

    // Starts the slot reader of a discarding sending route.
    void MaybeStartSending() {
        if (stop_.set) {
            return;
        }
        {
            std::lock_guard<std::mutex> guard(slotReaderMutex_);
            if (slotReader_) {
                return;
            }
        }
        INotifierPtr reader;
        try {
            if (!stateSlot_) {
                stateSlot_ = SlotFactory::CreateSlot(&cfg_);
            }
            reader = SlotFactory::CreateSlotReader(&cfg_, ISubscriberPtr(new Sender(this)));
        } catch (const std::exception& e) {
            const Clock::time_point now = Clock::now();
            if (now - lastStartError_ > std::chrono::seconds(30)) {
                lastStartError_ = now;
                LOG4CXX_ERROR(Logger(), "Cannot read slot '" << route_.name << "': " << e.what()
                                                             << " (retrying)");
            }
            return;
        }
        if (Logger()->isInfoEnabled()) {
            LOG4CXX_INFO(Logger(), "Slot '" << route_.name << "' is sent to topic '" << route_.topic
                                            << "' (domain " << route_.domain << ")");
        }
        std::lock_guard<std::mutex> guard(slotReaderMutex_);
        slotReader_ = reader;
    }

    // Ends the sending side; a reliable block in hand is delivered within the grace first.
    void StopSending() {
        if (sender_) {
            sender_->Stop();
        }
        INotifierPtr reader;
        {
            std::lock_guard<std::mutex> guard(slotReaderMutex_);
            reader.swap(slotReader_);
        }
        reader.reset();  // joins the reader's thread
    }

    // Ends the receiving thread after it stored what DDS holds, and lets the acknowledgements of
    // those blocks reach their senders. A block that arrives after the last take is not
    // acknowledged: its sender gives it to the next receiving gateway.
    void StopReceiving() {
        if (receiver_.joinable()) {
            dds_set_guardcondition(wakeup_, true);
            receiver_.join();
        }
        if (ackWriter_ > 0) {
            dds_wait_for_acks(ackWriter_, DDS_MSECS(grace_.count()));
        }
    }

    RouteStatus Status() const {
        RouteStatus status;
        status.route = route_;
        status.counters = counters_.Snapshot();
        status.matchedReaders = MatchedReaders();
        if (sender_) {
            status.sending = sender_->Sending();
        } else {
            std::lock_guard<std::mutex> guard(slotReaderMutex_);
            status.sending = static_cast<bool>(slotReader_);
        }
        if (reader_ > 0) {
            dds_subscription_matched_status_t matched;
            if (dds_get_subscription_matched_status(reader_, &matched) == DDS_RETCODE_OK) {
                status.matchedWriters = matched.current_count;
            }
        }
        return status;
    }

private:
    // The first subscriber of the route's slot reader; runs on the reader's thread.
    class Sender : public shared::ISubscriber {
    public:
        explicit Sender(RouteRunner* runner) : runner_(runner) {}
        void onNotify(const std::string&, const void* data, size_t size) override {
            runner_->Send(data, size);
        }

    private:
        RouteRunner* runner_;
    };

    std::uint32_t MatchedReaders() const {
        if (writer_ <= 0) {
            return 0;
        }
        dds_publication_matched_status_t matched;
        if (dds_get_publication_matched_status(writer_, &matched) != DDS_RETCODE_OK) {
            return 0;
        }
        return matched.current_count;
    }

    // The state a discarding slot's reader passes on (0 bytes: an empty state) is published.
    void Send(const void* data, std::size_t size) {
        // Opening a slot forgets its last block and write time, which the reader takes for a
        // change and passes on as 0 bytes; an empty state written has a write time.
        if (size == 0 && stateSlot_->GetLastWriteTime().is_not_a_date_time()) {
            return;
        }
        if (route_.direction == Direction::Both && echoes_.IsEcho(data, size)) {
            ++counters_.echoes;
            return;
        }
        std::lock_guard<std::mutex> guard(stateMutex_);
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        state_.assign(bytes, bytes + size);
        haveState_ = true;
        stateSerial_ = ++sequence_;
        SlotGatewayWire_Block sample;
        sample.gateway = gatewayId_;
        sample.serial = stateSerial_;
        sample.data._maximum = static_cast<uint32_t>(size);
        sample.data._length = static_cast<uint32_t>(size);
        sample.data._buffer = size != 0 ? state_.data() : nullptr;
        sample.data._release = false;
        const dds_return_t rc = dds_write(writer_, &sample);
        if (rc == DDS_RETCODE_OK) {
            ++counters_.forwarded;
        } else {
            ++counters_.dropped;
            LOG4CXX_ERROR(Logger(),
                          "Block of '" << route_.name << "' not published: " << dds_strretcode(rc));
        }
    }

    // Tells the sending gateway that its block `serial` is in the slot (or was already).
    void Acknowledge(std::uint64_t sender, std::uint64_t serial) {
        if (ackWriter_ <= 0) {
            return;
        }
        std::uint64_t self = gatewayId_;
        SlotGatewayWire_Block ack;
        ack.gateway = sender;
        ack.serial = serial;
        ack.data._maximum = sizeof self;
        ack.data._length = sizeof self;
        ack.data._buffer = reinterpret_cast<uint8_t*>(&self);
        ack.data._release = false;
        const dds_return_t rc = dds_write(ackWriter_, &ack);
        if (rc != DDS_RETCODE_OK) {
            LOG4CXX_WARN(Logger(), "Acknowledgement of block "
                                       << serial << " of '" << route_.name
                                       << "' not sent: " << dds_strretcode(rc));
        }
    }

    void ReceiveLoop() {
        std::map<std::uint64_t, std::uint64_t> lastSequence;  // per publishing gateway
        for (;;) {
            const bool stopping = stop_.set;
            // Take everything DDS holds; while stopping this drains what was already received.
            for (;;) {
                void* samples[1] = {nullptr};
                dds_sample_info_t info[1];
                const dds_return_t n = dds_take(reader_, samples, info, 1, 1);
                if (n <= 0) {
                    break;
                }
                if (info[0].valid_data) {
                    const auto* block = static_cast<const SlotGatewayWire_Block*>(samples[0]);
                    std::uint64_t& last = lastSequence[block->gateway];
                    if (block->serial <= last) {
                        ++counters_.duplicates;
                        Acknowledge(block->gateway, block->serial);
                    } else if (Deliver(block->data._buffer, block->data._length, block->serial)) {
                        last = block->serial;
                        Acknowledge(block->gateway, block->serial);
                    } else {
                        dds_return_loan(reader_, samples, n);
                        return;  // stopping with a full slot: later blocks stay unstored too
                    }
                }
                dds_return_loan(reader_, samples, n);
            }
            if (stopping) {
                return;
            }
            dds_waitset_wait(waitset_, nullptr, 0, DDS_MSECS(200));
        }
    }

    // Writes one received block into the slot; a refusal is retried with back-off (and DDS is
    // not taken from meanwhile, so the sending side is held back) until stored or, when
    // stopping, until the grace has passed. False: not stored and not acknowledged, so that the
    // sending gateway gives the block to the next receiving gateway.
    bool Deliver(const void* data, std::size_t size, std::uint64_t sequence) {
        if (size > route_.maxSize) {
            ++counters_.dropped;
            LOG4CXX_ERROR(Logger(),
                          "Block " << sequence << " for '" << route_.name << "' dropped: " << size
                                   << " bytes, the slot takes at most " << route_.maxSize);
            return true;
        }
        std::chrono::milliseconds backoff(1);
        Clock::time_point deadline = Clock::time_point::max();
        for (unsigned attempt = 0;; ++attempt) {
            if (route_.direction == Direction::Both) {
                echoes_.Remember(data, size);
            }
            slotWriter_->onNotify(route_.name, data, size);
            const Slot::WriteOutcome outcome = Slot::LastWriteOutcome();
            if (outcome == Slot::WriteOutcome::Stored || outcome == Slot::WriteOutcome::Discarded) {
                ++counters_.received;
                return true;
            }
            if (!route_.reliable() && outcome == Slot::WriteOutcome::Refused) {
                // Another writer's newer state won: latest wins.
                ++counters_.refused;
                return true;
            }
            if (attempt == 0) {
                ++counters_.refused;
                LOG4CXX_WARN(Logger(), "Slot '" << route_.name << "' refused block " << sequence
                                                << " (" << Slot::ToString(outcome)
                                                << "), retrying");
            }
            ++counters_.retried;
            if (stop_.set && deadline == Clock::time_point::max()) {
                deadline = Clock::now() + grace_;
            }
            if (Clock::now() >= deadline) {
                if (!route_.reliable()) {
                    ++counters_.dropped;
                    LOG4CXX_ERROR(Logger(), "State " << sequence << " for '" << route_.name
                                                     << "' dropped: the slot refused it while "
                                                        "the gateway stopped");
                    return true;
                }
                LOG4CXX_WARN(Logger(), "Block " << sequence << " for '" << route_.name
                                                << "' not stored: the slot stayed full while the "
                                                   "gateway stopped; its sender keeps it");
                return false;
            }
            std::this_thread::sleep_for(backoff);
            backoff = std::min(backoff * 2, std::chrono::milliseconds(100));
        }
    }

    const Route route_;
    const RouteSlotCfg cfg_;
    const std::uint64_t gatewayId_;
    StopFlag& stop_;
    const std::chrono::milliseconds grace_;
    EchoMemory echoes_;

    dds_entity_t writer_ = 0;
    dds_entity_t reader_ = 0;
    dds_entity_t readCondition_ = 0;
    dds_entity_t waitset_ = 0;
    dds_entity_t wakeup_ = 0;
    dds_entity_t ackWriter_ = 0;  // receiving reliable route: "stored" to the senders
    ISubscriberPtr slotWriter_;   // used by the receiving thread only
    std::thread receiver_;

    mutable std::mutex slotReaderMutex_;
    INotifierPtr slotReader_;                // guarded by slotReaderMutex_
    Clock::time_point lastStartError_;       // control thread only
    std::uint32_t seenMatches_ = 0;          // control thread only
    std::deque<Clock::time_point> repeats_;  // control thread only
    boost::shared_ptr<ISlot> stateSlot_;     // set by the control thread before the reader runs
    std::mutex stateMutex_;
    std::vector<std::uint8_t> state_;  // last discarding block sent; guarded by stateMutex_
    std::uint64_t stateSerial_ = 0;    // guarded by stateMutex_
    bool haveState_ = false;           // guarded by stateMutex_
    std::uint64_t sequence_ = 0;       // guarded by stateMutex_

    AtomicCounters counters_;
    std::unique_ptr<ReliableSender> sender_;  // a reliable sending route's; destroyed first
};

struct Gateway::Impl {
    Config config;
    std::uint64_t id = NewGatewayId();
    StopFlag stop;
    std::map<std::uint32_t, dds_entity_t> participants;
    std::vector<std::unique_ptr<RouteRunner>> routes;
    std::thread control;
    std::once_flag stopped;

    void ControlLoop() {
        Clock::time_point nextStatus = Clock::now();
        while (!stop.set) {
            for (auto& route : routes) {
                route->Tick();
            }
            if (!config.statusFile.empty() && Clock::now() >= nextStatus) {
                WriteStatus();
                nextStatus = Clock::now() + std::chrono::milliseconds(config.statusIntervalMs);
            }
            stop.WaitFor(std::chrono::milliseconds(50));
        }
    }

    const Gateway* owner = nullptr;
    bool statusErrorLogged = false;  // control thread, then Stop()

    void WriteStatus();
};

Gateway::Gateway(const Config& config) : impl_(new Impl) {
    impl_->config = config;
    impl_->owner = this;
    try {
        for (const Route& route : config.routes) {
            dds_entity_t& participant = impl_->participants[route.domain];
            if (participant == 0) {
                // The participant's liveliness is its lease: how soon peers notice a crash.
                QosPtr participantQos(dds_create_qos());
                dds_qset_liveliness(participantQos.get(), DDS_LIVELINESS_AUTOMATIC,
                                    DDS_MSECS(config.leaseMs));
                participant =
                    Check(dds_create_participant(route.domain, participantQos.get(), nullptr),
                          "dds_create_participant");
            }
            QosPtr partition(PartitionQos(route.partition));
            const dds_entity_t topic =
                Check(dds_create_topic(participant, &SlotGatewayWire_Block_desc,
                                       route.topic.c_str(), nullptr, nullptr),
                      "dds_create_topic");
            // A reliable route also carries acknowledgements back, on "<topic>/ack".
            const dds_entity_t ackTopic =
                route.reliable()
                    ? Check(dds_create_topic(participant, &SlotGatewayWire_Block_desc,
                                             (route.topic + "/ack").c_str(), nullptr, nullptr),
                            "dds_create_topic")
                    : 0;
            const dds_entity_t publisher =
                Check(dds_create_publisher(participant, partition.get(), nullptr),
                      "dds_create_publisher");
            const dds_entity_t subscriber =
                Check(dds_create_subscriber(participant, partition.get(), nullptr),
                      "dds_create_subscriber");
            impl_->routes.emplace_back(
                new RouteRunner(route, impl_->id, publisher, subscriber, topic, ackTopic,
                                impl_->stop, std::chrono::milliseconds(config.stopGraceMs)));
        }
    } catch (...) {
        impl_->stop.Raise();
        impl_->routes.clear();
        for (auto& participant : impl_->participants) {
            dds_delete(participant.second);
        }
        throw;
    }
    if (Logger()->isInfoEnabled()) {
        std::ostringstream id;
        id << std::hex << impl_->id;
        LOG4CXX_INFO(Logger(), "Gateway '" << config.gatewayName << "' (id " << id.str()
                                           << ") started with " << config.routes.size()
                                           << " slot(s)");
    }
    impl_->control = std::thread([this] { impl_->ControlLoop(); });
}

Gateway::~Gateway() {
    Stop();
    for (auto& participant : impl_->participants) {
        dds_delete(participant.second);
    }
}

void Gateway::Stop() {
    std::call_once(impl_->stopped, [this] {
        impl_->stop.Raise();
        if (impl_->control.joinable()) {
            impl_->control.join();
        }
        // Senders first: their blocks in hand may still go out; then the receivers drain.
        for (auto& route : impl_->routes) {
            route->StopSending();
        }
        for (auto& route : impl_->routes) {
            route->StopReceiving();
        }
        if (!impl_->config.statusFile.empty()) {
            impl_->WriteStatus();
        }
        if (Logger()->isInfoEnabled()) {
            LOG4CXX_INFO(Logger(), "Gateway '" << impl_->config.gatewayName << "' stopped");
        }
    });
}

std::vector<RouteStatus> Gateway::Status() const {
    std::vector<RouteStatus> result;
    for (const auto& route : impl_->routes) {
        result.push_back(route->Status());
    }
    return result;
}

std::uint64_t Gateway::Id() const {
    return impl_->id;
}

std::string Gateway::StatusJson() const {
    nlohmann::json slots = nlohmann::json::array();
    for (const RouteStatus& status : Status()) {
        const Route& route = status.route;
        slots.push_back({{"name", route.name},
                         {"type", route.type},
                         {"direction", ToString(route.direction)},
                         {"domain", route.domain},
                         {"partition", route.partition},
                         {"topic", route.topic},
                         {"matched_readers", status.matchedReaders},
                         {"matched_writers", status.matchedWriters},
                         {"sending", status.sending},
                         {"forwarded", status.counters.forwarded},
                         {"received", status.counters.received},
                         {"retried", status.counters.retried},
                         {"refused", status.counters.refused},
                         {"dropped", status.counters.dropped},
                         {"echoes_skipped", status.counters.echoes},
                         {"duplicates_skipped", status.counters.duplicates}});
    }
    std::ostringstream id;
    id << std::hex << std::setw(16) << std::setfill('0') << impl_->id;
    const std::time_t now = std::time(nullptr);
    char stamp[32] = {};
    std::tm utc;
    gmtime_r(&now, &utc);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    nlohmann::json document = {{"gateway", impl_->config.gatewayName},
                               {"id", id.str()},
                               {"pid", getpid()},
                               {"time", stamp},
                               {"stopped", impl_->stop.set.load()},
                               {"slots", slots}};
    return document.dump(2) + "\n";
}

void Gateway::Impl::WriteStatus() {
    const std::string error = WriteFileAtomically(config.statusFile, owner->StatusJson());
    if (!error.empty() && !statusErrorLogged) {
        statusErrorLogged = true;
        LOG4CXX_WARN(Logger(), "Status file not written: " << error);
    }
}

std::string WriteFileAtomically(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".tmp." + std::to_string(getpid());
    unlink(temporary.c_str());  // a leftover of an earlier run with this pid
    const int fd =
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        return temporary + ": " + std::strerror(errno);
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const std::string error = temporary + ": " + std::strerror(errno);
            close(fd);
            unlink(temporary.c_str());
            return error;
        }
        done += static_cast<std::size_t>(n);
    }
    close(fd);
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const std::string error = path + ": " + std::strerror(errno);
        unlink(temporary.c_str());
        return error;
    }
    return "";
}

std::string FormatStatus(const std::string& text) {
    const nlohmann::json document = nlohmann::json::parse(text);
    std::ostringstream out;
    out << "gateway " << document.value("gateway", "?") << " (id " << document.value("id", "?")
        << ", pid " << document.value("pid", 0) << ") at " << document.value("time", "?")
        << (document.value("stopped", false) ? ", stopped" : "") << "\n";
    out << std::left << std::setw(24) << "slot" << std::setw(11) << "type" << std::setw(13)
        << "direction" << std::setw(24) << "topic" << std::right << std::setw(6) << "peers"
        << std::setw(11) << "forwarded" << std::setw(11) << "received" << std::setw(9) << "retried"
        << std::setw(9) << "refused" << std::setw(9) << "dropped"
        << "\n";
    for (const auto& slot : document.at("slots")) {
        const unsigned peers =
            slot.value("matched_readers", 0u) + slot.value("matched_writers", 0u);
        out << std::left << std::setw(24) << slot.value("name", "") << std::setw(11)
            << slot.value("type", "") << std::setw(13) << slot.value("direction", "")
            << std::setw(24) << slot.value("topic", "") << std::right << std::setw(6) << peers
            << std::setw(11) << slot.value("forwarded", 0ull) << std::setw(11)
            << slot.value("received", 0ull) << std::setw(9) << slot.value("retried", 0ull)
            << std::setw(9) << slot.value("refused", 0ull) << std::setw(9)
            << slot.value("dropped", 0ull) << "\n";
    }
    return out.str();
}

}  // namespace SlotGateway
