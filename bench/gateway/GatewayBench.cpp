// SPDX-License-Identifier: Apache-2.0
// One end of a host-to-host measurement, run inside each "host" by bench/gateway/run:
//   gateway_bench slot-send SLOT SIZE COUNT PAUSE_US      blocks into a reliable slot (waits
//                                                         while it is full)
//   gateway_bench slot-recv SLOT SIZE COUNT SECONDS       reads them on the other host
//   gateway_bench zmq-send tcp://HOST:PORT SIZE COUNT PAUSE_US
//   gateway_bench zmq-recv tcp://*:PORT SIZE COUNT SECONDS
// Each block carries its number and the sender's CLOCK_MONOTONIC time (one clock: both hosts are
// namespaces of one machine). A receiver prints "ready" once it listens, then one result line:
//   blocks=N p50_us=.. p99_us=.. seconds=.. blocks_per_s=.. mb_per_s=..
// PAUSE_US > 0 paces the sender (latency: queues stay empty); 0 sends back to back
// (throughput, from the first block's arrival to the last one's). Exits 1 when a block is
// missing, repeated or out of order.
#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/logger.h>
#include <zmq.h>

#include <time.h>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + ts.tv_nsec;
}

struct Header {
    std::uint64_t number;
    std::uint64_t sentNs;
};

// The benchmark's reliable slot: 16 blocks of `maxSize` bytes.
SlotCfg Cfg(const std::string& name, std::size_t maxSize) {
    return SlotCfg(name, "reliable", boost::posix_time::milliseconds(20), 16, maxSize);
}

// Collects arrival times; shared by both receivers.
class Tally {
public:
    explicit Tally(std::uint64_t count) : count_(count) { latencies_.reserve(count); }

    void Arrived(const void* data, std::size_t size) {
        const std::uint64_t now = NowNs();
        Header header{};
        std::lock_guard<std::mutex> guard(mutex_);
        if (size < sizeof header) {
            bad_ = true;
        } else {
            std::memcpy(&header, data, sizeof header);
            if (header.number != got_) {
                bad_ = true;
                std::cerr << "gateway_bench: block " << header.number << " arrived, " << got_
                          << " expected\n";
            }
            if (got_ == 0) {
                firstNs_ = now;
            }
            lastNs_ = now;
            latencies_.push_back(now - header.sentNs);
            ++got_;
        }
        changed_.notify_all();
    }

    int Report(std::chrono::seconds timeout, std::size_t size) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return bad_ || got_ >= count_; });
        if (bad_ || got_ < count_) {
            std::cerr << "gateway_bench: " << got_ << " of " << count_ << " blocks arrived"
                      << (bad_ ? ", wrongly" : "") << "\n";
            return 1;
        }
        std::vector<std::uint64_t> sorted = latencies_;
        std::sort(sorted.begin(), sorted.end());
        const double seconds = static_cast<double>(lastNs_ - firstNs_) / 1e9;
        const double rate = seconds > 0 ? static_cast<double>(count_ - 1) / seconds : 0;
        std::printf(
            "blocks=%llu p50_us=%.1f p99_us=%.1f seconds=%.3f blocks_per_s=%.0f "
            "mb_per_s=%.2f\n",
            static_cast<unsigned long long>(count_), sorted[sorted.size() / 2] / 1e3,
            sorted[sorted.size() * 99 / 100] / 1e3, seconds, rate,
            rate * static_cast<double>(size) / 1e6);
        return 0;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    const std::uint64_t count_;
    std::uint64_t got_ = 0, firstNs_ = 0, lastNs_ = 0;
    std::vector<std::uint64_t> latencies_;
    bool bad_ = false;
};

class SlotReceiver : public shared::ISubscriber {
public:
    explicit SlotReceiver(Tally& tally) : tally_(tally) {}
    void onNotify(const std::string&, const void* data, size_t size) override {
        tally_.Arrived(data, size);
    }

private:
    Tally& tally_;
};

std::vector<unsigned char> Block(std::uint64_t number, std::size_t size) {
    std::vector<unsigned char> block(size);
    for (std::size_t i = sizeof(Header); i < size; ++i) {
        block[i] = static_cast<unsigned char>(number + i);
    }
    const Header header{number, NowNs()};
    std::memcpy(block.data(), &header, sizeof header);
    return block;
}

void Pause(unsigned pauseUs) {
    if (pauseUs > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(pauseUs));
    }
}

