// SPDX-License-Identifier: Apache-2.0
#include "BenchUtil.h"
#include "SlotAdapters.h"
#include "Transport.h"

#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/WriteOutcome.h>
#include <shared/SharedMemory.h>

#include <FileUtils/NamedPipeCreator.h>

#include <boost/interprocess/ipc/message_queue.hpp>

#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace bench {

// ---------------------------------------------------------------------------------------------
// RunParams, Stopper, StreamReassembler

std::vector<std::string> RunParams::ToArgs() const {
    return {"transport=" + transport,
            "name=" + name,
            "tmp=" + tmpDir,
            "size=" + std::to_string(blockSize),
            "depth=" + std::to_string(depth),
            "writers=" + std::to_string(writers),
            "writer_id=" + std::to_string(writerId),
            "throughput=" + std::string(throughput ? "1" : "0"),
            "update_ms=" + FormatDouble(updateTimeMs, 3),
            "fd_read=" + std::to_string(fdRead),
            "fd_write=" + std::to_string(fdWrite)};
}

RunParams RunParams::FromArgs(const KeyValues& kv) {
    RunParams s;
    s.transport = kv.Get("transport");
    s.name = kv.Get("name");
    s.tmpDir = kv.Get("tmp");
    s.blockSize = kv.GetU64("size", 64);
    s.depth = kv.GetU64("depth", 64);
    s.writers = static_cast<unsigned int>(kv.GetU64("writers", 1));
    s.writerId = static_cast<unsigned int>(kv.GetU64("writer_id", 0));
    s.throughput = kv.Get("throughput") == "1";
    s.updateTimeMs = kv.GetDouble("update_ms", 1000.0);
    s.fdRead = static_cast<int>(std::strtol(kv.Get("fd_read", "-1").c_str(), nullptr, 10));
    s.fdWrite = static_cast<int>(std::strtol(kv.Get("fd_write", "-1").c_str(), nullptr, 10));
    return s;
}

void Stopper::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_.store(true);
    }
    cv_.notify_all();
}

bool Stopper::Stopped() const {
    return stopped_.load(std::memory_order_relaxed) || NowNs() >= deadlineNs_;
}

bool Stopper::Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopped_.load()) {
        const std::uint64_t now = NowNs();
        if (now >= deadlineNs_) {
            return false;
        }
        cv_.wait_for(lock, std::chrono::nanoseconds(
                               std::min<std::uint64_t>(deadlineNs_ - now, 100000000ull)));
    }
    return true;
}

void StreamReassembler::Feed(const char* data, size_t size) {
    while (size > 0) {
        if (pending_.empty() && size >= blockSize_) {
            // Whole blocks straight from the chunk, without a copy.
            sink_.OnBlock(data, blockSize_);
            data += blockSize_;
            size -= blockSize_;
            continue;
        }
        const size_t take = std::min(size, blockSize_ - pending_.size());
        pending_.insert(pending_.end(), data, data + take);
        data += take;
        size -= take;
        if (pending_.size() == blockSize_) {
            sink_.OnBlock(pending_.data(), pending_.size());
            pending_.clear();
        }
    }
}
// ---------------------------------------------------------------------------------------------
// Slots, through the library's factory

