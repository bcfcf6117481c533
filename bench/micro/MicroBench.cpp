// SPDX-License-Identifier: Apache-2.0
// Micro costs of the pieces a slot block passes through, measured with Google Benchmark in one
// process: copies, the reader's block check, the per-read allocations, the locks and clocks
// taken per block, one write+read through a reliable slot and through its bare queue
// without any wake-up, and a pool's loan+publish and hand-over to a reader thread. They explain the
// multi-process figures of slotbench; they are not a substitute for them.
//
//   slot_microbench [--md=FILE] [--tag=PREFIX] [Google Benchmark flags]
#include "../src/BenchUtil.h"

#include <Slot/ISlotConfiguration.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolWriter.h>
#include <Slot/SlotFactory.h>
#include <shared/ILockable.h>
#include <shared/ISyncEvent.h>
#include <shared/SharedMemory.h>
#include <shared/SizedArray.h>

#include <benchmark/benchmark.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/make_shared.hpp>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// Prefix of every object this program creates; bench/run passes its own (--tag=...) so that it
// can clean up after a killed run.
std::string& Tag() {
    static std::string tag = "sbmicro" + std::to_string(getpid());
    return tag;
}

void BM_Memcpy(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    std::vector<char> src(size, 1), dst(size, 2);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
BENCHMARK(BM_Memcpy)->Arg(64)->Arg(1024)->Arg(4096)->Arg(65536);

void BM_BlockCheck(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    bench::BlockSource source(size, 0, 1);
    const char* block = source.Prepare(1);
    bench::BlockHeader header;
    for (auto _ : state) {
        benchmark::DoNotOptimize(bench::CheckBlock(block, size, size, &header));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
BENCHMARK(BM_BlockCheck)->Arg(64)->Arg(1024)->Arg(4096)->Arg(65536);

// What a read allocates twice per block: a SizedArray of the slot's maximum block size.
void BM_SizedArrayAllocate(benchmark::State& state) {
    const unsigned int size = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        shared::SizedArray array(size);
        benchmark::DoNotOptimize(array.data());
    }
}
BENCHMARK(BM_SizedArrayAllocate)->Arg(64)->Arg(1024)->Arg(4096)->Arg(65536);

void BM_InterprocessMutexLockUnlock(benchmark::State& state) {
    boost::interprocess::interprocess_mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}
BENCHMARK(BM_InterprocessMutexLockUnlock);

void BM_ClockMonotonic(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(bench::NowNs());
    }
}
BENCHMARK(BM_ClockMonotonic);

// The write stamp every accepted slot write takes.
void BM_MicrosecClockUniversalTime(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(boost::posix_time::microsec_clock::universal_time());
    }
}
BENCHMARK(BM_MicrosecClockUniversalTime);

// A reliable slot of 16 blocks of `size` bytes.
SlotCfg MicroSlotConfig(const std::string& name, size_t size) {
    return SlotCfg(name, "reliable", boost::posix_time::seconds(1), 16, size);
}

// Removes the slot whatever happens to the benchmark.
struct SlotRemover {
    std::string name;
    ~SlotRemover() { SlotFactory::RemoveSlot(name); }
};

