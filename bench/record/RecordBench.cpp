// SPDX-License-Identifier: Apache-2.0
// The cost of recording: a reliable stream written as fast as the slot accepts, read once by a
// plain reader process (the slot's own throughput) and once by `slotctl record` writing an MCAP
// file to tmpfs, in the same run, for 64 KiB and 64 B blocks. Prints a Markdown table.
//
//   record_bench SLOTCTL DIR [--quick]        (DIR on a tmpfs, e.g. /dev/shm)
//   record_bench --writer NAME COUNT SIZE     (internal: the writer process)
//   record_bench --reader NAME COUNT SIZE     (internal: the plain reader process)
#include <Slot/SlotFactory.h>

#include <FileUtils/FSUtils.h>
#include <Slot/WriteOutcome.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

typedef std::chrono::steady_clock Clock;

SlotCfg Config(const std::string& name, size_t size) {
    return SlotCfg(name, "reliable", boost::posix_time::milliseconds(100), 64, size);
}

int Writer(const std::string& name, unsigned long count, size_t size) {
    const SlotCfg cfg = Config(name, size);
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    std::string block(size, 'x');
    for (unsigned long i = 0; i < count; ++i) {
        std::memcpy(&block[0], &i, std::min(sizeof(i), size));
        for (;;) {
            writer->onNotify(name, block.data(), block.size());
            if (Slot::LastWriteOutcome() != Slot::WriteOutcome::Refused) {
                break;
            }
            const timespec pause{0, 20000};
            ::nanosleep(&pause, nullptr);
        }
    }
    return 0;
}