namespace {

std::string SlotType(const std::string& transport) {
    if (transport == "slot-discarding") {
        return "discarding";
    }
    if (transport == "slot-reliable" || transport == "slot-spinning") {
        return "reliable";
    }
    return "posix-pipe";
}

// Waits a little after a refusal: yields first, then sleeps up to 100 us, so that a writer
// spinning on a full queue does not starve the reader of its core.
void Backoff(unsigned int attempt) {
    if (attempt < 4) {
        sched_yield();
        return;
    }
    const long us = std::min(100L, 5L << std::min(attempt - 4, 5u));
    timespec ts = {0, us * 1000};
    nanosleep(&ts, nullptr);
}

class SlotSender : public Sender {
public:
    explicit SlotSender(const RunParams& params)
        : cfg_(BenchSlotConfig(params.name, SlotType(params.transport), params.blockSize,
                               params.depth, params.updateTimeMs)),
          reliable_(SlotType(params.transport) == "reliable") {
        writer_ = SlotFactory::CreateSlotWriter(&cfg_);
    }
    void Send(const char* data, size_t size) override {
        if (!reliable_) {
            writer_->onNotify(cfg_.GetName(), data, size);
            return;
        }
        // A full queue refuses the block without waiting: try again after a short back-off.
        for (unsigned int attempt = 0;; ++attempt) {
            writer_->onNotify(cfg_.GetName(), data, size);
            if (Slot::LastWriteOutcome() != Slot::WriteOutcome::Refused) {
                return;
            }
            ++refusals_;
            Backoff(attempt);
        }
    }
    std::uint64_t Refusals() const override { return refusals_; }

private:
    SlotCfg cfg_;
    bool reliable_;
    ISubscriberPtr writer_;
    std::uint64_t refusals_ = 0;
};

class StreamSubscriber : public shared::ISubscriber {
public:
    StreamSubscriber(size_t blockSize, BlockSink& sink) : reassembler_(blockSize, sink) {}
    void onNotify(const std::string&, const void* data, size_t size) override {
        reassembler_.Feed(static_cast<const char*>(data), size);
    }

private:
    StreamReassembler reassembler_;
};

class SlotReceiver : public Receiver {
public:
    explicit SlotReceiver(const RunParams& params)
        : cfg_(BenchSlotConfig(params.name, SlotType(params.transport), params.blockSize,
                               params.depth, params.updateTimeMs)),
          stream_(params.transport == "slot-posix-pipe"),
          blockSize_(params.blockSize) {
        if (params.transport == "slot-spinning") {
            reader_ = SlotFactory::CreateSpinningSlotReader(&cfg_, cfg_.GetUpdateTime());
        } else {
            reader_ = SlotFactory::CreateSlotReader(&cfg_);
        }
    }
    void Attach(BlockSink& sink) override {
        if (stream_) {
            subscriber_.reset(new StreamSubscriber(blockSize_, sink));
        } else {
            subscriber_.reset(new SinkSubscriber(sink));
        }
        reader_->subscribe(subscriber_.get());
    }
    void Run(BlockSink&, Stopper& stop) override {
        stop.Wait();
        // Returns once a notification in progress has finished.
        reader_->unsubscribe(subscriber_.get());
    }

private:
    SlotCfg cfg_;
    bool stream_;
    size_t blockSize_;
    INotifierPtr reader_;
    std::unique_ptr<shared::ISubscriber> subscriber_;
};

// ---------------------------------------------------------------------------------------------
// Zero-copy pools: the queue kind (lossless, like the reliable slot) and, for latency only, the
// latest kind ("pool-latest...")

bool LatestPool(const RunParams& params) {
    return params.transport.rfind("pool-latest", 0) == 0;
}

bool SpinningPool(const RunParams& params) {
    return params.transport == "pool-spinning" || params.transport == "pool-latest-spinning";
}

Slot::PoolConfig BenchPoolConfig(const RunParams& params) {
    // One block per queue entry, as the other transports get, up to the pool's limit: at 4 MiB
    // that is 256 MiB of /dev/shm, reserved when the pool is made.
    return Slot::PoolConfig{params.name, LatestPool(params) ? "latest" : "queue", params.blockSize,
                            std::min(params.depth, Slot::MaxPoolBlocks)};
}

// "pool-queue" and "pool-spinning" fill a loaned block in place; "pool-copy" hands the writer's
// block to PoolWriter::onNotify, which copies it once into a loan.
class PoolSender : public Sender {
public:
    explicit PoolSender(const RunParams& params)
        : writer_(Slot::PoolFactory::CreatePoolWriter(BenchPoolConfig(params))),
          inPlace_(params.transport != "pool-copy") {}
    void Send(const char* data, size_t size) override {
        // A full pool refuses the block: try again after a short back-off.
        for (unsigned int attempt = 0;; ++attempt) {
            writer_->onNotify(writer_->name(), data, size);
            const Slot::WriteOutcome outcome = Slot::LastWriteOutcome();
            if (outcome == Slot::WriteOutcome::Stored) {
                return;
            }
            if (outcome != Slot::WriteOutcome::Refused) {
                throw std::runtime_error("pool write failed");
            }
            ++refusals_;
            Backoff(attempt);
        }
    }
    char* Loan(size_t size) override {
        if (!inPlace_) {
            return nullptr;
        }
        for (unsigned int attempt = 0;; ++attempt) {
            loan_ = writer_->loan(size);
            if (loan_) {
                return static_cast<char*>(loan_.data());
            }
            if (loan_.outcome() != Slot::WriteOutcome::Refused) {
                throw std::runtime_error("pool loan failed");
            }
            ++refusals_;
            Backoff(attempt);
        }
    }
    void Publish(char* block, size_t size) override {
        if (block != loan_.data() || loan_.publish(size) != Slot::WriteOutcome::Stored) {
            // A loaned block always has room in the queue, and a paced latest pool's previous
            // block was read before this one: anything else is a fault.
            throw std::runtime_error("pool publish was not stored");
        }
    }
    std::uint64_t Refusals() const override { return refusals_; }

private:
    boost::shared_ptr<Slot::PoolWriter> writer_;
    bool inPlace_;
    Slot::PoolLoan loan_;
    std::uint64_t refusals_ = 0;
};

// The sink reads each block where it lies in the pool, during the reader's onNotify.
class PoolReceiver : public Receiver {
public:
    explicit PoolReceiver(const RunParams& params)
        : config_(BenchPoolConfig(params)),
          spinNs_(SpinningPool(params) ? static_cast<long>(params.updateTimeMs * 1e6) : 0) {}
    void Attach(BlockSink& sink) override {
        // Subscribed before the reader's thread starts: no block passes unseen.
        subscriber_.reset(new SinkSubscriber(sink));
        if (spinNs_ > 0) {
            reader_ = Slot::PoolFactory::CreateSpinningPoolReader(
                config_, boost::posix_time::microseconds(spinNs_ / 1000), subscriber_);
        } else {
            reader_ = Slot::PoolFactory::CreatePoolReader(config_, subscriber_);
        }
    }
    void Run(BlockSink&, Stopper& stop) override {
        stop.Wait();
        // Returns once a notification in progress has finished.
        reader_->unsubscribe(subscriber_.get());
    }

private:
    Slot::PoolConfig config_;
    long spinNs_;
    ISubscriberPtr subscriber_;
    INotifierPtr reader_;
};

// ---------------------------------------------------------------------------------------------
// Floor: one shared buffer handed over under a process-shared pthread mutex, the reader woken by
// a process-shared pthread condition variable (CLOCK_MONOTONIC for its timed waits).

struct FloorShared {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    std::uint64_t seq;  // guarded by mutex; blocks written so far
    std::uint32_t size;
    std::uint32_t pad;
    char data[8];  // blockSize bytes in the mapping
};

std::string FloorName(const RunParams& params) {
    return "/" + params.name + "_floor";
}

size_t FloorBytes(const RunParams& params) {
    return sizeof(FloorShared) + params.blockSize;
}

FloorShared* MapFloor(const RunParams& params, bool create) {
    const std::string name = FloorName(params);
    const int fd = shm_open(name.c_str(), create ? (O_RDWR | O_CREAT | O_EXCL) : O_RDWR, 0600);
    if (fd < 0) {
        throw std::runtime_error("floor segment: " + std::string(std::strerror(errno)));
    }
    if (create && ftruncate(fd, static_cast<off_t>(FloorBytes(params))) != 0) {
        close(fd);
        throw std::runtime_error("floor segment: ftruncate failed");
    }
    void* p = mmap(nullptr, FloorBytes(params), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        throw std::runtime_error("floor segment: mmap failed");
    }
    return static_cast<FloorShared*>(p);
}

class FloorSender : public Sender {
public:
    explicit FloorSender(const RunParams& params)
        : params_(params), shared_(MapFloor(params, false)) {}
    ~FloorSender() override { munmap(shared_, FloorBytes(params_)); }
    void Send(const char* data, size_t size) override {
        pthread_mutex_lock(&shared_->mutex);
        std::memcpy(shared_->data, data, size);
        shared_->size = static_cast<std::uint32_t>(size);
        ++shared_->seq;
        pthread_mutex_unlock(&shared_->mutex);
        // Outside the mutex, as the slot writer does.
        pthread_cond_broadcast(&shared_->cond);
    }

private:
    RunParams params_;
    FloorShared* shared_;
};

class FloorReceiver : public Receiver {
public:
    explicit FloorReceiver(const RunParams& params)
        : params_(params), shared_(MapFloor(params, false)), buffer_(params.blockSize) {}
    ~FloorReceiver() override { munmap(shared_, FloorBytes(params_)); }
    void Run(BlockSink& sink, Stopper& stop) override {
        // The parent starts the sequence at 0; a block written before this loop began is
        // still picked up.
        std::uint64_t seen = 0;
        while (!stop.Stopped()) {
            pthread_mutex_lock(&shared_->mutex);
            while (shared_->seq == seen && !stop.Stopped()) {
                timespec deadline;
                clock_gettime(CLOCK_MONOTONIC, &deadline);
                deadline.tv_nsec += 50000000;
                if (deadline.tv_nsec >= 1000000000) {
                    deadline.tv_nsec -= 1000000000;
                    ++deadline.tv_sec;
                }
                pthread_cond_timedwait(&shared_->cond, &shared_->mutex, &deadline);
            }
            const bool fresh = shared_->seq != seen;
            size_t size = 0;
            if (fresh) {
                seen = shared_->seq;
                size = std::min<size_t>(shared_->size, buffer_.size());
                std::memcpy(buffer_.data(), shared_->data, size);
            }
            pthread_mutex_unlock(&shared_->mutex);
            if (fresh) {
                sink.OnBlock(buffer_.data(), size);
            }
        }
    }

private:
    RunParams params_;
    FloorShared* shared_;
    std::vector<char> buffer_;
};

// ---------------------------------------------------------------------------------------------
// Boost.Interprocess message_queue used directly: the same queue type the slot keeps its blocks
// in, blocking send and receive.

typedef boost::interprocess::message_queue_t<shared::SlotOffsetPtr> BoostQueue;

std::string BoostQueueName(const RunParams& params) {
    return params.name + "_bmq";
}

class BoostMqSender : public Sender {
public:
    explicit BoostMqSender(const RunParams& params)
        : queue_(boost::interprocess::open_only, BoostQueueName(params).c_str()) {}
    void Send(const char* data, size_t size) override {
        queue_.send(data, static_cast<BoostQueue::size_type>(size), 0);
    }

private:
    BoostQueue queue_;
};

class BoostMqReceiver : public Receiver {
public:
    explicit BoostMqReceiver(const RunParams& params)
        : queue_(boost::interprocess::open_only, BoostQueueName(params).c_str()),
          buffer_(queue_.get_max_msg_size()) {}
    void Run(BlockSink& sink, Stopper& stop) override {
        while (!stop.Stopped()) {
            BoostQueue::size_type received = 0;
            unsigned int priority = 0;
            // Deadlines of Boost.Interprocess are absolute UTC times.
            const boost::posix_time::ptime deadline =
                boost::posix_time::microsec_clock::universal_time() +
                boost::posix_time::milliseconds(50);
            if (queue_.timed_receive(buffer_.data(), buffer_.size(), received, priority,
                                     deadline)) {
                sink.OnBlock(buffer_.data(), received);
            }
        }
    }

private:
    BoostQueue queue_;
    std::vector<char> buffer_;
};

// ---------------------------------------------------------------------------------------------
// POSIX message queue, blocking send and receive.

std::string PosixQueueName(const RunParams& params) {
    return "/" + params.name + "_pmq";
}

class PosixMqSender : public Sender {
public:
    explicit PosixMqSender(const RunParams& params) {
        queue_ = mq_open(PosixQueueName(params).c_str(), O_WRONLY);
        if (queue_ == static_cast<mqd_t>(-1)) {
            throw std::runtime_error("mq_open: " + std::string(std::strerror(errno)));
        }
    }
    ~PosixMqSender() override { mq_close(queue_); }
    void Send(const char* data, size_t size) override {
        while (mq_send(queue_, data, size, 0) != 0) {
            if (errno != EINTR) {
                throw std::runtime_error("mq_send: " + std::string(std::strerror(errno)));
            }
        }
    }

private:
    mqd_t queue_;
};

class PosixMqReceiver : public Receiver {
public:
    explicit PosixMqReceiver(const RunParams& params) {
        queue_ = mq_open(PosixQueueName(params).c_str(), O_RDONLY);
        if (queue_ == static_cast<mqd_t>(-1)) {
            throw std::runtime_error("mq_open: " + std::string(std::strerror(errno)));
        }
        mq_attr attr;
        mq_getattr(queue_, &attr);
        buffer_.resize(static_cast<size_t>(attr.mq_msgsize));
    }
    ~PosixMqReceiver() override { mq_close(queue_); }
    void Run(BlockSink& sink, Stopper& stop) override {
        while (!stop.Stopped()) {
            timespec deadline;
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline.tv_nsec += 50000000;
            if (deadline.tv_nsec >= 1000000000) {
                deadline.tv_nsec -= 1000000000;
                ++deadline.tv_sec;
            }
            const ssize_t n =
                mq_timedreceive(queue_, buffer_.data(), buffer_.size(), nullptr, &deadline);
            if (n >= 0) {
                sink.OnBlock(buffer_.data(), static_cast<size_t>(n));
            }
        }
    }

private:
    mqd_t queue_;
    std::vector<char> buffer_;
};

// ---------------------------------------------------------------------------------------------
// Byte streams: a FIFO and a Unix-domain stream socket pair, blocking writes, poll + read.

void WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n > 0) {
            data += n;
            size -= static_cast<size_t>(n);
        } else if (n < 0 && errno != EINTR) {
            throw std::runtime_error("write: " + std::string(std::strerror(errno)));
        }
    }
}

