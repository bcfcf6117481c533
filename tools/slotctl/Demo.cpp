// SPDX-License-Identifier: Apache-2.0
// slotctl demo: a publisher and a subscriber process, blocks through the three slot types.
#include "Demo.h"
#include "Cli.h"
#include "Commands.h"
#include "Names.h"
#include "Signals.h"

#include <Slot/SlotFactory.h>

#include <FileUtils/FSUtils.h>
#include <FileUtils/NamedPipeCreator.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

namespace slotctl {

namespace {

using demo::Discarding;
using demo::PosixPipe;
using demo::Reliable;
using demo::SlotCount;
using demo::SlotTypes;

// A child process running this program under a hidden command. Its standard input and output
// are pipes to us; closing its input asks it to stop.
class Child {
public:
    Child(const std::string& executable, const std::vector<std::string>& args) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            throw CommandError(ExitFailure,
                               std::string("cannot make a pipe: ") + std::strerror(errno));
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(executable.c_str()));
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ < 0) {
            throw CommandError(ExitFailure, std::string("cannot fork: ") + std::strerror(errno));
        }
        if (pid_ == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            StopSignals::ResetForExec();
            // Ctrl-C reaches the whole process group; the controller stops us in order.
            std::signal(SIGINT, SIG_IGN);
            ::execv(executable.c_str(), argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = out[0];
        ::fcntl(output_, F_SETFL, O_NONBLOCK);
    }

    ~Child() {
        Finish(0);
        if (output_ >= 0) {
            ::close(output_);
        }
    }

    int OutputFd() const { return output_; }
    bool OutputOpen() const { return output_ >= 0; }

    void Stop() {
        if (input_ >= 0) {
            ::close(input_);
            input_ = -1;
        }
    }

    // Complete lines read so far; false at end of output.
    bool ReadLines(std::vector<std::string>& lines) {
        if (output_ < 0) {
            return false;
        }
        char chunk[4096];
        for (;;) {
            const ssize_t n = ::read(output_, chunk, sizeof(chunk));
            if (n > 0) {
                pending_.append(chunk, static_cast<size_t>(n));
                continue;
            }
            if (n < 0 && errno == EINTR) {
                continue;
            }
            std::string::size_type newline;
            while ((newline = pending_.find('\n')) != std::string::npos) {
                lines.push_back(pending_.substr(0, newline));
                pending_.erase(0, newline + 1);
            }
            if (n == 0) {
                ::close(output_);
                output_ = -1;
                return false;
            }
            return true;
        }
    }

    // Exit status once it has ended: waits up to `timeoutMs` (-1: for ever); -1 if still
    // running.
    int Wait(int timeoutMs) {
        if (reaped_) {
            return status_;
        }
        for (int waited = 0;; waited += 10) {
            int status = 0;
            const pid_t r = ::waitpid(pid_, &status, timeoutMs < 0 ? 0 : WNOHANG);
            if (r == pid_) {
                reaped_ = true;
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return status_;
            }
            if (r < 0 && errno != EINTR) {
                reaped_ = true;
                return status_;
            }
            if (timeoutMs >= 0 && waited >= timeoutMs) {
                return -1;
            }
            if (timeoutMs >= 0) {
                ::poll(nullptr, 0, 10);
            }
        }
    }

    // Stops it: closes its input, then kills it if it has not ended within `graceMs`.
    int Finish(int graceMs) {
        Stop();
        int status = Wait(graceMs);
        if (status == -1) {
            ::kill(pid_, SIGKILL);
            status = Wait(-1);
        }
        return status;
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string pending_;
    bool reaped_ = false;
    int status_ = -1;
};

struct SlotView {
    std::uint64_t sent = 0;
    std::uint64_t notStored = 0;
    std::uint64_t received = 0;
    std::uint64_t duplicates = 0;
    std::uint64_t outOfOrder = 0;
    std::uint64_t foreign = 0;  // blocks of another writer, ignored
    long long p50 = -1;         // ns
    long long p99 = -1;
};

struct View {
    SlotView slots[SlotCount];
    std::uint64_t elapsedMs = 0;
    bool publisherDone = false;
    bool subscriberReady = false;
    bool subscriberDone = false;
};

void ParseNumbers(const std::string& line, std::vector<long long>& numbers) {
    std::istringstream in(line.substr(1));
    long long n;
    while (in >> n) {
        numbers.push_back(n);
    }
}

void ApplyPublisher(View& view, const std::string& line) {
    std::vector<long long> n;
    ParseNumbers(line, n);
    if (n.size() != 1 + 2 * SlotCount) {
        return;
    }
    view.elapsedMs = static_cast<std::uint64_t>(n[0]);
    for (int i = 0; i < SlotCount; ++i) {
        view.slots[i].sent = static_cast<std::uint64_t>(n[1 + 2 * i]);
        view.slots[i].notStored = static_cast<std::uint64_t>(n[2 + 2 * i]);
    }
    if (line[0] == 'E') {
        view.publisherDone = true;
    }
}

void ApplySubscriber(View& view, const std::string& line) {
    if (line == "ready") {
        view.subscriberReady = true;
        return;
    }
    std::vector<long long> n;
    ParseNumbers(line, n);
    const int fields = 6;
    if (n.size() != static_cast<size_t>(fields * SlotCount)) {
        return;
    }
    for (int i = 0; i < SlotCount; ++i) {
        SlotView& s = view.slots[i];
        s.received = static_cast<std::uint64_t>(n[fields * i]);
        s.duplicates = static_cast<std::uint64_t>(n[fields * i + 1]);
        s.outOfOrder = static_cast<std::uint64_t>(n[fields * i + 2]);
        s.foreign = static_cast<std::uint64_t>(n[fields * i + 3]);
        s.p50 = n[fields * i + 4];
        s.p99 = n[fields * i + 5];
    }
    if (line[0] == 'F') {
        view.subscriberDone = true;
    }
}

std::string Latency(long long ns) {
    if (ns < 0) {
        return "-";
    }
    char text[32];
    const double us = static_cast<double>(ns) / 1000.0;
    if (us < 10) {
        std::snprintf(text, sizeof(text), "%.1f us", us);
    } else if (us < 10000) {
        std::snprintf(text, sizeof(text), "%.0f us", us);
    } else {
        std::snprintf(text, sizeof(text), "%.0f ms", us / 1000.0);
    }
    return text;
}

// Applies the child's new complete lines to the view; false at the end of its output.
bool ReadReports(Child& child, View& view, void (*apply)(View&, const std::string&)) {
    std::vector<std::string> lines;
    const bool open = child.ReadLines(lines);
    for (const std::string& line : lines) {
        apply(view, line);
    }
    return open;
}

const char* NotStoredWord(int slot) {
    return slot == Discarding ? "discarded" : slot == Reliable ? "refused" : "dropped";
}

// The progress line: the longest of three forms that fits the terminal, the shortest cut to
// fit. Counts are received/sent.
std::string ProgressLine(const View& view, size_t width) {
    char time[32];
    std::snprintf(time, sizeof(time), "%5.1f s", static_cast<double>(view.elapsedMs) / 1000.0);
    std::string forms[3] = {time, time, time};
    const char* shortNames[SlotCount] = {"disc", "rel", "pipe"};
    for (int i = 0; i < SlotCount; ++i) {
        const SlotView& s = view.slots[i];
        // The two processes report at different moments: a burst may already be counted as
        // received before its sending is reported.
        const std::string counts =
            std::to_string(std::min(s.received, s.sent)) + "/" + std::to_string(s.sent);
        const std::string notStored = std::to_string(s.notStored) + " " + NotStoredWord(i);
        const bool showNotStored = i != PosixPipe || s.notStored != 0;
        forms[0] += std::string(" | ") + SlotTypes[i] + " " + counts + " received" +
                    (showNotStored ? ", " + notStored : "") + ", p50 " + Latency(s.p50) + " p99 " +
                    Latency(s.p99);
        forms[1] += std::string(" | ") + SlotTypes[i] + " " + counts +
                    (showNotStored ? " (" + notStored + ")" : "") + " " + Latency(s.p50);
        forms[2] += std::string(" | ") + shortNames[i] + " " + counts +
                    (s.notStored != 0 ? " -" + std::to_string(s.notStored) : "") + " " +
                    Latency(s.p50);
    }
    for (const std::string& form : forms) {
        if (width == 0 || form.size() < width) {
            return form;
        }
    }
    return forms[2].substr(0, width - 1);
}

size_t TerminalWidth() {
    winsize ws;
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) {
        return ws.ws_col;
    }
    return 80;
}

std::string SummaryTable(const View& view) {
    std::ostringstream out;
    const size_t w[] = {11, 9, 9, 16, 9, 9, 9};
    out << Padded("TYPE", w[0]) << RightAligned("SENT", w[1]) << RightAligned("RECEIVED", w[2])
        << RightAligned("NOT STORED", w[3]) << RightAligned("OTHER", w[4])
        << RightAligned("p50", w[5]) << RightAligned("p99", w[6]) << "\n";
    for (int i = 0; i < SlotCount; ++i) {
        const SlotView& s = view.slots[i];
        const std::uint64_t accounted = s.received + s.notStored;
        const long long other = static_cast<long long>(s.sent) - static_cast<long long>(accounted);
        out << Padded(SlotTypes[i], w[0]) << RightAligned(std::to_string(s.sent), w[1])
            << RightAligned(std::to_string(s.received), w[2])
            << RightAligned(std::to_string(s.notStored) + " " + NotStoredWord(i), w[3])
            << RightAligned(std::to_string(other), w[4]) << RightAligned(Latency(s.p50), w[5])
            << RightAligned(Latency(s.p99), w[6]) << "\n";
    }
    out << "\n";
    const SlotView& d = view.slots[Discarding];
    out << "discarding: the newest block wins; " << d.notStored
        << " waiting blocks were thrown away by newer ones";
    if (d.duplicates != 0) {
        out << ", " << d.duplicates << " copies of the last block were delivered again";
    }
    out << ".\n";
    for (int i = Reliable; i < SlotCount; ++i) {
        const SlotView& s = view.slots[i];
        out << SlotTypes[i] << ": ";
        if (s.duplicates == 0 && s.outOfOrder == 0) {
            out << "every block that was stored arrived once, in order";
        } else {
            out << s.duplicates << " duplicates, " << s.outOfOrder << " out of order";
        }
        if (s.notStored != 0) {
            out << "; " << s.notStored << " were " << NotStoredWord(i)
                << (i == Reliable ? " while the queue was full" : " while the pipe was full");
        }
        out << ".\n";
    }
    for (int i = 0; i < SlotCount; ++i) {
        const std::uint64_t foreign = view.slots[i].foreign;
        if (foreign != 0) {
            out << SlotTypes[i] << ": " << foreign << (foreign == 1 ? " block" : " blocks")
                << " of another writer (not the demo's) ignored.\n";
        }
    }
    out << "OTHER: sent but neither received nor reported (a discarding reader skips a block "
           "older than its update time; a stop cuts the last ones off).\n";
    return out.str();
}

// Prints on standard output until that fails (a closed pipe, `| head`, or a stop signal while it
// took nothing); then Failure() tells why, and nothing more is printed.
class Printer {
public:
    bool Print(const std::string& text) {
        if (failure_ == 0 && !WriteOut(text)) {
            failure_ = errno;
        }
        return failure_ == 0;
    }
    int Failure() const { return failure_; }

private:
    int failure_ = 0;
};

// Removes what the demo made; says what was removed.
void CleanUp(const demo::Settings& settings, Printer& printer) {
    std::vector<std::string> removed;
    for (int i = 0; i < SlotCount; ++i) {
        const std::string name = settings.SlotName(i);
        if (i == PosixPipe) {
            const std::string pipe = FileUtils::NamedPipeCreator::PipeFilenameWithoutCreating(name);
            if (::unlink(pipe.c_str()) == 0) {
                removed.push_back(pipe);
            }
            continue;
        }
        const bool existed = ShmExists(name) || ShmExists(QueueObject(name));
        SlotFactory::RemoveSlot(name);
        if (existed) {
            removed.push_back("slot " + Quote(name));
        }
        if (i == Reliable) {
            const std::string lock = FileUtils::FSUtils::SingletonFileLockNameWithoutCreating(name);
            if (::unlink(lock.c_str()) == 0) {
                removed.push_back(lock);
            }
        }
    }
    if (!removed.empty()) {
        printer.Print("removed " + Join(removed) + "\n");
    }
}

// Removes the demo's objects when the controller leaves, whatever the way.
class CleanUpGuard {
public:
    CleanUpGuard(const demo::Settings& settings, Printer& printer)
        : settings_(settings), printer_(printer) {}
    ~CleanUpGuard() { CleanUp(settings_, printer_); }

private:
    const demo::Settings& settings_;
    Printer& printer_;
};

}  // namespace