// Counts blocks; says "ready" on stdout once its reader runs, exits after `count`.
class Counter : public shared::ISubscriber {
public:
    explicit Counter(unsigned long count) : count_(count) {}
    // The reader's thread; wakes the main thread only at the end, so that counting costs the
    // reader no more than the recorder's hand-over costs it.
    void onNotify(const std::string&, const void*, size_t) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (++seen_ == count_) {
            done_.notify_all();
        }
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [&] { return seen_ >= count_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    const unsigned long count_;
    unsigned long seen_ = 0;
};

int Reader(const std::string& name, unsigned long count, size_t size) {
    const SlotCfg cfg = Config(name, size);
    Counter counter(count);
    INotifierPtr reader =
        SlotFactory::CreateSlotReader(&cfg, ISubscriberPtr(&counter, [](shared::ISubscriber*) {}));
    std::fprintf(stderr, "ready\n");
    counter.Wait();
    reader.reset();
    return 0;
}

// A child process with its stderr in a pipe.
struct Child {
    pid_t pid = -1;
    int err = -1;
    std::string output;
};

Child Spawn(const std::vector<std::string>& args) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    Child child;
    child.pid = ::fork();
    if (child.pid == 0) {
        ::dup2(pipeFds[1], STDERR_FILENO);
        std::vector<char*> argv;
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    ::close(pipeFds[1]);
    child.err = pipeFds[0];
    return child;
}

// Reads the child's stderr until it holds `text` (false at its end or after 60 s).
bool WaitFor(Child& child, const std::string& text) {
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (child.output.find(text) == std::string::npos) {
        pollfd fd{child.err, POLLIN, 0};
        const int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
        if (left <= 0 || ::poll(&fd, 1, left) <= 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t n = ::read(child.err, buffer, sizeof(buffer));
        if (n <= 0) {
            return false;
        }
        child.output.append(buffer, static_cast<size_t>(n));
    }
    return true;
}

// Waits for the child, collecting the rest of its stderr; its exit status.
int Finish(Child& child) {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(child.err, buffer, sizeof(buffer))) > 0) {
        child.output.append(buffer, static_cast<size_t>(n));
    }
    ::close(child.err);
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Result {
    double seconds = 0;
    bool ok = false;
    bool keptUp = false;
};

// Removes the slot and the reader lock file its reliable readers left.
void Remove(const std::string& name) {
    SlotFactory::RemoveSlot(name);
    ::unlink(FileUtils::FSUtils::GetSingletonFileLockName(name).c_str());
}

// One stream through slot `name`, read by `reader` (ready once its stderr shows `readyText`).
Result Run(const std::string& self, const std::string& name, unsigned long count, size_t size,
           const std::vector<std::string>& reader, const std::string& readyText) {
    const SlotCfg cfg = Config(name, size);
    SlotFactory::CreateSlot(&cfg);
    Result result;
    Child read = Spawn(reader);
    if (!WaitFor(read, readyText)) {
        ::kill(read.pid, SIGKILL);
        Finish(read);
        Remove(name);
        std::fprintf(stderr, "record_bench: the reader did not start: %s\n", read.output.c_str());
        return result;
    }
    const auto start = Clock::now();
    Child write = Spawn({self, "--writer", name, std::to_string(count), std::to_string(size)});
    const int readStatus = Finish(read);
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const int writeStatus = Finish(write);
    result.ok = readStatus == 0 && writeStatus == 0;
    result.keptUp = read.output.find("; kept up") != std::string::npos;
    if (readyText != "ready" &&
        read.output.find(": " + std::to_string(count) + " blocks") == std::string::npos) {
        std::fprintf(stderr, "record_bench: the recorder did not record %lu blocks:\n%s", count,
                     read.output.c_str());
        result.ok = false;
    }
    Remove(name);
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "--writer") {
        return Writer(argv[2], std::strtoul(argv[3], nullptr, 10),
                      std::strtoul(argv[4], nullptr, 10));
    }
    if (argc == 5 && std::string(argv[1]) == "--reader") {
        return Reader(argv[2], std::strtoul(argv[3], nullptr, 10),
                      std::strtoul(argv[4], nullptr, 10));
    }
    if (argc < 3) {
        std::fprintf(stderr, "usage: record_bench SLOTCTL DIR [--quick]\n");
        return 2;
    }
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        return 1;
    }
    self[n] = '\0';
    const std::string slotctl = argv[1];
    const std::string dir = argv[2];
    const bool quick = argc > 3 && std::string(argv[3]) == "--quick";
    struct Case {
        size_t size;
        unsigned long count;
        const char* compression;
    } cases[] = {
        {65536, quick ? 500ul : 20000ul, "none"},
        {65536, quick ? 500ul : 20000ul, "zstd"},
        {64, quick ? 5000ul : 500000ul, "none"},
        {64, quick ? 5000ul : 500000ul, "zstd"},
    };
    std::printf(
        "| stream | blocks | slot alone: blocks/s | MB/s | recorded: blocks/s | MB/s | "
        "recorded / alone | recorder kept up |\n|---|---|---|---|---|---|---|---|\n");
    bool allOk = true;
    int index = 0;
    for (const Case& c : cases) {
        const std::string name =
            "recbench" + std::to_string(::getpid()) + "_" + std::to_string(index);
        const std::string file = dir + "/" + name + ".mcap";
        const Result alone =
            Run(self, name, c.count, c.size,
                {self, "--reader", name, std::to_string(c.count), std::to_string(c.size)}, "ready");
        const Result recorded = Run(self, name, c.count, c.size,
                                    {slotctl, "record", "-o", file, "--compression", c.compression,
                                     "--count", std::to_string(c.count), name},
                                    "slotctl: recording");
        ::unlink(file.c_str());
        allOk = allOk && alone.ok && recorded.ok;
        auto rate = [&](const Result& r) { return r.seconds > 0 ? c.count / r.seconds : 0.0; };
        std::printf("| reliable %s, %s | %lu | %.0f | %.1f | %.0f | %.1f | %.2f | %s |\n",
                    c.size == 65536 ? "64 KiB" : "64 B", c.compression, c.count, rate(alone),
                    rate(alone) * c.size / 1e6, rate(recorded), rate(recorded) * c.size / 1e6,
                    rate(alone) > 0 ? rate(recorded) / rate(alone) : 0.0,
                    recorded.keptUp ? "yes" : "no");
        std::fflush(stdout);
        ++index;
    }
    return allOk ? 0 : 1;
}