class FdSender : public Sender {
public:
    explicit FdSender(int fd) : fd_(fd) {}
    ~FdSender() override { close(fd_); }
    void Send(const char* data, size_t size) override { WriteAll(fd_, data, size); }

private:
    int fd_;
};

class FdReceiver : public Receiver {
public:
    FdReceiver(int fd, size_t blockSize)
        : fd_(fd), blockSize_(blockSize), buffer_(std::max<size_t>(blockSize, 256 * 1024)) {}
    ~FdReceiver() override { close(fd_); }
    void Run(BlockSink& sink, Stopper& stop) override {
        StreamReassembler reassembler(blockSize_, sink);
        while (!stop.Stopped()) {
            pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) {
                continue;
            }
            const ssize_t n = read(fd_, buffer_.data(), buffer_.size());
            if (n > 0) {
                reassembler.Feed(buffer_.data(), static_cast<size_t>(n));
            } else if (n == 0) {
                return;  // the writer closed: nothing more will come
            }
        }
    }

private:
    int fd_;
    size_t blockSize_;
    std::vector<char> buffer_;
};

std::string FifoPath(const RunParams& params) {
    return params.tmpDir + "/" + params.name + ".fifo";
}

int OpenOrThrow(const std::string& path, int flags) {
    const int fd = open(path.c_str(), flags);
    if (fd < 0) {
        throw std::runtime_error("open " + path + ": " + std::strerror(errno));
    }
    return fd;
}