int RunDemo(const Context& context, const std::vector<std::string>& args) {
    const Arguments arguments(
        "demo", args, {"duration", "rate", "burst", "size", "queue", "update-time", "prefix"}, {});
    arguments.ExpectOperands(0, 0, "no operands");
    demo::Settings settings;
    settings.durationMs = static_cast<std::uint64_t>(
        arguments.GetSeconds("duration", settings.durationMs / 1000.0, 0.0, 86400.0) * 1000);
    settings.rate = arguments.GetNumber("rate", settings.rate, 1, 1000000);
    settings.burst = arguments.GetNumber("burst", settings.burst, 1, 100000);
    settings.blockSize =
        arguments.GetNumber("size", settings.blockSize, demo::MinBlockSize, demo::MaxBlockSize);
    settings.queue = arguments.GetNumber("queue", settings.queue, 1, 100000);
    settings.updateMs = arguments.GetNumber("update-time", settings.updateMs, 1, 60000);
    settings.prefix = arguments.Get("prefix", "slotctl-demo-" + std::to_string(::getpid()));
    for (int i = 0; i < SlotCount; ++i) {
        const std::string name = settings.SlotName(i);
        CheckSlotName(name);
        if (ShmExists(name) || ShmExists(QueueObject(name)) ||
            ::access(FileUtils::NamedPipeCreator::PipeFilenameWithoutCreating(name).c_str(),
                     F_OK) == 0) {
            throw CommandError(ExitFailure, "slot " + Quote(name) +
                                                " exists already: choose another --prefix or "
                                                "remove it with slotctl rm");
        }
    }

    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    const size_t nameWidth = settings.SlotName(PosixPipe).size();
    std::ostringstream intro;
    intro << "slotctl demo: a publisher process writes " << settings.blockSize
          << "-byte blocks into three slots, a subscriber process reads them.\n"
          << "  " << Padded(settings.SlotName(Discarding), nameWidth)
          << "  a queue of one block; a new block throws the waiting one away\n"
          << "  " << Padded(settings.SlotName(Reliable), nameWidth) << "  a FIFO of "
          << settings.queue << " blocks; a write into a full queue is refused\n"
          << "  " << Padded(settings.SlotName(PosixPipe), nameWidth)
          << "  a named FIFO, a byte stream; a writer waits while it is full\n"
          << settings.rate << " blocks/s into each, in bursts of " << settings.burst << ", for "
          << static_cast<double>(settings.durationMs) / 1000.0
          << " s. Readers wake at each write, or every " << settings.updateMs
          << " ms. Ctrl-C stops early.\n\n";
    // Standard output failing (`| head`) stops the demo as Ctrl-C does, with the status of a
    // failed output.
    Printer printer;
    if (!printer.Print(intro.str())) {
        return OutputFailed(printer.Failure());
    }

    CleanUpGuard cleanUp(settings, printer);
    auto childArguments = [&](const char* command) {
        std::vector<std::string> args = LogArguments(context.log);
        args.push_back(command);
        for (const std::string& arg : settings.ToArguments()) {
            args.push_back(arg);
        }
        return args;
    };

    View view;
    std::unique_ptr<Child> subscriber(
        new Child(context.executable, childArguments("__demo-subscriber")));
    std::unique_ptr<Child> publisher;
    bool interrupted = false;
    const std::uint64_t started = demo::MonotonicNs();
    std::uint64_t drainSince = 0;    // when the publisher finished
    std::uint64_t lastProgress = 0;  // when the subscriber's counts last changed
    std::uint64_t lastReceived = 0;
    std::uint64_t lastPrinted = 0;
    bool progressShown = false;
    const std::uint64_t quietNs = std::max<std::uint64_t>(500, 3 * settings.updateMs) * 1000000u;
    const std::uint64_t readyLimitNs = 30000000000ull;
    const std::uint64_t drainLimitNs = 5000000000ull;

    for (;;) {
        std::vector<pollfd> fds;
        fds.push_back({StopSignals::Fd(), POLLIN, 0});
        if (subscriber->OutputOpen()) {
            fds.push_back({subscriber->OutputFd(), POLLIN, 0});
        }
        if (publisher && publisher->OutputOpen()) {
            fds.push_back({publisher->OutputFd(), POLLIN, 0});
        }
        ::poll(fds.data(), fds.size(), 100);
        const std::uint64_t now = demo::MonotonicNs();
        if (!interrupted && (StopSignals::Received() || printer.Failure() != 0)) {
            interrupted = true;
            if (publisher) {
                publisher->Stop();
            }
        }
        const bool subscriberOpen = ReadReports(*subscriber, view, ApplySubscriber);
        if (publisher && !ReadReports(*publisher, view, ApplyPublisher)) {
            view.publisherDone = true;  // ended, perhaps without its final report
        }
        if (!subscriberOpen && !view.subscriberDone) {
            throw CommandError(ExitFailure, "the subscriber process ended early (status " +
                                                std::to_string(subscriber->Finish(0)) + ")");
        }
        if (!publisher) {
            if (view.subscriberReady && !interrupted) {
                publisher.reset(new Child(context.executable, childArguments("__demo-publisher")));
                lastPrinted = now;
            } else if (interrupted || now - started > readyLimitNs) {
                break;
            }
            continue;
        }
        std::uint64_t received = 0;
        for (const SlotView& s : view.slots) {
            received += s.received;
        }
        if (received != lastReceived) {
            lastReceived = received;
            lastProgress = now;
        }
        if (!view.publisherDone) {
            if (view.elapsedMs != 0 &&
                (terminal ? now - lastPrinted >= 100000000u : now - lastPrinted >= 1000000000u)) {
                lastPrinted = now;
                if (terminal) {
                    printer.Print("\r\033[K" + ProgressLine(view, TerminalWidth()));
                    progressShown = true;
                } else {
                    printer.Print(ProgressLine(view, 0) + "\n");
                }
            }
            continue;
        }
        if (drainSince == 0) {
            drainSince = now;
            lastProgress = now;
        }
        // Wait for the subscriber to receive what was stored, or to stay quiet.
        const SlotView& reliable = view.slots[Reliable];
        const SlotView& pipe = view.slots[PosixPipe];
        const bool complete = reliable.received + reliable.notStored >= reliable.sent &&
                              pipe.received + pipe.notStored >= pipe.sent;
        if (complete || interrupted || now - lastProgress > quietNs ||
            now - drainSince > drainLimitNs) {
            break;
        }
    }
    if (!publisher && !interrupted) {
        throw CommandError(ExitFailure, "the subscriber process did not get ready within " +
                                            std::to_string(readyLimitNs / 1000000000u) + " s");
    }
    if (publisher) {
        publisher->Finish(5000);
    }
    subscriber->Stop();
    // Read the subscriber's final report until its output ends.
    const std::uint64_t finalLimit = demo::MonotonicNs() + 10000000000ull;
    while (subscriber->OutputOpen() && demo::MonotonicNs() < finalLimit) {
        pollfd p = {subscriber->OutputFd(), POLLIN, 0};
        ::poll(&p, 1, 100);
        ReadReports(*subscriber, view, ApplySubscriber);
    }
    subscriber->Finish(5000);
    publisher.reset();
    subscriber.reset();
    interrupted = interrupted || StopSignals::Received();

    std::string summary;
    if (progressShown) {
        summary += "\r\033[K" + ProgressLine(view, TerminalWidth()) + "\n";
    }
    summary += "\n" + SummaryTable(view);
    if (interrupted) {
        summary += "interrupted\n";
    }
    if (!printer.Print(summary)) {
        return OutputFailed(printer.Failure());
    }
    return interrupted ? ExitInterrupted : ExitOk;
}

}  // namespace slotctl
