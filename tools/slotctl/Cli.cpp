// SPDX-License-Identifier: Apache-2.0
#include "Cli.h"

#include "Names.h"
#include "Signals.h"

#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotText.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <mutex>
#include <streambuf>

namespace slotctl {

Arguments::Arguments(const std::string& command, const std::vector<std::string>& args,
                     const std::set<std::string>& valued, const std::set<std::string>& flags)
    : command_(command) {
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg == "-" || arg.empty() || arg[0] != '-') {
            operands_.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        auto unknown = [&] {
            return UsageError(command_ + ": unknown option '" + arg + "' (see slotctl " + command_ +
                              " --help)");
        };
        if (!StartsWith(arg, "--")) {
            throw unknown();
        }
        std::string name = arg.substr(2);
        std::string value;
        const std::string::size_type equals = name.find('=');
        const bool inlineValue = equals != std::string::npos;
        if (inlineValue) {
            value = name.substr(equals + 1);
            name.erase(equals);
        }
        if (valued.count(name) != 0) {
            if (!inlineValue) {
                if (i + 1 >= args.size()) {
                    throw UsageError(command_ + ": option '--" + name + "' needs a value");
                }
                value = args[++i];
            }
            values_[name] = value;
            allValues_[name].push_back(value);
        } else if (flags.count(name) != 0 && !inlineValue) {
            flags_.insert(name);
        } else {
            throw unknown();
        }
    }
}

bool Arguments::Has(const std::string& option) const {
    return flags_.count(option) != 0 || values_.count(option) != 0;
}

std::string Arguments::Get(const std::string& option, const std::string& fallback) const {
    const auto it = values_.find(option);
    return it == values_.end() ? fallback : it->second;
}

std::vector<std::string> Arguments::GetAll(const std::string& option) const {
    const auto it = allValues_.find(option);
    return it == allValues_.end() ? std::vector<std::string>() : it->second;
}

std::uint64_t Arguments::GetNumber(const std::string& option, std::uint64_t fallback,
                                   std::uint64_t min, std::uint64_t max) const {
    const auto it = values_.find(option);
    if (it == values_.end()) {
        return fallback;
    }
    return ParseNumber(it->second, command_ + ": --" + option, min, max);
}

double Arguments::GetSeconds(const std::string& option, double fallback, double min,
                             double max) const {
    const auto it = values_.find(option);
    if (it == values_.end()) {
        return fallback;
    }
    const char* text = it->second.c_str();
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text, &end);
    if (it->second.empty() || *end != '\0' || errno != 0 || !(value >= min && value <= max)) {
        char range[96];
        std::snprintf(range, sizeof(range), "a number of seconds from %g to %g", min, max);
        throw UsageError(command_ + ": --" + option + " must be " + range + ", not '" + it->second +
                         "'");
    }
    return value;
}

void Arguments::ExpectOperands(size_t min, size_t max, const std::string& what) const {
    if (operands_.size() < min || operands_.size() > max) {
        throw UsageError(command_ + ": expected " + what + " (see slotctl " + command_ +
                         " --help)");
    }
}

std::uint64_t ParseNumber(const std::string& text, const std::string& what, std::uint64_t min,
                          std::uint64_t max) {
    bool ok = !text.empty() && text.size() <= 19;
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            ok = false;
            break;
        }
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (!ok || value < min || value > max) {
        throw UsageError(what + " must be a whole number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not '" + text + "'");
    }
    return value;
}

void CheckSlotName(const std::string& name) {
    if (const std::optional<std::string> problem = Slot::SlotNameProblem(name)) {
        throw UsageError("invalid slot name " + Quote(name) + ": the name " + *problem);
    }
}

void CheckSlotType(const std::string& type) {
    if (!SlotFactory::SlotTypeIsValid(type)) {
        throw UsageError("invalid slot type " + Quote(type) +
                         ": use discarding, reliable or posix-pipe");
    }
}