// ---------------------------------------------------------------------------------------------
// Spinning floor: a block of at most 64 bytes handed over through one cache line of shared
// memory, with no lock and no system call. The writer stores every byte of the block but its
// sequence number, then the sequence number with release order; the reader spins on that word
// with acquire loads and checks the block where it lies. A latency writer sends the next block
// only once the reader has acknowledged this one, so the line is never rewritten while it is read.

constexpr size_t kCacheLine = 64;
constexpr size_t kLineSeqOffset = offsetof(BlockHeader, seq);
constexpr std::uint64_t kLineEmpty = ~0ull;  // the sequence word before the first block

std::string SpinLineName(const RunParams& params) {
    return "/" + params.name + "_line";
}

char* MapSpinLine(const RunParams& params, bool create) {
    if (params.blockSize > kCacheLine || params.blockSize < sizeof(BlockHeader)) {
        throw std::runtime_error("one cache line carries blocks of " +
                                 std::to_string(sizeof(BlockHeader)) + " to " +
                                 std::to_string(kCacheLine) + " bytes");
    }
    const std::string name = SpinLineName(params);
    const int fd = shm_open(name.c_str(), create ? (O_RDWR | O_CREAT | O_EXCL) : O_RDWR, 0600);
    if (fd < 0) {
        throw std::runtime_error("cache line segment: " + std::string(std::strerror(errno)));
    }
    if (create && ftruncate(fd, static_cast<off_t>(kCacheLine)) != 0) {
        close(fd);
        throw std::runtime_error("cache line segment: ftruncate failed");
    }
    // A mapping starts on a page, so the line is one aligned cache line.
    void* p = mmap(nullptr, kCacheLine, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        throw std::runtime_error("cache line segment: mmap failed");
    }
    return static_cast<char*>(p);
}

