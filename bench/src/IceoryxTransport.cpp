// SPDX-License-Identifier: Apache-2.0
// iceoryx peer: an untyped publisher and an untyped subscriber woken by a WaitSet, through the
// RouDi daemon that bench/run starts and stops. The writer copies each block into a loaned
// chunk (the slot writer also starts from a block in its own memory); the reader checks the
// block in place in the shared chunk, so iceoryx makes one copy per block. In the second
// variant the writer makes its block straight in the loaned chunk and times it from the
// publication: the hand-over copies nothing. A full subscriber queue blocks the publisher
// (WAIT_FOR_CONSUMER / BLOCK_PRODUCER): nothing is dropped.
#ifdef SLOTBENCH_HAVE_ICEORYX

#include "Transport.h"

#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/mepoo/chunk_header.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>

#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

namespace bench {

namespace {

void InitRuntimeOnce() {
    static bool done = false;
    if (!done) {
        // The runtime reports every registration at debug level otherwise.
        iox::log::LogManager::GetLogManager().SetDefaultLogLevel(
            iox::log::LogLevel::kWarn, iox::log::LogLevelOutput::kHideLogLevel);
        const std::string app = "slotbench" + std::to_string(getpid());
        iox::runtime::PoshRuntime::initRuntime(
            iox::RuntimeName_t(iox::cxx::TruncateToCapacity, app.c_str()));
        done = true;
    }
}

iox::capro::ServiceDescription Service(const RunParams& params) {
    return iox::capro::ServiceDescription(
        iox::capro::IdString_t(iox::cxx::TruncateToCapacity, "slotbench"),
        iox::capro::IdString_t(iox::cxx::TruncateToCapacity, params.name.c_str()),
        iox::capro::IdString_t(iox::cxx::TruncateToCapacity, "blocks"));
}

iox::popo::PublisherOptions PublisherOptionsFor() {
    iox::popo::PublisherOptions options;
    options.historyCapacity = 0;
    options.subscriberTooSlowPolicy = iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER;
    return options;
}

iox::popo::SubscriberOptions SubscriberOptionsFor(const RunParams& params) {
    iox::popo::SubscriberOptions options;
    options.queueCapacity = params.depth;
    options.queueFullPolicy = iox::popo::QueueFullPolicy::BLOCK_PRODUCER;
    return options;
}

class IceoryxSender : public Sender {
public:
    // With `inPlace` the writer fills each block straight into its loaned chunk (Loan and
    // Publish) instead of handing over a block of its own memory, which Send copies into one.
    IceoryxSender(const RunParams& params, bool inPlace)
        : publisher_((InitRuntimeOnce(), Service(params)), PublisherOptionsFor()),
          inPlace_(inPlace) {}
    bool Warmup(std::uint64_t deadlineNs) override {
        // The subscriber's connection is made by RouDi asynchronously.
        while (!publisher_.hasSubscribers()) {
            if (NowNs() >= deadlineNs) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }
    void Send(const char* data, size_t size) override {
        char* chunk = LoanChunk(size);
        std::memcpy(chunk, data, size);
        publisher_.publish(chunk);
    }
    char* Loan(size_t size) override { return inPlace_ ? LoanChunk(size) : nullptr; }
    void Publish(char* block, size_t) override { publisher_.publish(block); }
    std::uint64_t Refusals() const override { return refusals_; }

private:
    char* LoanChunk(size_t size) {
        std::uint64_t giveUpNs = 0;
        for (unsigned int attempt = 0;; ++attempt) {
            char* chunk = nullptr;
            publisher_.loan(static_cast<std::uint32_t>(size)).and_then([&](void* payload) {
                chunk = static_cast<char*>(payload);
            });
            if (chunk != nullptr) {
                return chunk;
            }
            // The chunk pool is exhausted for the moment: count it and try again. A block that
            // fits no pool of RouDi never gets a chunk; say so instead of retrying until the
            // run's deadline.
            ++refusals_;
            const std::uint64_t now = NowNs();
            if (giveUpNs == 0) {
                giveUpNs = now + 5000000000ull;
            } else if (now >= giveUpNs) {
                throw std::runtime_error("iceoryx: no chunk for a block of " +
                                         std::to_string(size) +
                                         " bytes for 5 s (RouDi's chunk pools: bench/roudi.toml)");
            }
            std::this_thread::sleep_for(std::chrono::microseconds(attempt < 10 ? 5 : 100));
        }
    }

    iox::popo::UntypedPublisher publisher_;
    bool inPlace_;
    std::uint64_t refusals_ = 0;
};

class IceoryxReceiver : public Receiver {
public:
    explicit IceoryxReceiver(const RunParams& params)
        : subscriber_((InitRuntimeOnce(), Service(params)), SubscriberOptionsFor(params)) {
        waitSet_.attachState(subscriber_, iox::popo::SubscriberState::HAS_DATA).or_else([](auto) {
            throw std::runtime_error("iceoryx: cannot attach to WaitSet");
        });
    }
    ~IceoryxReceiver() override {
        waitSet_.detachState(subscriber_, iox::popo::SubscriberState::HAS_DATA);
    }
    void Run(BlockSink& sink, Stopper& stop) override {
        while (!stop.Stopped()) {
            waitSet_.timedWait(iox::units::Duration::fromMilliseconds(50));
            bool more = true;
            while (more) {
                more = false;
                subscriber_.take().and_then([&](const void* payload) {
                    const iox::mepoo::ChunkHeader* header =
                        iox::mepoo::ChunkHeader::fromUserPayload(payload);
                    sink.OnBlock(static_cast<const char*>(payload), header->userPayloadSize());
                    subscriber_.release(payload);
                    more = true;
                });
            }
        }
    }

private:
    iox::popo::UntypedSubscriber subscriber_;
    iox::popo::WaitSet<> waitSet_;
};

}  // namespace

std::unique_ptr<Sender> MakeIceoryxSender(const RunParams& params) {
    return std::unique_ptr<Sender>(new IceoryxSender(params, false));
}

std::unique_ptr<Sender> MakeIceoryxLoanSender(const RunParams& params) {
    return std::unique_ptr<Sender>(new IceoryxSender(params, true));
}

std::unique_ptr<Receiver> MakeIceoryxReceiver(const RunParams& params) {
    return std::unique_ptr<Receiver>(new IceoryxReceiver(params));
}

}  // namespace bench

#endif  // SLOTBENCH_HAVE_ICEORYX