std::string Quote(const std::string& name) {
    const size_t shown = name.size() > 300 ? 300 : name.size();
    return "'" + Printable(name.substr(0, shown)) + (shown < name.size() ? "..." : "") + "'";
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string Join(const std::vector<std::string>& parts) {
    std::string text;
    for (size_t i = 0; i < parts.size(); ++i) {
        text += (i == 0 ? "" : ", ") + parts[i];
    }
    return text;
}

std::vector<size_t> CharacterStarts(const std::string& text) {
    std::vector<size_t> starts;
    for (size_t at = 0; at < text.size();) {
        starts.push_back(at);
        std::uint32_t codePoint = 0;
        at += std::max<size_t>(1, Slot::Utf8SequenceAt(text, at, codePoint));
    }
    return starts;
}

std::string Padded(const std::string& text, size_t width) {
    const size_t columns = CharacterStarts(text).size();
    return columns >= width ? text : text + std::string(width - columns, ' ');
}

std::string RightAligned(const std::string& text, size_t width) {
    const size_t columns = CharacterStarts(text).size();
    return columns >= width ? text : std::string(width - columns, ' ') + text;
}

namespace {

typedef std::chrono::steady_clock Clock;

// How standard output or standard error is written. A terminal, pipe, FIFO or socket may stall
// when nobody drains it (Ctrl-S, a stalled ssh, a reader that stopped), and the stop signals
// only reach us through their descriptor: such an output is written without blocking and waited
// for together with that descriptor. The stall costs nothing while the output takes everything
// at once.
struct Output {
    int fd = -1;
    bool socket = false;      // send() with MSG_DONTWAIT
    bool polled = false;      // a FIFO without a descriptor of our own: wait for room first
    bool sliced = false;      // a terminal without one: each write is cut short (WriteSlices)
    size_t piece = SIZE_MAX;  // most bytes one write may carry
};

// A descriptor of our own for the FIFO or terminal that `fd` reaches, opened again with
// O_NONBLOCK: the flag on the inherited descriptor would change it for every process sharing
// it, while a new open file description carries it alone. -1 when that cannot be opened (no
// reader on the FIFO any more, another user's terminal after su, no /proc).
int OwnNonBlocking(int fd, const struct stat& st) {
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const int own = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    struct stat ownSt;
    if (own >= 0 && ::fstat(own, &ownSt) == 0 && ownSt.st_dev == st.st_dev &&
        ownSt.st_ino == st.st_ino && ownSt.st_rdev == st.st_rdev) {
        return own;
    }
    if (own >= 0) {
        ::close(own);
    }
    return -1;
}

Output OutputOf(int fd) {
    Output out;
    out.fd = fd;
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        return out;
    }
    const bool terminal = S_ISCHR(st.st_mode) && ::isatty(fd) == 1;
    if (S_ISSOCK(st.st_mode)) {
        out.socket = true;
    } else if (S_ISFIFO(st.st_mode) || terminal) {
        const int own = OwnNonBlocking(fd, st);
        if (own >= 0) {
            out.fd = own;
        } else if (terminal) {
            out.sliced = true;
        } else {
            // Room for one page, reported by poll, takes PIPE_BUF bytes without blocking.
            out.polled = true;
            out.piece = PIPE_BUF;
        }
    }
    return out;
}

const Output& StandardOutput() {
    static const Output output = OutputOf(STDOUT_FILENO);
    return output;
}

const Output& StandardError() {
    static const Output output = OutputOf(STDERR_FILENO);
    return output;
}

// For a terminal that can only be written with blocking writes: while one lives, a timer of
// this thread raises SIGALRM every 100 ms, whose handler does nothing and is installed without
// SA_RESTART, so that a write the terminal does not take returns (what it wrote, or EINTR) and
// the stop signals and the time-out are looked at in between. A signal still queued when the
// timer is disarmed is handled on the way back from that call, so it cuts nothing later.
class WriteSlices {
public:
    WriteSlices() {
        static std::once_flag handlerSet;
        std::call_once(handlerSet, [] {
            struct sigaction action {};
            action.sa_handler = [](int) {};
            sigemptyset(&action.sa_mask);
            ::sigaction(SIGALRM, &action, nullptr);
        });
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGALRM;
        event._sigev_un._tid = ::gettid();  // glibc names it only so
        made_ = ::timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
        const itimerspec every = {{0, 100000000}, {0, 100000000}};
        if (made_) {
            ::timer_settime(timer_, 0, &every, nullptr);
        }
    }
    ~WriteSlices() {
        if (made_) {
            const itimerspec off{};
            ::timer_settime(timer_, 0, &off, nullptr);
            ::timer_delete(timer_);
        }
    }
    WriteSlices(const WriteSlices&) = delete;
    WriteSlices& operator=(const WriteSlices&) = delete;

private:
    timer_t timer_{};
    bool made_ = false;
};

// Waits until `out` takes bytes (a sliced terminal: its next write is the wait), a stop signal
// arrives, also one another thread took, or `deadline` passes (none when `timeoutMs` < 0).
WaitResult WaitForRoom(const Output& out, int timeoutMs, Clock::time_point deadline) {
    for (;;) {
        if (StopSignals::Received()) {
            return WaitResult::Stopped;
        }
        int waitMs = -1;
        if (timeoutMs >= 0) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return WaitResult::TimedOut;
            }
            waitMs = static_cast<int>(left.count());
        }
        if (out.sliced) {
            return WaitResult::Ready;
        }
        const WaitResult room = WaitOrStop(out.fd, POLLOUT, waitMs);
        if (room != WaitResult::TimedOut) {
            return room;  // room, or an error the write reports
        }
    }
}