std::uint64_t* LineSeq(char* line) {
    return reinterpret_cast<std::uint64_t*>(line + kLineSeqOffset);
}

class SpinLineSender : public Sender {
public:
    explicit SpinLineSender(const RunParams& params) : line_(MapSpinLine(params, false)) {}
    ~SpinLineSender() override { munmap(line_, kCacheLine); }
    void Send(const char* data, size_t size) override {
        const size_t after = kLineSeqOffset + sizeof(std::uint64_t);
        if (size > kCacheLine || size < after) {
            throw std::runtime_error("a block that does not fit the cache line");
        }
        std::memcpy(line_, data, kLineSeqOffset);
        std::memcpy(line_ + after, data + after, size - after);
        std::uint64_t seq;
        std::memcpy(&seq, data + kLineSeqOffset, sizeof seq);
        __atomic_store_n(LineSeq(line_), seq, __ATOMIC_RELEASE);
    }

private:
    char* line_;
};

class SpinLineReceiver : public Receiver {
public:
    explicit SpinLineReceiver(const RunParams& params)
        : line_(MapSpinLine(params, false)), blockSize_(params.blockSize) {}
    ~SpinLineReceiver() override { munmap(line_, kCacheLine); }
    void Run(BlockSink& sink, Stopper& stop) override {
        std::uint64_t* const word = LineSeq(line_);
        std::uint64_t seen = kLineEmpty;
        unsigned int idle = 0;
        // No pause instruction: in a VM a pause loop can make the hypervisor deschedule the
        // core. The stop flag and its clock are looked at only now and then.
        for (;;) {
            const std::uint64_t seq = __atomic_load_n(word, __ATOMIC_ACQUIRE);
            if (seq != seen) {
                seen = seq;
                sink.OnBlock(line_, blockSize_);
                continue;
            }
            if ((++idle & 4095) == 0 && stop.Stopped()) {
                return;
            }
        }
    }

private:
    char* line_;
    size_t blockSize_;
};

