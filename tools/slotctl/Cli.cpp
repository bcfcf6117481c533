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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

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

// How standard output is written. A pipe, FIFO or socket may stall when nobody drains it, and
// the stop signals only reach us through their descriptor: such an output is written without
// blocking and waited for together with that descriptor. The stall costs nothing while the
// output takes everything at once.
struct Output {
    int fd = STDOUT_FILENO;
    bool socket = false;      // send() with MSG_DONTWAIT
    bool polled = false;      // no own non-blocking descriptor: wait for room before each write
    size_t piece = SIZE_MAX;  // most bytes one polled write may carry without blocking
};

const Output& StandardOutput() {
    static const Output output = [] {
        Output out;
        struct stat st;
        if (::fstat(STDOUT_FILENO, &st) != 0) {
            return out;
        }
        if (S_ISFIFO(st.st_mode)) {
            // O_NONBLOCK on the inherited descriptor would change it for every process sharing
            // it; a descriptor of our own for the same pipe carries the flag alone.
            const int own = ::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            struct stat ownSt;
            if (own >= 0 && ::fstat(own, &ownSt) == 0 && ownSt.st_dev == st.st_dev &&
                ownSt.st_ino == st.st_ino) {
                out.fd = own;
            } else {
                if (own >= 0) {
                    ::close(own);
                }
                // Room for one page, reported by poll, takes PIPE_BUF bytes without blocking.
                out.polled = true;
                out.piece = PIPE_BUF;
            }
        } else if (S_ISSOCK(st.st_mode)) {
            out.socket = true;
        } else if (S_ISCHR(st.st_mode) && ::isatty(STDOUT_FILENO)) {
            out.polled = true;  // a terminal stopped with Ctrl-S
        }
        return out;
    }();
    return output;
}

enum class Room { Ready, Stopped, TimedOut };

// Waits until `fd` takes bytes, a stop signal arrives or `deadline` passes (none when
// `timeoutMs` < 0).
Room WaitForRoom(int fd, int timeoutMs, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        if (StopSignals::Received()) {
            return Room::Stopped;
        }
        int waitMs = -1;
        if (timeoutMs >= 0) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return Room::TimedOut;
            }
            waitMs = static_cast<int>(left.count());
        }
        pollfd fds[2] = {{StopSignals::Fd(), POLLIN, 0}, {fd, POLLOUT, 0}};
        const int r = ::poll(fds, 2, waitMs);
        if (r > 0 && fds[1].revents != 0 && !StopSignals::Received()) {
            return Room::Ready;  // room, or an error the write reports
        }
    }
}

}  // namespace

bool WriteOut(const std::string& bytes, int timeoutMs) {
    const Output& out = StandardOutput();
    std::chrono::steady_clock::time_point deadline;
    bool waited = false;
    auto wait = [&] {
        if (!waited && timeoutMs >= 0) {
            deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        }
        waited = true;
        const Room room = WaitForRoom(out.fd, timeoutMs, deadline);
        if (room != Room::Ready) {
            errno = room == Room::Stopped ? OutputStopped : OutputTimedOut;
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
        const ssize_t n =
            out.socket ? ::send(out.fd, bytes.data() + done, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                       : ::write(out.fd, bytes.data() + done, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!wait()) {
                return false;
            }
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