// One block written and read back through a reliable slot, with the locks a writer and a
// reader take and the writer's wake-up broadcast (nobody waits), in one thread.
void BM_ReliableSlotWriteRead(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const std::string name = Tag() + "_slot" + std::to_string(size);
    SlotRemover remover{name};
    const SlotCfg cfg = MicroSlotConfig(name, size);
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
    std::vector<char> in(size, 5);
    shared::SizedArray out(static_cast<unsigned int>(slot->GetMaxDataSize()));
    for (auto _ : state) {
        {
            shared::ILockable* lock = slot->GetLockable();
            lock->lock();
            slot->WriteData(in.data(), size);
            lock->unlock();
            slot->GetOnWriteCondition()->Notify();
        }
        {
            shared::SizedArray buffer(static_cast<unsigned int>(slot->GetMaxDataSize()));
            shared::ILockable* lock = slot->GetLockable();
            lock->lock();
            benchmark::DoNotOptimize(slot->ReadData(buffer.data(), buffer.size()));
            lock->unlock();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
BENCHMARK(BM_ReliableSlotWriteRead)->Arg(64)->Arg(4096)->Arg(65536);

// The same block through the bare queue type the slot uses: what the slot adds on top.
void BM_BoostQueueSendReceive(benchmark::State& state) {
    typedef boost::interprocess::message_queue_t<shared::SlotOffsetPtr> Queue;
    const size_t size = static_cast<size_t>(state.range(0));
    const std::string name = Tag() + "_mq" + std::to_string(size);
    Queue::remove(name.c_str());
    {
        Queue queue(boost::interprocess::create_only, name.c_str(), 16, size);
        std::vector<char> in(size, 5), out(size);
        for (auto _ : state) {
            queue.try_send(in.data(), size, 0);
            Queue::size_type received = 0;
            unsigned int priority = 0;
            queue.try_receive(out.data(), size, received, priority);
            benchmark::DoNotOptimize(received);
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
    }
    Queue::remove(name.c_str());
}
BENCHMARK(BM_BoostQueueSendReceive)->Arg(64)->Arg(4096)->Arg(65536);

// Removes the pool whatever happens to the benchmark.
struct PoolRemover {
    std::string name;
    ~PoolRemover() { Slot::PoolFactory::RemovePool(name); }
};

// A writer's loan and publish into a "latest" pool that nobody reads: what a block costs the
// writer when nothing waits for it.
void BM_PoolLoanPublish(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const std::string name = Tag() + "_pool" + std::to_string(size);
    PoolRemover remover{name};
    auto writer = Slot::PoolFactory::CreatePoolWriter(Slot::PoolConfig{name, "latest", size, 4});
    for (auto _ : state) {
        Slot::PoolLoan loan = writer->loan(size);
        static_cast<unsigned char*>(loan.data())[0] = 1;
        benchmark::DoNotOptimize(loan.publish(size));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_PoolLoanPublish)->Arg(64)->Arg(65536);

// Counts deliveries.
class CountingSubscriber : public shared::ISubscriber {
public:
    void onNotify(const std::string&, const void*, size_t) override {
        delivered.fetch_add(1, std::memory_order_release);
    }
    std::atomic<std::uint64_t> delivered{0};
};

// One block through a "queue" pool: loan, publish, and its delivery on the reader's thread
// (the writer waits for it before the next block), so the reader sleeps and is woken each time.
void BM_PoolQueueHandOver(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const std::string name = Tag() + "_poolq" + std::to_string(size);
    PoolRemover remover{name};
    const Slot::PoolConfig config{name, "queue", size, 4};
    auto writer = Slot::PoolFactory::CreatePoolWriter(config);
    auto counter = boost::make_shared<CountingSubscriber>();
    INotifierPtr reader = Slot::PoolFactory::CreatePoolReader(config, counter);
    std::uint64_t sent = 0;
    for (auto _ : state) {
        Slot::PoolLoan loan = writer->loan(size);
        static_cast<unsigned char*>(loan.data())[0] = 1;
        benchmark::DoNotOptimize(loan.publish(size));
        ++sent;
        while (counter->delivered.load(std::memory_order_acquire) != sent) {
            std::this_thread::yield();
        }
    }
    reader.reset();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_PoolQueueHandOver)->Arg(64)->Arg(65536);

// Console output as usual, plus a Markdown table of the same runs.
class MarkdownReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            // With repetitions only the median row is kept.
            if (run.error_occurred ||
                (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")) {
                continue;
            }
            std::ostringstream row;
            row << "| `" << run.benchmark_name() << "` | "
                << bench::FormatDouble(run.GetAdjustedRealTime(), 1) << " "
                << benchmark::GetTimeUnitString(run.time_unit) << " | ";
            auto it = run.counters.find("bytes_per_second");
            if (it != run.counters.end()) {
                row << bench::FormatDouble(it->second.value / 1e9, 2) << " GB/s";
            }
            row << " |";
            rows_.push_back(row.str());
        }
    }
    void WriteTo(const std::string& path) const {
        std::ofstream md(path);
        md << "| micro benchmark | time per iteration | bandwidth |\n|---|---:|---:|\n";
        for (const std::string& r : rows_) {
            md << r << "\n";
        }
    }

private:
    std::vector<std::string> rows_;
};

}  // namespace

int main(int argc, char** argv) {
    std::string mdPath;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a.rfind("--md=", 0) == 0) {
            mdPath = a.substr(5);
        } else if (a.rfind("--tag=", 0) == 0) {
            Tag() = a.substr(6);
        } else {
            args.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(args.size());
    log4cxx::LogManager::resetConfiguration();
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
    benchmark::Initialize(&count, args.data());
    MarkdownReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (!mdPath.empty()) {
        reporter.WriteTo(mdPath);
    }
    return 0;
}