// ---------------------------------------------------------------------------------------------
// What each transport creates before its children start, and removes afterwards

void PrepareFloorCondvar(RunParams& params) {
    FloorShared* f = MapFloor(params, true);
    pthread_mutexattr_t ma;
    pthread_mutexattr_init(&ma);
    pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&f->mutex, &ma);
    pthread_mutexattr_destroy(&ma);
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
    pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
    pthread_cond_init(&f->cond, &ca);
    pthread_condattr_destroy(&ca);
    f->seq = 0;
    f->size = 0;
    munmap(f, FloorBytes(params));
}

void CleanupFloorCondvar(RunParams& params) {
    shm_unlink(FloorName(params).c_str());
}

void PrepareSpinLine(RunParams& params) {
    char* line = MapSpinLine(params, true);
    std::memset(line, 0, kCacheLine);
    __atomic_store_n(LineSeq(line), kLineEmpty, __ATOMIC_RELEASE);
    munmap(line, kCacheLine);
}

void CleanupSpinLine(RunParams& params) {
    shm_unlink(SpinLineName(params).c_str());
}

void CleanupSlot(RunParams& params) {
    SlotFactory::RemoveSlot(params.name);
}

void CleanupPool(RunParams& params) {
    Slot::PoolFactory::RemovePool(params.name);
}

void CleanupPipeSlot(RunParams& params) {
    unlink(FileUtils::NamedPipeCreator::ConstructPipeFilename(params.name).c_str());
}

void PrepareBoostMq(RunParams& params) {
    BoostQueue::remove(BoostQueueName(params).c_str());
    BoostQueue queue(boost::interprocess::create_only, BoostQueueName(params).c_str(),
                     static_cast<BoostQueue::size_type>(params.depth),
                     static_cast<BoostQueue::size_type>(params.blockSize));
}

void CleanupBoostMq(RunParams& params) {
    BoostQueue::remove(BoostQueueName(params).c_str());
}

void PreparePosixMq(RunParams& params) {
    // The default limit of a queue's length (fs.mqueue.msg_max) is 10; ask for the run's
    // depth and fall back to what the system grants, which the report then shows.
    mq_unlink(PosixQueueName(params).c_str());
    const std::vector<long> depths = {static_cast<long>(params.depth), 64, 10};
    std::string error;
    for (long depth : depths) {
        if (depth > static_cast<long>(params.depth)) {
            continue;
        }
        mq_attr attr;
        std::memset(&attr, 0, sizeof attr);
        attr.mq_maxmsg = depth;
        attr.mq_msgsize = static_cast<long>(params.blockSize);
        const mqd_t q =
            mq_open(PosixQueueName(params).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, &attr);
        if (q != static_cast<mqd_t>(-1)) {
            mq_close(q);
            params.depth = static_cast<size_t>(depth);
            return;
        }
        error = std::strerror(errno);
    }
    throw std::runtime_error("mq_open of " + std::to_string(params.blockSize) +
                             "-byte messages refused: " + error +
                             " (see /proc/sys/fs/mqueue/msgsize_max)");
}

void CleanupPosixMq(RunParams& params) {
    mq_unlink(PosixQueueName(params).c_str());
}

void PrepareFifo(RunParams& params) {
    unlink(FifoPath(params).c_str());
    if (mkfifo(FifoPath(params).c_str(), 0600) != 0) {
        throw std::runtime_error("mkfifo: " + std::string(std::strerror(errno)));
    }
}

void CleanupFifo(RunParams& params) {
    unlink(FifoPath(params).c_str());
}

void PrepareUds(RunParams& params) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        throw std::runtime_error("socketpair: " + std::string(std::strerror(errno)));
    }
    params.fdRead = sv[0];
    params.fdWrite = sv[1];
}

void CleanupUds(RunParams& params) {
    if (params.fdRead >= 0) {
        close(params.fdRead);
    }
    if (params.fdWrite >= 0) {
        close(params.fdWrite);
    }
    params.fdRead = params.fdWrite = -1;
}

// ---------------------------------------------------------------------------------------------
// The two ends of each transport

template <class T>
std::unique_ptr<Sender> SenderOf(const RunParams& params) {
    return std::unique_ptr<Sender>(new T(params));
}

template <class T>
std::unique_ptr<Receiver> ReceiverOf(const RunParams& params) {
    return std::unique_ptr<Receiver>(new T(params));
}