// Writes all of `bytes` to `out`; see WriteOut.
bool WriteTo(const Output& out, const std::string& bytes, int timeoutMs) {
    Clock::time_point deadline;
    bool waited = false;
    auto wait = [&] {
        if (!waited && timeoutMs >= 0) {
            deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        }
        waited = true;
        const WaitResult room = WaitForRoom(out, timeoutMs, deadline);
        if (room != WaitResult::Ready) {
            errno = room == WaitResult::Stopped ? OutputStopped : OutputTimedOut;
            return false;
        }
        return true;
    };
    size_t done = 0;
    while (done < bytes.size()) {
        const size_t size = std::min(bytes.size() - done, out.piece);
        if (out.polled && !wait()) {
            return false;
        }
        ssize_t n;
        if (out.socket) {
            n = ::send(out.fd, bytes.data() + done, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        } else if (out.sliced) {
            const WriteSlices slices;
            n = ::write(out.fd, bytes.data() + done, size);
        } else {
            n = ::write(out.fd, bytes.data() + done, size);
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || (errno == EINTR && out.sliced))) {
            if (!wait()) {
                return false;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;  // nothing written, and no reason given
            }
            return false;
        }
        done += static_cast<size_t>(n);
        waited = false;  // it took bytes: the time-out counts from its next stall
    }
    return true;
}

// std::cout's and std::cerr's buffer: the text goes out through `write` line by line, and
// whatever a flush finds. A failed write drops its text and sets the stream's badbit, as a
// failed stdio write did. Any thread may write.
class LineBuffer : public std::streambuf {
public:
    explicit LineBuffer(bool (*write)(const std::string&)) : write_(write) {}

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_.append(text, static_cast<size_t>(size));
        const std::string::size_type newline = pending_.rfind('\n');
        return newline == std::string::npos || Flush(newline + 1) ? size : 0;
    }

    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        const char character = traits_type::to_char_type(c);
        return xsputn(&character, 1) == 1 ? c : traits_type::eof();
    }

    int sync() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return Flush(pending_.size()) ? 0 : -1;
    }

private:
    bool Flush(size_t size) {
        if (size == 0) {
            return true;
        }
        const std::string text = pending_.substr(0, size);
        pending_.erase(0, size);
        return write_(text);
    }

    bool (*const write_)(const std::string&);
    std::mutex mutex_;  // guards pending_
    std::string pending_;
};

}  // namespace

bool WriteOut(const std::string& bytes, int timeoutMs) {
    return WriteTo(StandardOutput(), bytes, timeoutMs);
}

int OutputWatchFd() {
    return StandardOutput().fd;
}

bool WriteErr(const std::string& bytes) {
    return WriteTo(StandardError(), bytes, -1);
}

void RouteStandardStreams() {
    // Never destroyed: the streams are flushed at exit, after the static objects of this file.
    static LineBuffer* const out =
        new LineBuffer([](const std::string& text) { return WriteOut(text); });
    static LineBuffer* const err = new LineBuffer(WriteErr);
    std::cout.rdbuf(out);
    std::cerr.rdbuf(err);
}

std::string OutputFailure(int error) {
    if (error == EPIPE || error == OutputStopped) {
        return "";
    }
    if (error == OutputTimedOut) {
        return "cannot write standard output: it took nothing within the time-out";
    }
    return std::string("cannot write standard output: ") + std::strerror(error);
}

int OutputStatus(int error) {
    return error == OutputStopped    ? ExitInterrupted
           : error == OutputTimedOut ? ExitTimedOut
                                     : ExitFailure;
}

void PrintOut(const std::string& text) {
    if (!WriteOut(text)) {
        throw CommandError(OutputStatus(errno), OutputFailure(errno));
    }
}

int OutputFailed(int error) {
    const std::string why = OutputFailure(error);
    if (!why.empty()) {
        std::cerr << "slotctl: " << why << std::endl;
    }
    return OutputStatus(error);
}

}  // namespace slotctl