int SlotSend(const std::string& name, std::size_t size, std::uint64_t count, unsigned pauseUs) {
    const SlotCfg cfg = Cfg(name, size);
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(300);
    for (std::uint64_t n = 0; n < count;) {
        const std::vector<unsigned char> block = Block(n, size);
        writer->onNotify(name, block.data(), block.size());
        if (Slot::LastWriteOutcome() == Slot::WriteOutcome::Stored) {
            ++n;
            Pause(pauseUs);
        } else if (std::chrono::steady_clock::now() > end) {
            std::cerr << "gateway_bench: the slot stayed full\n";
            return 1;
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    return 0;
}

int SlotRecv(const std::string& name, std::size_t size, std::uint64_t count, unsigned seconds) {
    const SlotCfg cfg = Cfg(name, size);
    Tally tally(count);
    INotifierPtr reader =
        SlotFactory::CreateSlotReader(&cfg, ISubscriberPtr(new SlotReceiver(tally)));
    std::cout << "ready" << std::endl;
    const int result = tally.Report(std::chrono::seconds(seconds), size);
    reader.reset();
    return result;
}

// One context and socket, closed together.
struct Zmq {
    explicit Zmq(int type) : context(zmq_ctx_new()), socket(zmq_socket(context, type)) {}
    ~Zmq() {
        zmq_close(socket);
        zmq_ctx_term(context);
    }
    void* context;
    void* socket;
};

int ZmqSend(const std::string& endpoint, std::size_t size, std::uint64_t count, unsigned pauseUs) {
    Zmq zmq(ZMQ_PUSH);
    const int linger = 30000;
    zmq_setsockopt(zmq.socket, ZMQ_LINGER, &linger, sizeof linger);
    if (zmq_connect(zmq.socket, endpoint.c_str()) != 0) {
        std::cerr << "gateway_bench: " << endpoint << ": " << zmq_strerror(zmq_errno()) << "\n";
        return 1;
    }
    for (std::uint64_t n = 0; n < count; ++n) {
        const std::vector<unsigned char> block = Block(n, size);
        if (zmq_send(zmq.socket, block.data(), block.size(), 0) < 0) {
            std::cerr << "gateway_bench: zmq_send: " << zmq_strerror(zmq_errno()) << "\n";
            return 1;
        }
        Pause(pauseUs);
    }
    return 0;
}

int ZmqRecv(const std::string& endpoint, std::size_t size, std::uint64_t count, unsigned seconds) {
    Zmq zmq(ZMQ_PULL);
    const int timeoutMs = 1000;
    zmq_setsockopt(zmq.socket, ZMQ_RCVTIMEO, &timeoutMs, sizeof timeoutMs);
    if (zmq_bind(zmq.socket, endpoint.c_str()) != 0) {
        std::cerr << "gateway_bench: " << endpoint << ": " << zmq_strerror(zmq_errno()) << "\n";
        return 1;
    }
    std::cout << "ready" << std::endl;
    Tally tally(count);
    std::vector<unsigned char> buffer(size + 1);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (std::uint64_t n = 0; n < count && std::chrono::steady_clock::now() < end;) {
        const int got = zmq_recv(zmq.socket, buffer.data(), buffer.size(), 0);
        if (got >= 0) {
            tally.Arrived(buffer.data(), static_cast<std::size_t>(got));
            ++n;
        }
    }
    return tally.Report(std::chrono::seconds(0), size);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: gateway_bench slot-send|slot-recv|zmq-send|zmq-recv "
                     "SLOT|ENDPOINT SIZE COUNT PAUSE_US|SECONDS\n";
        return 64;
    }
    log4cxx::BasicConfigurator::configure();
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getError());
    const std::string mode = argv[1], where = argv[2];
    const std::size_t size =
        std::max<std::size_t>(sizeof(Header), std::strtoul(argv[3], nullptr, 10));
    const std::uint64_t count = std::strtoull(argv[4], nullptr, 10);
    const unsigned last = static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10));
    if (mode == "slot-send") {
        return SlotSend(where, size, count, last);
    }
    if (mode == "slot-recv") {
        return SlotRecv(where, size, count, last);
    }
    if (mode == "zmq-send") {
        return ZmqSend(where, size, count, last);
    }
    if (mode == "zmq-recv") {
        return ZmqRecv(where, size, count, last);
    }
    std::cerr << "gateway_bench: unknown mode " << mode << "\n";
    return 64;
}