std::unique_ptr<Sender> FifoSender(const RunParams& params) {
    return std::unique_ptr<Sender>(new FdSender(OpenOrThrow(FifoPath(params), O_WRONLY)));
}

std::unique_ptr<Receiver> FifoReceiver(const RunParams& params) {
    // Read-write, so that opening does not wait for the writer and never sees end-of-file.
    return std::unique_ptr<Receiver>(
        new FdReceiver(OpenOrThrow(FifoPath(params), O_RDWR | O_CLOEXEC), params.blockSize));
}

std::unique_ptr<Sender> UdsSender(const RunParams& params) {
    return std::unique_ptr<Sender>(new FdSender(params.fdWrite));
}

std::unique_ptr<Receiver> UdsReceiver(const RunParams& params) {
    return std::unique_ptr<Receiver>(new FdReceiver(params.fdRead, params.blockSize));
}

typedef std::unique_ptr<Sender> (*SenderMaker)(const RunParams&);
typedef std::unique_ptr<Receiver> (*ReceiverMaker)(const RunParams&);

#ifdef SLOTBENCH_HAVE_ZMQ
const SenderMaker kZmqSender = MakeZmqSender;
const ReceiverMaker kZmqReceiver = MakeZmqReceiver;
#else
const SenderMaker kZmqSender = nullptr;
const ReceiverMaker kZmqReceiver = nullptr;
#endif
#ifdef SLOTBENCH_HAVE_ICEORYX
const SenderMaker kIceoryxSender = MakeIceoryxSender;
const SenderMaker kIceoryxLoanSender = MakeIceoryxLoanSender;
const ReceiverMaker kIceoryxReceiver = MakeIceoryxReceiver;
#else
const SenderMaker kIceoryxSender = nullptr;
const SenderMaker kIceoryxLoanSender = nullptr;
const ReceiverMaker kIceoryxReceiver = nullptr;
#endif

std::string ZmqUnavailable() {
#ifdef SLOTBENCH_HAVE_ZMQ
    return "";
#else
    return "libzmq3-dev was not found when the benchmark was configured";
#endif
}

std::string IceoryxUnavailable() {
#ifdef SLOTBENCH_HAVE_ICEORYX
    const char* roudi = std::getenv("SLOTBENCH_ROUDI");
    if (roudi == nullptr || std::string(roudi) != "running") {
        return roudi != nullptr && *roudi ? std::string(roudi)
                                          : "no RouDi daemon was started for this run";
    }
    return "";
#else
    return "libiceoryx-posh-dev was not found when the benchmark was configured";
#endif
}

const TransportInfo& Info(const std::string& name) {
    const TransportInfo* t = FindTransport(name);
    if (t == nullptr) {
        throw std::runtime_error("unknown transport " + name);
    }
    return *t;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Catalogue

const std::vector<TransportInfo>& Transports() {
    // Blocks above 64 KiB go through the transports that large blocks are compared on: the
    // reliable slot, its spinning reader, the pools, iceoryx, and the condvar floor that every
    // latency row is divided by. The peers that copy through the kernel stop at 64 KiB.
    const size_t kPeerMax = 65536;
    static const std::vector<TransportInfo> all = {
        // name, label, isSlot, latency, throughput, multiWriter, spinning, maxBlock,
        // prepare, cleanup, makeSender, makeReceiver, unavailable
        {"floor-spin", "floor: one cache line, spinning", false, true, false, false, true,
         kCacheLine, PrepareSpinLine, CleanupSpinLine, SenderOf<SpinLineSender>,
         ReceiverOf<SpinLineReceiver>, nullptr},
        {"floor-condvar", "floor: pthread mutex+condvar", false, true, false, false, false, 0,
         PrepareFloorCondvar, CleanupFloorCondvar, SenderOf<FloorSender>, ReceiverOf<FloorReceiver>,
         nullptr},
        {"slot-discarding", "slot discarding", true, true, false, false, false, kPeerMax, nullptr,
         CleanupSlot, SenderOf<SlotSender>, ReceiverOf<SlotReceiver>, nullptr},
        {"slot-reliable", "slot reliable", true, true, true, true, false, 0, nullptr, CleanupSlot,
         SenderOf<SlotSender>, ReceiverOf<SlotReceiver>, nullptr},
        {"slot-posix-pipe", "slot posix-pipe", true, true, false, false, false, kPeerMax, nullptr,
         CleanupPipeSlot, SenderOf<SlotSender>, ReceiverOf<SlotReceiver>, nullptr},
        // A reliable slot read by the spinning reader: it spins for a whole update time.
        {"slot-spinning", "slot reliable, spinning reader", true, true, true, false, true, 0,
         nullptr, CleanupSlot, SenderOf<SlotSender>, ReceiverOf<SlotReceiver>, nullptr},
        // Zero-copy pools of the queue kind: the writer fills a loaned block in place, the
        // reader's subscriber checks it where it lies; with the spinning reader; and the
        // one-copy path for writers that do not loan (PoolWriter::onNotify).
        {"pool-queue", "pool queue, filled in place", false, true, true, false, false, 0, nullptr,
         CleanupPool, SenderOf<PoolSender>, ReceiverOf<PoolReceiver>, nullptr},
        {"pool-spinning", "pool queue, filled in place, spinning reader", false, true, true, false,
         true, 0, nullptr, CleanupPool, SenderOf<PoolSender>, ReceiverOf<PoolReceiver>, nullptr},
        {"pool-copy", "pool queue, one copy (onNotify)", false, true, true, false, false, 0,
         nullptr, CleanupPool, SenderOf<PoolSender>, ReceiverOf<PoolReceiver>, nullptr},
        // A latest pool, latency only (a paced writer never outruns its reader).
        {"pool-latest", "pool latest, filled in place", false, true, false, false, false, 0,
         nullptr, CleanupPool, SenderOf<PoolSender>, ReceiverOf<PoolReceiver>, nullptr},
        {"pool-latest-spinning", "pool latest, filled in place, spinning reader", false, true,
         false, false, true, 0, nullptr, CleanupPool, SenderOf<PoolSender>,
         ReceiverOf<PoolReceiver>, nullptr},
        {"boost-mq", "Boost.Interprocess message_queue", false, true, true, true, false, kPeerMax,
         PrepareBoostMq, CleanupBoostMq, SenderOf<BoostMqSender>, ReceiverOf<BoostMqReceiver>,
         nullptr},
        {"posix-mq", "POSIX mq", false, true, true, true, false, kPeerMax, PreparePosixMq,
         CleanupPosixMq, SenderOf<PosixMqSender>, ReceiverOf<PosixMqReceiver>, nullptr},
        {"fifo", "pipe/FIFO", false, true, true, false, false, kPeerMax, PrepareFifo, CleanupFifo,
         FifoSender, FifoReceiver, nullptr},
        {"uds", "Unix socket pair", false, true, true, false, false, kPeerMax, PrepareUds,
         CleanupUds, UdsSender, UdsReceiver, nullptr},
        {"zmq", "ZeroMQ ipc PUB/SUB", false, true, true, false, false, kPeerMax, nullptr, nullptr,
         kZmqSender, kZmqReceiver, ZmqUnavailable},
        {"iceoryx", "iceoryx (WaitSet)", false, true, true, false, false, 0, nullptr, nullptr,
         kIceoryxSender, kIceoryxReceiver, IceoryxUnavailable},
        // The same, with the writer filling the loaned chunk in place: zero copy.
        {"iceoryx-loan", "iceoryx, filled in place", false, true, true, false, false, 0, nullptr,
         nullptr, kIceoryxLoanSender, kIceoryxReceiver, IceoryxUnavailable},
    };
    return all;
}

const TransportInfo* FindTransport(const std::string& name) {
    for (const TransportInfo& t : Transports()) {
        if (t.name == name) {
            return &t;
        }
    }
    return nullptr;
}

std::string TransportUnavailable(const std::string& name) {
    const TransportInfo* t = FindTransport(name);
    if (t == nullptr) {
        return "unknown transport " + name;
    }
    if (t->unavailable != nullptr) {
        const std::string why = t->unavailable();
        if (!why.empty()) {
            return why;
        }
    }
    return t->makeSender == nullptr || t->makeReceiver == nullptr ? "not built in" : "";
}

void PrepareTransport(RunParams& params) {
    if (params.transport.empty()) {
        return;
    }
    const TransportInfo& t = Info(params.transport);
    if (t.prepare != nullptr) {
        t.prepare(params);
    }
}

void CleanupTransport(RunParams& params) {
    if (params.transport.empty()) {
        return;
    }
    const TransportInfo& t = Info(params.transport);
    if (t.cleanup != nullptr) {
        t.cleanup(params);
    }
}

std::unique_ptr<Sender> MakeSender(const RunParams& params) {
    const TransportInfo& t = Info(params.transport);
    if (t.makeSender == nullptr) {
        throw std::runtime_error(t.label + " is not built in");
    }
    return t.makeSender(params);
}

std::unique_ptr<Receiver> MakeReceiver(const RunParams& params) {
    const TransportInfo& t = Info(params.transport);
    if (t.makeReceiver == nullptr) {
        throw std::runtime_error(t.label + " is not built in");
    }
    return t.makeReceiver(params);
}

}  // namespace bench
